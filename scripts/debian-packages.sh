# Sourced by the scripts beside it: the Debian packages each of them needs, in one place, the one
# way they are installed (as root, non-interactive, quiet: apt's output is shown only when it
# fails), and the private network namespace every run of the daemon and the tests goes into.
# shellcheck shell=bash

# demo.sh: the daemon and the simulator, built and run in a private network namespace.
DEMO_PACKAGES=(cmake make g++ iproute2 util-linux)
# test.sh: the default and sanitizer builds and their tests (GoogleTest; the packaging checks read
# the manual pages with groff and mandoc and the unit with systemd-analyze; the status document is
# read back by a real JSON parser and checked against its schema), the status page in headless
# Chromium, the fuzz smoke (clang 14 and its libFuzzer runtime), and the benchmarks' library.
TEST_PACKAGES=("${DEMO_PACKAGES[@]}" libgtest-dev libgmock-dev libbenchmark-dev clang-14
  libclang-rt-14-dev groff-base mandoc systemd python3-jsonschema chromium-headless-shell)
# fuzz.sh: the harnesses, built with clang 14 and its libFuzzer runtime.
FUZZ_PACKAGES=(cmake make clang-14 libclang-rt-14-dev util-linux)
# test.sh --arm: the cross compiler, qemu, and GoogleTest's sources (built with the cross compiler:
# Debian's armhf GoogleTest uses a 32-bit time_t).
ARM_TEST_PACKAGES=(cmake make iproute2 util-linux g++-arm-linux-gnueabihf qemu-user googletest
  groff-base mandoc systemd python3-jsonschema)
# package.sh: both .deb files, Debian's build flags, lintian, the commit time of the tree.
PACKAGE_PACKAGES=(cmake make g++ gzip dpkg-dev lintian git g++-arm-linux-gnueabihf)
# fresh-check.sh: the minimal Debian root and the clone copied into it.
FRESH_CHECK_PACKAGES=(mmdebstrap git util-linux)

# zunta_install_packages TAG PACKAGE...: installs the packages that are not installed yet.
zunta_install_packages() {
  local tag=$1 package log
  local missing=()
  shift
  for package in "$@"; do
    dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q ' installed$' || missing+=("$package")
  done
  ((${#missing[@]})) || return 0
  local as_root=()
  if [[ $(id -u) != 0 ]]; then
    if ! command -v sudo >/dev/null; then
      echo "$tag: needs ${missing[*]}: run as root, or apt-get install them" >&2
      return 1
    fi
    as_root=(sudo)
  fi
  echo "$tag: installing ${missing[*]}"
  log=$(mktemp /tmp/zunta-apt-XXXXXX)
  if ! { "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -q &&
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends \
      "${missing[@]}"; } >"$log" 2>&1; then
    cat "$log" >&2
    rm -f "$log"
    echo "$tag: apt-get failed" >&2
    return 1
  fi
  rm -f "$log"
}

# zunta_isolated TAG COMMAND...: runs COMMAND in a network namespace of its own in which only
# loopback is up, so nothing it sends can leave the machine and no two runs collide (as root
# directly, otherwise inside a user namespace). Where namespaces are not allowed, COMMAND runs on
# the host's loopback after a note.
zunta_isolated() {
  local tag=$1 flags
  shift
  for flags in -n -rn; do
    if unshare "$flags" true 2>/dev/null; then
      unshare "$flags" -- sh -c 'ip link set lo up && exec "$@"' sh "$@"
      return
    fi
  done
  echo "$tag: no private network namespace allowed here; running on the host's loopback" >&2
  "$@"
}
