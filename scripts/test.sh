#!/usr/bin/env bash
# Builds zunta and runs every test: first the default build, then the sanitizer build, then the
# status page in headless Chromium, then a few seconds of each fuzz harness over its seed corpus.
# With --arm: cross-builds for 32-bit ARM instead and runs every test under qemu-arm.
# Installs what is missing from Debian's packages first (as root, with apt-get).
set -euo pipefail
cd "$(dirname "$0")/.."

arm=false
case "${1:-}" in
  "") ;;
  --arm) arm=true ;;
  *)
    echo "usage: scripts/test.sh [--arm]" >&2
    exit 2
    ;;
esac

missing=()
command -v cmake >/dev/null 2>&1 || missing+=(cmake)
command -v make >/dev/null 2>&1 || missing+=(make)
command -v unshare >/dev/null 2>&1 || missing+=(util-linux)
if $arm; then
  # GoogleTest is built from Debian's sources with the cross compiler: the multiarch ARM packages
  # use a 32-bit time_t.
  command -v arm-linux-gnueabihf-g++ >/dev/null 2>&1 || missing+=(g++-arm-linux-gnueabihf)
  command -v qemu-arm >/dev/null 2>&1 || missing+=(qemu-user)
  [ -f /usr/src/googletest/CMakeLists.txt ] || missing+=(googletest)
else
  command -v g++ >/dev/null 2>&1 || missing+=(g++)
  [ -f /usr/include/gtest/gtest.h ] || missing+=(libgtest-dev)
  [ -f /usr/include/gmock/gmock.h ] || missing+=(libgmock-dev)
  [ -f /usr/include/benchmark/benchmark.h ] || missing+=(libbenchmark-dev)
  command -v clang++-14 >/dev/null 2>&1 || missing+=(clang-14)
  compgen -G "/usr/lib/llvm-14/lib/clang/*/lib/linux/libclang_rt.fuzzer-*.a" >/dev/null || missing+=(libclang-rt-14-dev)
  # The status page's browser.
  command -v chromium-headless-shell >/dev/null 2>&1 || command -v chromium >/dev/null 2>&1 ||
    missing+=(chromium-headless-shell)
fi
# The status document is read back by a real JSON parser and checked against its schema.
/usr/bin/python3 -c 'import jsonschema' >/dev/null 2>&1 || missing+=(python3-jsonschema)
if [ ${#missing[@]} -gt 0 ]; then
  echo "test.sh: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q
  apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

jobs=$(nproc 2>/dev/null || echo 2)
presets=(default asan)
if $arm; then
  presets=(arm)
  gtest=build-arm-deps/gtest-install
  if [ ! -f "$gtest/lib/cmake/GTest/GTestConfig.cmake" ]; then
    echo "== GoogleTest for ARM =="
    cmake -S /usr/src/googletest -B build-arm-deps/gtest-build \
      -DCMAKE_TOOLCHAIN_FILE="$PWD/packaging/arm-linux-gnueabihf.cmake" -DCMAKE_BUILD_TYPE=Release \
      -DCMAKE_CXX_FLAGS="-D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64" -DCMAKE_INSTALL_PREFIX="$PWD/$gtest"
    cmake --build build-arm-deps/gtest-build -j "$jobs"
    cmake --install build-arm-deps/gtest-build
  fi
fi
for preset in "${presets[@]}"; do
  echo "== $preset build =="
  cmake --preset "$preset"
  cmake --build --preset "$preset" -j "$jobs"
  ctest --preset "$preset" -j "$jobs"
done
if $arm; then
  arm-linux-gnueabihf-strip -o build-arm/zunta-coord.stripped build-arm/zunta-coord
  echo "test.sh: ARM zunta-coord stripped: $(stat -c %s build-arm/zunta-coord.stripped) bytes, needs" \
    "$(arm-linux-gnueabihf-readelf -d build-arm/zunta-coord | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | tr '\n' ' ')"
else
  echo "== status page in headless Chromium =="
  browser_started=$SECONDS
  ctest --preset browser
  echo "test.sh: status page checked in $((SECONDS - browser_started)) s; screenshots in build/browser/"
  echo "== fuzz smoke =="
  scripts/fuzz.sh 5
fi
echo "test.sh: all tests passed"
