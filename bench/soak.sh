#!/usr/bin/env bash
# Endurance run: the daemon with -e against a simulated six-node mesh at time scale 0.05, with a
# fault or a topology change every few seconds. Samples the daemon's resident memory, open
# descriptors and CPU time, and prints them at the first sample after the first training and at
# the end.
#
#   bench/soak.sh [--asan] MINUTES
#
# Needs build/zunta-coord and build/zunta-meshsim (with --asan: build-asan/, and any sanitizer
# report in the daemon's output fails the run). Loopback only: the mesh lives on 127.0.95.x and
# the daemon's configuration names the broadcast address 127.0.95.255.
# SOAK_RANGE (127.A.B, default 127.0.95) and SOAK_AGENT_PORT (default 25495; discovery uses the
# next port) let two runs share the machine.
# The daemon's output is line-buffered (stdbuf) so that the run can follow its trainings.
# SAMPLE_S (default 10) sets the sampling interval, CHANGE_S (default 4) the pace of the changes.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${BUILD_DIR:-$ROOT/build}
if [[ ${1:-} == --asan ]]; then
  BUILD=${BUILD_DIR:-$ROOT/build-asan}
  shift
fi
MINUTES=${1:?usage: bench/soak.sh [--asan] MINUTES}
SAMPLE_S=${SAMPLE_S:-10}
CHANGE_S=${CHANGE_S:-4}
RANGE=${SOAK_RANGE:-127.0.95}  # two runs at once need their own range and ports
AGENT_PORT=${SOAK_AGENT_PORT:-25495}
DISCOVERY_PORT=$((AGENT_PORT + 1))
WORK=$(mktemp -d /tmp/zunta-soak-XXXXXX)
SIM_PID=
COORD_PID=
cleanup() {
  [[ -z $COORD_PID ]] || kill "$COORD_PID" 2>/dev/null || true
  [[ -z $SIM_PID ]] || kill "$SIM_PID" 2>/dev/null || true
  wait 2>/dev/null || true
  [[ -n ${KEEP:-} ]] && echo "kept $WORK" >&2 || rm -rf "$WORK"
}
trap cleanup EXIT

"$BUILD/zunta-meshsim" --generate 6 --seed 3 --base "$RANGE" >"$WORK/mesh.topo"
printf 'root=true\nbroadcast_address=%s.255\nbroadcast_port=%s\n' "$RANGE" "$DISCOVERY_PORT" >"$WORK/zunta.conf"

"$BUILD/zunta-meshsim" --agent-port "$AGENT_PORT" --discovery-address "$RANGE.255" \
  --discovery-port "$DISCOVERY_PORT" --control "$WORK/control" --quiet "$WORK/mesh.topo" 2>"$WORK/sim.log" &
SIM_PID=$!
for _ in $(seq 100); do [[ -S $WORK/control ]] && break; sleep 0.1; done

env ZUNTA_CONF="$WORK/zunta.conf" ZUNTA_SNAPSHOT="$WORK/sa.log" ZUNTA_STATUS_JSON="$WORK/status.json" ZUNTA_DUMP_FILE="$WORK/dump.log" \
  ZUNTA_TRAINING_STATUS_FILE="$WORK/training_status.log" ZUNTA_AGENT_PORT="$AGENT_PORT" \
  ZUNTA_TIME_SCALE=0.05 ASAN_OPTIONS=verify_asan_link_order=0 stdbuf -oL "$BUILD/zunta-coord" -e \
  >"$WORK/coord.log" 2>&1 &
COORD_PID=$!

# The changes, in turn: a mesh link going and coming back, agents refusing, cutting, garbling,
# delaying or not answering discovery, and a node leaving and coming back.
n6_back() {
  grep -E '^(node|gains) n6 |^mesh n[1-5] n6 |^client n6 ' "$WORK/mesh.topo"
  grep -E '^client n[1-5] 02:5a:00:00:00:06$' "$WORK/mesh.topo"
}
CHANGES=(
  'del mesh n1 n3' "$(grep '^mesh n1 n3 ' "$WORK/mesh.topo")"
  'fault n2 nack 3' 'fault n4 cut on=1' 'fault n4 none'
  'fault n5 garbage on=5' 'fault n5 none'
  'fault n3 delay 100' 'fault n3 none'
  'fault n2 no_discovery' 'fault n2 none'
  'del node n6' "@n6"
)
change() {
  local line=$1
  if [[ $line == @n6 ]]; then
    while IFS= read -r statement; do
      "$BUILD/zunta-meshsim" --send "$WORK/control" "$statement" >/dev/null
    done < <(n6_back)
  else
    "$BUILD/zunta-meshsim" --send "$WORK/control" "$line" >/dev/null
  fi
}

