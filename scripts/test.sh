#!/usr/bin/env bash
# Builds zunta and runs every test: first the default build, then the sanitizer build, then a few
# seconds of each fuzz harness over its seed corpus.
# Installs what is missing from Debian's packages first (as root, with apt-get).
set -euo pipefail
cd "$(dirname "$0")/.."

missing=()
command -v cmake >/dev/null 2>&1 || missing+=(cmake)
command -v make >/dev/null 2>&1 || missing+=(make)
command -v g++ >/dev/null 2>&1 || missing+=(g++)
command -v unshare >/dev/null 2>&1 || missing+=(util-linux)
[ -f /usr/include/gtest/gtest.h ] || missing+=(libgtest-dev)
[ -f /usr/include/gmock/gmock.h ] || missing+=(libgmock-dev)
[ -f /usr/include/benchmark/benchmark.h ] || missing+=(libbenchmark-dev)
command -v clang++-14 >/dev/null 2>&1 || missing+=(clang-14)
compgen -G "/usr/lib/llvm-14/lib/clang/*/lib/linux/libclang_rt.fuzzer-*.a" >/dev/null || missing+=(libclang-rt-14-dev)
if [ ${#missing[@]} -gt 0 ]; then
  echo "test.sh: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q
  apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

jobs=$(nproc 2>/dev/null || echo 2)
for preset in default asan; do
  echo "== $preset build =="
  cmake --preset "$preset"
  cmake --build --preset "$preset" -j "$jobs"
  ctest --preset "$preset" -j "$jobs"
done
echo "== fuzz smoke =="
scripts/fuzz.sh 5
echo "test.sh: all tests passed"
