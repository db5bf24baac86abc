#!/usr/bin/env bash
# Measures what a pair's training costs beyond its sixteen round pauses: the 128 agent exchanges
# and the selections. The simulated agents answer at once, and send the marker of a text answer
# after the shortest gap that still keeps it in a read of its own.
#
#   bench/training_overhead.sh [SCALE...]     default: 1 0.05 (scale 1 takes about 100 s)
#
# Needs build/zunta-coord and build/zunta-meshsim (cmake --build build). Loopback only.
# MARKER_GAP_MS (default 1) sets the agents' gap between answer text and marker.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${BUILD_DIR:-$ROOT/build}
SCALES=("$@")
((${#SCALES[@]})) || SCALES=(1 0.05)
MARKER_GAP_MS=${MARKER_GAP_MS:-1}
RANGE=127.0.90
AGENT_PORT=25490
DISCOVERY_PORT=25491
WORK=$(mktemp -d /tmp/zunta-bench-XXXXXX)
SIM_PID=
trap '[[ -n $SIM_PID ]] && kill $SIM_PID 2>/dev/null; rm -rf "$WORK"' EXIT

cat >"$WORK/pair.topo" <<TOPOLOGY
node a $RANGE.1 0a:5a:00:00:90:01
node b $RANGE.2 0a:5a:00:00:90:02
client a 0a:5a:00:00:90:02
client b 0a:5a:00:00:90:01
gains a 0 1 2 3
gains b 3 2 1 0
mesh a b 400000
TOPOLOGY
printf 'root=true\nbroadcast_address=%s.255\nbroadcast_port=%s\n' "$RANGE" "$DISCOVERY_PORT" >"$WORK/zunta.conf"

"$BUILD/zunta-meshsim" --agent-port "$AGENT_PORT" --discovery-address "$RANGE.255" \
  --discovery-port "$DISCOVERY_PORT" --marker-gap "$MARKER_GAP_MS" "$WORK/pair.topo" 2>"$WORK/sim.log" &
SIM_PID=$!
sleep 0.5

printf '%-7s %10s %10s %10s %8s  %s\n' scale pauses_s run_s overhead_s ratio "rows with both bitrates"
for scale in "${SCALES[@]}"; do
  # Each output line is stamped when it arrives; the run is "Training Mesh Pair" to "Training ends",
  # which takes in the selections and the application of the patterns.
  env ZUNTA_CONF="$WORK/zunta.conf" ZUNTA_SNAPSHOT="$WORK/sa.log" ZUNTA_STATUS_JSON="$WORK/status.json" ZUNTA_AGENT_PORT="$AGENT_PORT" \
    ZUNTA_TIME_SCALE="$scale" "$BUILD/zunta-coord" -1 |
    while IFS= read -r line; do printf '%s %s\n' "$EPOCHREALTIME" "$line"; done >"$WORK/out.log"
  start=$(grep -m1 'Training Mesh Pair' "$WORK/out.log" | cut -d' ' -f1)
  end=$(grep -m1 "Training ends" "$WORK/out.log" | cut -d" " -f1)
  rows=$(grep -c -E ' [0-9]+, .* [1-9][0-9]* Mbps, .* [1-9][0-9]* Mbps' "$WORK/out.log" || true)
  awk -v s="$start" -v e="$end" -v k="$scale" -v r="$rows" 'BEGIN {
    pauses = 16 * 6 * k; run = e - s; over = run - pauses;
    printf "%-7s %10.3f %10.3f %10.3f %7.2f%%  %s/16\n", k, pauses, run, over, 100 * over / pauses, r }'
done
