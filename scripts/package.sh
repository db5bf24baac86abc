#!/usr/bin/env bash
# Builds the Debian packages of zunta-coord for this machine and for 32-bit ARM (armhf), inspects
# them with dpkg-deb and lintian, and leaves them in build-pkg/:
#
#   scripts/package.sh            both packages
#   scripts/package.sh --host     this machine's only
#   scripts/package.sh --arm      armhf only
#
# Installs what is missing from Debian's packages first (as root, with apt-get). The compiler
# and linker flags are Debian's hardened ones (dpkg-buildflags) for each architecture.
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

missing=()
command -v cmake >/dev/null 2>&1 || missing+=(cmake)
command -v make >/dev/null 2>&1 || missing+=(make)
command -v g++ >/dev/null 2>&1 || missing+=(g++)
command -v gzip >/dev/null 2>&1 || missing+=(gzip)
command -v dpkg-buildflags >/dev/null 2>&1 || missing+=(dpkg-dev)
command -v lintian >/dev/null 2>&1 || missing+=(lintian)
if [[ " ${targets[*]} " == *" arm "* ]]; then
  command -v arm-linux-gnueabihf-g++ >/dev/null 2>&1 || missing+=(g++-arm-linux-gnueabihf)
fi
if ((${#missing[@]})); then
  echo "package.sh: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q
  apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

# build_deb NAME DEB_ARCH [cmake arguments...]
build_deb() {
  local name=$1 arch=$2 dir=$OUT/$1
  shift 2
  local cxxflags ldflags
  cxxflags="$(DEB_HOST_ARCH=$arch DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --get CPPFLAGS) \
$(DEB_HOST_ARCH=$arch DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --get CXXFLAGS)"
  ldflags=$(DEB_HOST_ARCH=$arch DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --get LDFLAGS)
  echo "== $name ($arch) =="
  cmake -S "$ROOT" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZUNTA_BUILD_TESTS=OFF \
    -DZUNTA_BUILD_BENCH=OFF -DCMAKE_CXX_FLAGS="$cxxflags" -DCMAKE_EXE_LINKER_FLAGS="$ldflags" "$@"
  cmake --build "$dir" --target zunta-coord zunta-docs -j2
  (cd "$dir" && cpack -G DEB)
  local deb
  deb=$(ls "$dir"/zunta-coord_*_"$arch".deb)
  cp "$deb" "$OUT/"
  deb=$OUT/$(basename "$deb")
  dpkg-deb --info "$deb"
  dpkg-deb --contents "$deb"
  # Errors fail the build; warnings and notes are shown.
  lintian --fail-on error --display-info "$deb"
  echo "package.sh: $deb"
}

mkdir -p "$OUT"
for target in "${targets[@]}"; do
  case $target in
    host) build_deb host "$(dpkg --print-architecture)" ;;
    arm) build_deb armhf armhf -DCMAKE_TOOLCHAIN_FILE="$ROOT/packaging/arm-linux-gnueabihf.cmake" ;;
  esac
done
ls -l "$OUT"/*.deb
