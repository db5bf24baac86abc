#!/usr/bin/env bash
# The whole training pass (zunta-coord -1) on generated meshes (seed 1), one pair at a time and in
# lock-step groups (parallel_training=true), at time scale 0.05 with the simulator's default
# marker gap (50 ms). Per run: pairs, groups, the largest group, the measured pass, the lock-step
# overhead per round (a round's time beyond its pause: the mean over pairs one at a time, the
# worst group and the largest group in groups), the daemon's peak RSS (VmHWM), and the pass
# projected to time scale 1 (every pause back at 6 s, the exchange time as measured).
#
#   bench/mesh_training.sh [NODES...]               default: 16 64 250
#   MODES="group" bench/mesh_training.sh 250        which runs (default: "one group")
#
# One pair at a time on 250 nodes takes about 45 minutes even at scale 0.05, so meshes above
# ONE_MAX_NODES (default 64) are run in groups only, and their one-at-a-time line is projected from
# the per-pair time of the last mesh measured one at a time (marked "proj/<nodes>").
# Needs build/zunta-coord and build/zunta-meshsim. Loopback only (127.91.x.y).
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${BUILD_DIR:-$ROOT/build}
NODES=("$@")
((${#NODES[@]})) || NODES=(16 64 250)
MODES=${MODES:-one group}
ONE_MAX_NODES=${ONE_MAX_NODES:-64}
SCALE=0.05
BASE=127.91.1
AGENT_PORT=25590
DISCOVERY_PORT=25591
WORK=$(mktemp -d /tmp/zunta-mesh-bench-XXXXXX)
SIM_PID=
COORD_PID=
cleanup() {
  local pid
  for pid in $COORD_PID $SIM_PID; do kill "$pid" 2>/dev/null || true; done
  rm -rf "$WORK"
}
trap cleanup EXIT

# Columns of one run from the stamped output: pairs groups largest pass worst big projected.
summarise() {
  awk -v scale="$SCALE" '
    function t() { return $1 + 0 }
    / Training triggered by argument/ { start = t() }
    / Training ends/ { end = t() }
    / Training Mesh Pair: / { pairs++; pair_start = t() }
    / Training group [0-9]+ of / {
      close_group(); groups++; g_start = t(); g_size = NF - 7; if (g_size > largest) largest = g_size }
    / - Training progress: 100.00%/ { last_full = t(); if (!groups) one_sum += (t() - pair_start) / 16 - 6 * scale; }
    function close_group(   ovh) {
      if (!groups) return
      ovh = (last_full - g_start) / 16 - 6 * scale
      if (ovh > worst) worst = ovh
      if (g_size >= big_size) { big_size = g_size; big = ovh }
    }
    END {
      close_group()
      rounds = 16 * (groups ? groups : pairs)
      if (!groups) { worst = one_sum / pairs; big = worst }
      printf "%d %d %d %.1f %.0f %.0f %.0f\n", pairs, groups, largest, end - start, 1000 * worst, 1000 * big,
        end - start + rounds * 6 * (1 - scale)
    }' "$1"
}

printf '%-6s %-6s %6s %7s %8s %9s %13s %11s %9s %14s\n' nodes mode pairs groups largest pass_s \
  ovh_round_ms big_ovh_ms rss_kib pass_1x
one_per_pair=
one_from=
for n in "${NODES[@]}"; do
  "$BUILD/zunta-meshsim" --generate "$n" --seed 1 --base "$BASE" >"$WORK/mesh.topo"
  "$BUILD/zunta-meshsim" --quiet --agent-port "$AGENT_PORT" --discovery-address "$BASE.255" \
    --discovery-port "$DISCOVERY_PORT" "$WORK/mesh.topo" 2>"$WORK/sim.log" &
  SIM_PID=$!
  sleep 1
  pairs=
  modes=$MODES
  ((n > ONE_MAX_NODES)) && modes=${MODES//one/}
  for mode in $modes; do
    printf 'root=true\nbroadcast_address=%s.255\nbroadcast_port=%s\n' "$BASE" "$DISCOVERY_PORT" >"$WORK/zunta.conf"
    [[ $mode == group ]] && echo "parallel_training=true" >>"$WORK/zunta.conf"
    env ZUNTA_CONF="$WORK/zunta.conf" ZUNTA_SNAPSHOT="$WORK/sa.log" ZUNTA_STATUS_JSON="$WORK/status.json" ZUNTA_AGENT_PORT="$AGENT_PORT" \
      ZUNTA_DUMP_FILE="$WORK/dump.log" ZUNTA_TRAINING_STATUS_FILE="$WORK/status.log" \
      ZUNTA_TIME_SCALE="$SCALE" "$BUILD/zunta-coord" -1 \
      > >(while IFS= read -r line; do printf '%s %s\n' "$EPOCHREALTIME" "$line"; done >"$WORK/out.log") &
    COORD_PID=$!
    rss=0
    while kill -0 "$COORD_PID" 2>/dev/null; do
      hwm=$(awk '/^VmHWM:/ {print $2}' "/proc/$COORD_PID/status" 2>/dev/null || true)
      [[ -n $hwm ]] && rss=$hwm
      sleep 0.5
    done
    wait "$COORD_PID" || true
    COORD_PID=
    sleep 0.5  # the stamping reader drains the last lines
    read -r pairs groups largest pass worst big projected < <(summarise "$WORK/out.log")
    printf '%-6s %-6s %6s %7s %8s %9s %13s %11s %9s %14s\n' "$n" "$mode" "$pairs" "$groups" "$largest" "$pass" \
      "$worst" "$big" "$rss" "$(awk -v s="$projected" 'BEGIN { printf "%.0f s %.1f h", s, s / 3600 }')"
    if [[ $mode == one ]]; then
      one_per_pair=$(awk -v p="$projected" -v k="$pairs" 'BEGIN { print p / k }')
      one_from=$n
    fi
  done
  if [[ $modes != *one* && -n $one_per_pair && -n $pairs ]]; then
    printf '%-6s %-6s %6s %7s %8s %9s %13s %11s %9s %14s\n' "$n" "one" "$pairs" - - - - - - \
      "$(awk -v p="$one_per_pair" -v k="$pairs" 'BEGIN { printf "%.0f s %.1f h", p * k, p * k / 3600 }') proj/$one_from"
  fi
  kill "$SIM_PID" 2>/dev/null || true
  wait "$SIM_PID" 2>/dev/null || true
  SIM_PID=
done
