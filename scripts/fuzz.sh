#!/usr/bin/env bash
# Builds the libFuzzer harnesses (preset fuzz, clang 14) and runs each, one process on one core,
# for SECONDS (default 60) over its seed corpus in tests/fuzz/corpus/<harness>/. New inputs go to
# a scratch directory, so the committed corpus only changes by hand; a crash leaves its input
# there and fails the run.
# Every harness runs without a network (its own empty network namespace) and with connect()
# refused, so nothing parsed from fuzz input can reach another host.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
# shellcheck source=scripts/debian-packages.sh
. scripts/debian-packages.sh
zunta_install_packages fuzz.sh "${FUZZ_PACKAGES[@]}"

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j 2

scratch=$(mktemp -d /tmp/zunta-fuzz-XXXXXX)
failed=0
for corpus in tests/fuzz/corpus/*/; do
  name=$(basename "$corpus")
  mkdir -p "$scratch/$name"
  echo "== ${name}_fuzz for ${seconds} s"
  if ! unshare -n "build-fuzz/${name}_fuzz" -max_total_time="$seconds" -print_final_stats=1 \
      -artifact_prefix="$scratch/$name/" "$scratch/$name" "$corpus" >"$scratch/$name.log" 2>&1; then
    tail -n 40 "$scratch/$name.log"
    echo "fuzz.sh: ${name}_fuzz failed; its input and log are in $scratch"
    failed=1
    continue
  fi
  grep -E '^stat::(number_of_executed_units|average_exec_per_sec)' "$scratch/$name.log" | tr '\n' ' '
  echo
done
[ "$failed" -eq 0 ] || exit 1
rm -rf "$scratch"
echo "fuzz.sh: no harness found a fault"
