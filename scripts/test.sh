#!/usr/bin/env bash
# Builds zunta and runs every test: first the default build, then the sanitizer build, then the
# status page in headless Chromium, then a few seconds of each fuzz harness over its seed corpus.
# With --arm: cross-builds for 32-bit ARM instead and runs every test under qemu-arm.
# Installs what is missing from Debian's packages first (as root, see debian-packages.sh). The tests
# run in a network namespace of their own in which only loopback is up; a run in which CTest finds
# no test fails.
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=scripts/debian-packages.sh
. scripts/debian-packages.sh

arm=false
case "${1:-}" in
  "") ;;
  --arm) arm=true ;;
  *)
    echo "usage: scripts/test.sh [--arm]" >&2
    exit 2
    ;;
esac

if $arm; then
  zunta_install_packages test.sh "${ARM_TEST_PACKAGES[@]}"
else
  zunta_install_packages test.sh "${TEST_PACKAGES[@]}"
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
  # The preset turns the tests on, also in a build tree that scripts/demo.sh or a hand build made.
  cmake --preset "$preset"
  cmake --build --preset "$preset" -j "$jobs"
  if [ "$preset" = default ]; then
    # The scenarios mostly wait on scaled pauses: the preset runs six at once.
    zunta_isolated test.sh ctest --preset "$preset"
  else
    # Under the sanitizers and the emulator the daemon itself keeps the processors busy.
    zunta_isolated test.sh ctest --preset "$preset" -j "$jobs"
  fi
done
if $arm; then
  arm-linux-gnueabihf-strip -o build-arm/zunta-coord.stripped build-arm/zunta-coord
  echo "test.sh: ARM zunta-coord stripped: $(stat -c %s build-arm/zunta-coord.stripped) bytes, needs" \
    "$(arm-linux-gnueabihf-readelf -d build-arm/zunta-coord | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | tr '\n' ' ')"
else
  echo "== status page in headless Chromium =="
  browser_started=$SECONDS
  zunta_isolated test.sh ctest --preset browser
  echo "test.sh: status page checked in $((SECONDS - browser_started)) s; screenshots in build/browser/"
  echo "== fuzz smoke =="
  scripts/fuzz.sh 5
fi
echo "test.sh: all tests passed"
