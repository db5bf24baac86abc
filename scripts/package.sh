#!/usr/bin/env bash
# Builds the Debian packages of zunta-coord for this machine and for 32-bit ARM (armhf), inspects
# them with dpkg-deb and lintian, and leaves them in build-pkg/:
#
#   scripts/package.sh            both packages
#   scripts/package.sh --host     this machine's only
#   scripts/package.sh --arm      armhf only
#
# Installs what is missing from Debian's packages first (as root, see debian-packages.sh). The
# compiler and linker flags are Debian's hardened ones (dpkg-buildflags) for each architecture.
# Every file time in a package is the time of the last commit (SOURCE_DATE_EPOCH), so two runs on
# the same tree give the same bytes: each package is built twice from an empty build directory and
# the two compared.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
OUT=$ROOT/build-pkg

targets=(host arm)
case ${1:-} in
  "") ;;
  --host) targets=(host) ;;
  --arm) targets=(arm) ;;
  -h|--help) sed -n '2,10p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
  *) echo "package.sh: unknown argument $1" >&2; exit 2 ;;
esac

# shellcheck source=scripts/debian-packages.sh
. scripts/debian-packages.sh
zunta_install_packages package.sh "${PACKAGE_PACKAGES[@]}"

# The last commit's time; outside a git checkout, the changelog's.
if ! SOURCE_DATE_EPOCH=$(git log -1 --format=%ct 2>/dev/null); then
  SOURCE_DATE_EPOCH=$(dpkg-parsechangelog -l packaging/debian/changelog -S Timestamp)
fi
export SOURCE_DATE_EPOCH

# configure_and_pack NAME DEB_ARCH [cmake arguments...]: one build from an empty directory; the
# package is left in $OUT/NAME. Debian's directories are named: the unit goes to /lib/systemd/system
# and the configuration to /etc, as on a Debian system.
configure_and_pack() {
  local name=$1 arch=$2 dir=$OUT/$1
  shift 2
  local cxxflags ldflags
  cxxflags="$(DEB_HOST_ARCH=$arch DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --get CPPFLAGS) \
$(DEB_HOST_ARCH=$arch DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --get CXXFLAGS)"
  ldflags=$(DEB_HOST_ARCH=$arch DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --get LDFLAGS)
  rm -rf "$dir"
  cmake -S "$ROOT" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZUNTA_BUILD_TESTS=OFF \
    -DZUNTA_BUILD_BENCH=OFF -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_SYSCONFDIR=/etc \
    -DZUNTA_SYSTEMD_UNIT_DIR=/lib/systemd/system -DCMAKE_CXX_FLAGS="$cxxflags" \
    -DCMAKE_EXE_LINKER_FLAGS="$ldflags" "$@" >/dev/null
  cmake --build "$dir" --target zunta-coord zunta-docs -j2 >/dev/null
  (cd "$dir" && cpack -G DEB >/dev/null)
}

# build_deb NAME DEB_ARCH [cmake arguments...]
build_deb() {
  local name=$1 arch=$2 deb first
  echo "== $name ($arch) =="
  configure_and_pack "$@"
  deb=$(ls "$OUT/$name"/zunta-coord_*_"$arch".deb)
  first=$OUT/$(basename "$deb")
  cp "$deb" "$first"
  configure_and_pack "$@"
  if ! cmp "$deb" "$first"; then
    echo "package.sh: two builds of the same tree gave different packages: $first and $deb" >&2
    exit 1
  fi
  dpkg-deb --info "$first"
  dpkg-deb --contents "$first"
  # Errors fail the build; warnings and notes are shown.
  lintian --fail-on error --display-info "$first"
  echo "package.sh: $first, the same bytes from two builds: $(sha256sum "$first" | cut -d' ' -f1)"
}

mkdir -p "$OUT"
for target in "${targets[@]}"; do
  case $target in
    host) build_deb host "$(dpkg --print-architecture)" ;;
    arm) build_deb armhf armhf -DCMAKE_TOOLCHAIN_FILE="$ROOT/packaging/arm-linux-gnueabihf.cmake" ;;
  esac
done
ls -l "$OUT"/*.deb