sample() {  # elapsed_s rss_kB fds cpu_s
  local stat rss fds ticks
  stat=$(cut -d')' -f2- "/proc/$COORD_PID/stat") || return 1
  ticks=$(awk '{ print $12 + $13 }' <<<"$stat")
  rss=$(awk '/^VmRSS:/ { print $2 }' "/proc/$COORD_PID/status")
  fds=$(ls "/proc/$COORD_PID/fd" | wc -l)
  awk -v t="$1" -v r="$rss" -v f="$fds" -v c="$ticks" -v hz="$(getconf CLK_TCK)" \
    'BEGIN { printf "%7d %8d %4d %8.2f\n", t, r, f, c / hz }'
}

# The C library's count of heap bytes in use, printed by the daemon itself on its standard error
# (needs gdb). In the sanitizer build it prints the quarantine instead; the leak check cannot be
# asked for this way, as it refuses to run under a debugger, and the daemon never exits by itself.
heap_in_use() {
  command -v gdb >/dev/null || return 0
  gdb -p "$COORD_PID" -batch -ex "call (void)$1()" >/dev/null 2>&1 || true
}

printf '%7s %8s %4s %8s  %s\n' elapsed_s rss_kB fds cpu_s trainings
start=$SECONDS
end=$((start + MINUTES * 60))
next_sample=$start
next_change=$((start + CHANGE_S))
i=0
first=
last=
while ((SECONDS < end)); do
  kill -0 "$COORD_PID" 2>/dev/null || { echo "the daemon ended early" >&2; tail -20 "$WORK/coord.log" >&2; exit 1; }
  trainings=$(grep -c 'Training Mesh Pair' "$WORK/coord.log" || true)
  if ((SECONDS >= next_sample)); then
    last=$(sample $((SECONDS - start)))
    printf '%s  %s\n' "$last" "$trainings"
    if [[ -z $first && $trainings -gt 0 && $(grep -c 'Training ends' "$WORK/coord.log" || true) -gt 0 ]]; then
      first=$last
      heap_in_use malloc_stats
    fi
    next_sample=$((next_sample + SAMPLE_S))
  fi
  # The changes start once the first training is over, so it trains the whole mesh.
  if [[ -n $first ]] && ((SECONDS >= next_change)); then
    change "${CHANGES[i % ${#CHANGES[@]}]}"
    i=$((i + 1))
    next_change=$((SECONDS + CHANGE_S))
  fi
  sleep 1
done
last=$(sample $((SECONDS - start)))
heap_in_use malloc_stats

echo
echo "after the first training: elapsed_s rss_kB fds cpu_s = ${first:-none}"
echo "at the end:               elapsed_s rss_kB fds cpu_s = $last"
heap=$(grep -A4 '^Total (incl. mmap):' "$WORK/coord.log" | awk '/in use bytes/ { printf "%s ", $NF }' || true)
[[ -z $heap ]] || echo "heap bytes in use after the first training and at the end: $heap"
echo "changes: $i, pair trainings: $(grep -c 'Training Mesh Pair' "$WORK/coord.log" || true)," \
  "error lines: $(grep -c 'ZUNTA: ERROR' "$WORK/coord.log" || true)"
if grep -q -E 'ERROR: (Address|Leak)Sanitizer|runtime error:|detected memory leaks' "$WORK/coord.log"; then
  echo "sanitizer report:"
  grep -E -A20 'ERROR: (Address|Leak)Sanitizer|runtime error:|detected memory leaks' "$WORK/coord.log" | head -40
  exit 1
fi
echo "no sanitizer report"
