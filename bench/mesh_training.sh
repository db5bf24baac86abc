#!/usr/bin/env bash
# Whole training passes (zunta-coord -1 with parallel_training=true) on generated meshes (seed 1)
# at time scale 0.05, each mesh twice: healthy, and with the agents of a seeded 5 % of the nodes
# silent to every training command (2, 4, 5 and 8) from the start, as nodes that die once they are
# registered. Per run: pairs, pairs trained and stopped, turns, most pairs at once, the measured
# pass, the pass projected to full time, the longest measurement window of a pair without a silent
# node projected to full time, the daemon's peak RSS (VmHWM) and its most open descriptors
# (sampled every 50 ms) with the most exchanges in flight it reports.
#
#   bench/mesh_training.sh [NODES...]          default: 64 250
#   FAULT_PERCENTS="0 5" SCALE=0.05 bench/mesh_training.sh 250
#   MODES="parallel one" bench/mesh_training.sh 64   also one pair at a time (slow: 123 pairs
#                                                    take about 14 minutes at scale 0.05)
#
# Projection to full time. Every wait of the daemon is scaled, its exchanges are not: a pair's
# measured time is its scaled waits plus real exchange time. Its full-time length is the measured
# time with its waits put back at full length: 16 pauses of 6 s for a trained pair, one command's
# 21 read time-outs of 3 s and 20 pauses of 1 s (83 s) for a pair stopped at a silent node. The
# pass is then replayed at full time with those lengths by build/pass_replay, which runs the
# daemon's own start rule (pair_turns) on the same mesh, in the daemon's pair order (read from the
# healthy run's status file), so each pair starts when the pairs that held it back would end at
# full time. The time before the first start and after the last end (selection and application,
# real exchanges only) is added as measured. A window's full-time length is its measured length
# with its pause back at 6 s.
#
# Needs build/zunta-coord, build/zunta-meshsim and build/pass_replay. Loopback only (127.91.x.y);
# run it inside unshare -n with lo up.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${BUILD_DIR:-$ROOT/build}
NODES=("$@")
((${#NODES[@]})) || NODES=(64 250)
MODES=${MODES:-parallel}
FAULT_PERCENTS=${FAULT_PERCENTS:-0 5}
SCALE=${SCALE:-0.05}
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

# The names of a seeded PERCENT % of the nodes n1..nN (a small LCG, so every awk agrees).
silent_nodes() {
  awk -v n="$1" -v pct="$2" 'BEGIN {
    want = int(n * pct / 100 + 0.5); x = 12345
    while (picked < want) {
      x = (x * 1103515245 + 12345) % 2147483648; k = int(x / 2147483648 * n) + 1
      if (!(k in seen)) { seen[k] = 1; picked++; print "n" k }
    }
  }'
}

# Per pair of a parallel run: "<key> <full-time seconds> trained|stopped", from the stamped output.
pair_lengths() {
  awk -v scale="$SCALE" '
    / Mesh pair [^ ]+ starts training:/ { start[$5] = $1 }
    / Mesh pair [^ ]+ trained:/ { print $5, $1 - start[$5] + 96 * (1 - scale), "trained" }
    / Training of mesh pair [^ ]+ stopped:/ { print $7, $1 - start[$7] + 83 * (1 - scale), "stopped" }' "$1"
}

# Measured pass, the time before the first start and after the last end, and the summary's counts.
pass_times() {
  awk '
    / Training triggered by argument/ { trigger = $1 }
    / Training ends/ { end = $1 }
    / Mesh pair [^ ]+ starts training:/ { if (!first) first = $1 }
    / Mesh pair [^ ]+ trained:/ || / Training of mesh pair [^ ]+ stopped:/ { last = $1 }
    / Parallel training: / { trained = $5; stopped = $8; most = $12; turns = $16; flight = $22 }
    / Training Mesh Pair: / { pairs++ }
    END { printf "%.1f %.1f %.1f %d %d %d %d %d %d\n", end - trigger, first - trigger, end - last, pairs,
          trained, stopped, most, turns, flight }' "$1"
}

# The longest window (ms, projected to full time) of a node towards a peer, neither of them silent.
longest_window() {
  awk -v scale="$SCALE" -v silent=" $2 " -F'"' '
    /"source":"window"/ {
      node = $10; peer = $14
      if (index(silent, " " node " ") || index(silent, " " peer " ")) next
      match($0, /"start_ms":[0-9]+/); s = substr($0, RSTART + 11, RLENGTH - 11)
      match($0, /"stop_ms":[0-9]+/); e = substr($0, RSTART + 10, RLENGTH - 10)
      if (e - s > longest) longest = e - s
    }
    END { printf "%.0f\n", longest + 6000 * (1 - scale) }' "$1"
}

printf '%-5s %-8s %-6s %5s %7s %7s %5s %5s %7s %9s %9s %9s %8s %9s\n' nodes mode faults pairs trained stopped \
  turns most pass_s proj_min window_ms rss_kib max_fds in_flight
for n in "${NODES[@]}"; do
  "$BUILD/zunta-meshsim" --generate "$n" --seed 1 --base "$BASE" >"$WORK/mesh.topo"
  for mode in $MODES; do
    for pct in $FAULT_PERCENTS; do
      [[ $mode == one && $pct != 0 ]] && continue
      silent=$(silent_nodes "$n" "$pct" | tr '\n' ' ')
      cp "$WORK/mesh.topo" "$WORK/run.topo"
      for name in $silent; do echo "fault $name silent on=2,4,5,8" >>"$WORK/run.topo"; done
      "$BUILD/zunta-meshsim" --quiet --agent-port "$AGENT_PORT" --discovery-address "$BASE.255" \
        --discovery-port "$DISCOVERY_PORT" --record "$WORK/record.jsonl" "$WORK/run.topo" 2>"$WORK/sim.log" &
      SIM_PID=$!
      sleep 1
      printf 'root=true\nbroadcast_address=%s.255\nbroadcast_port=%s\n' "$BASE" "$DISCOVERY_PORT" >"$WORK/zunta.conf"
      [[ $mode == parallel ]] && echo "parallel_training=true" >>"$WORK/zunta.conf"
      env ZUNTA_CONF="$WORK/zunta.conf" ZUNTA_SNAPSHOT="$WORK/sa.log" ZUNTA_STATUS_JSON="$WORK/status.json" \
        ZUNTA_AGENT_PORT="$AGENT_PORT" \
        ZUNTA_DUMP_FILE="$WORK/dump.log" ZUNTA_TRAINING_STATUS_FILE="$WORK/status.log" \
        ZUNTA_TIME_SCALE="$SCALE" "$BUILD/zunta-coord" -1 \
        > >(while IFS= read -r line; do printf '%s %s\n' "$EPOCHREALTIME" "$line"; done >"$WORK/out.log") &
      COORD_PID=$!
      rss=0
      fds=0
      while kill -0 "$COORD_PID" 2>/dev/null; do
        hwm=$(awk '/^VmHWM:/ {print $2}' "/proc/$COORD_PID/status" 2>/dev/null || true)
        [[ -n $hwm ]] && rss=$hwm
        open=$(ls "/proc/$COORD_PID/fd" 2>/dev/null | wc -l)
        ((open > fds)) && fds=$open
        sleep 0.05
      done
      wait "$COORD_PID" || true
      COORD_PID=
      sleep 0.5  # the stamping reader drains the last lines
      kill "$SIM_PID" 2>/dev/null || true
      wait "$SIM_PID" 2>/dev/null || true
      SIM_PID=
      read -r pass before after pairs trained stopped most turns flight < <(pass_times "$WORK/out.log")
      window=$(longest_window "$WORK/record.jsonl" "$silent")
      if [[ $mode == parallel ]]; then
        [[ $pct == 0 ]] && grep '"key"' "$WORK/sa.log" | awk -F'"' '{print $4}' | tac >"$WORK/order.keys"
        pair_lengths "$WORK/out.log" >"$WORK/lengths"
        makespan=$("$BUILD/pass_replay" "$WORK/mesh.topo" --order "$WORK/order.keys" --durations "$WORK/lengths" |
          awk '{print $4}')
        projected=$(awk -v m="$makespan" -v b="$before" -v a="$after" 'BEGIN { printf "%.1f", (m + b + a) / 60 }')
      else
        trained=$pairs
        projected=$(awk -v p="$pass" -v k="$pairs" -v s="$SCALE" 'BEGIN { printf "%.1f", (p + k * 96 * (1 - s)) / 60 }')
      fi
      printf '%-5s %-8s %-6s %5s %7s %7s %5s %5s %7s %9s %9s %9s %8s %9s\n' "$n" "$mode" "$pct%" "$pairs" \
        "$trained" "$stopped" "$turns" "$most" "$pass" "$projected" "$window" "$rss" "$fds" "$flight"
    done
  done
done
