#!/usr/bin/env bash
# Runs the coordinator against the simulated four-node mesh (tools/meshsim/examples/four-nodes.topo)
# on 127.0.60.x, with every file in a temporary directory and every wait scaled down.
#
#   scripts/demo.sh                 train every mesh pair once (zunta-coord -1) and exit
#   scripts/demo.sh --daemon        run the continuous cycle with the topology check (zunta-coord -e):
#                                   after the first training the n3-n4 link disappears (only the
#                                   receive patterns are chosen again), then comes back (only n3-n4
#                                   is trained again); then the daemon is stopped
#   scripts/demo.sh --parallel      a generated 64-node mesh on 127.0.64.x trained once with
#                                   parallel_training=true: each pair starts as soon as no pair within
#                                   two hops of it trains; the whole pass takes about two minutes
# Options:
#   --keep                          keep the temporary directory (log, record, snapshot)
#   --build-dir DIR                 build tree holding zunta-coord and zunta-meshsim (default build/)
# Environment: DEMO_AGENT_PORT (default 12458), DEMO_DISCOVERY_PORT (default 12101).
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD_DIR=$ROOT/build
MODE=once
KEEP=0
RANGE=127.0.60                       # the addresses of the example topology
DISCOVERY_ADDRESS=$RANGE.255         # the coordinator's "broadcast", delivered as loopback unicast
AGENT_PORT=${DEMO_AGENT_PORT:-12458}
DISCOVERY_PORT=${DEMO_DISCOVERY_PORT:-12101}
TIME_SCALE=0.05
TOPOLOGY=$ROOT/tools/meshsim/examples/four-nodes.topo

usage() { sed -n '2,15p' "$0" | sed 's/^# \{0,1\}//'; }

while (($#)); do
  case $1 in
    --daemon) MODE=daemon ;;
    --parallel) MODE=parallel ;;
    --keep) KEEP=1 ;;
    --build-dir) BUILD_DIR=$(cd "${2:?}" && pwd); shift ;;
    -h|--help) usage; exit 0 ;;
    *) echo "demo: unknown argument $1" >&2; usage >&2; exit 2 ;;
  esac
  shift
done

SIM_PID=
COORD_PID=
SLEEP_PID=
WORK=

cleanup() {
  local pid
  for pid in "$SLEEP_PID" "$COORD_PID" "$SIM_PID"; do
    if [[ -n $pid ]] && kill -0 "$pid" 2>/dev/null; then
      kill "$pid" 2>/dev/null || true
      wait "$pid" 2>/dev/null || true
    fi
  done
  if [[ -n $WORK && $KEEP == 0 ]]; then rm -rf "$WORK"; fi
  if [[ -n $WORK && $KEEP == 1 ]]; then echo "demo: files kept in $WORK"; fi
}
# Interrupted: stop the coordinator, then show what the mesh was told before cleaning up.
on_signal() {
  trap - INT TERM
  if [[ -n $COORD_PID ]] && kill -0 "$COORD_PID" 2>/dev/null; then
    kill "$COORD_PID" 2>/dev/null || true
    wait "$COORD_PID" 2>/dev/null || true
  fi
  COORD_PID=
  if [[ -n $WORK && -S $WORK/meshsim.sock ]]; then summary; fi
  exit 130
}
trap cleanup EXIT
trap on_signal INT TERM

as_root() {
  if [[ $(id -u) == 0 ]]; then "$@"; else sudo "$@"; fi
}

install_tools() {
  local missing=()
  command -v cmake >/dev/null || missing+=(cmake)
  command -v g++ >/dev/null || missing+=(g++)
  command -v make >/dev/null || missing+=(make)
  if ((${#missing[@]})); then
    echo "demo: installing ${missing[*]}"
    as_root apt-get update
    as_root apt-get install -y "${missing[@]}"
  fi
}

build() {
  if [[ ! -f $BUILD_DIR/CMakeCache.txt ]]; then
    cmake -S "$ROOT" -B "$BUILD_DIR" -DZUNTA_BUILD_TESTS=OFF -DZUNTA_BUILD_BENCH=OFF
  fi
  cmake --build "$BUILD_DIR" --target zunta-coord zunta-meshsim -j2
}

start_simulator() {
  "$BUILD_DIR/zunta-meshsim" --agent-port "$AGENT_PORT" \
    --discovery-address "$DISCOVERY_ADDRESS" --discovery-port "$DISCOVERY_PORT" \
    --control "$WORK/meshsim.sock" --record "$WORK/commands.jsonl" "$TOPOLOGY" 2>"$WORK/meshsim.log" &
  SIM_PID=$!
  for _ in $(seq 50); do
    [[ -S $WORK/meshsim.sock ]] && return 0
    kill -0 "$SIM_PID" 2>/dev/null || break
    sleep 0.1
  done
  echo "demo: the simulator did not start:" >&2
  cat "$WORK/meshsim.log" >&2
  exit 1
}

write_config() {
  cat >"$WORK/zunta.conf" <<EOF
root=true
broadcast_address=$DISCOVERY_ADDRESS
broadcast_port=$DISCOVERY_PORT
EOF
  if [[ $MODE == parallel ]]; then echo "parallel_training=true" >>"$WORK/zunta.conf"; fi
}

run_coordinator() {
  env ZUNTA_CONF="$WORK/zunta.conf" ZUNTA_SNAPSHOT="$WORK/zunta-sa.log" \
    ZUNTA_DUMP_FILE="$WORK/zunta-dump.log" ZUNTA_TRAINING_STATUS_FILE="$WORK/training_status.log" \
    ZUNTA_AGENT_PORT="$AGENT_PORT" ZUNTA_TIME_SCALE="$TIME_SCALE" \
    "$BUILD_DIR/zunta-coord" "$@" > >(tee "$WORK/coord.log") &
  COORD_PID=$!
}

control() { "$BUILD_DIR/zunta-meshsim" --send "$WORK/meshsim.sock" "$1"; }

# Waits until the daemon's output holds `count` lines matching `pattern`.
wait_output() {
  local pattern=$1 count=$2 seen
  for (( ; ; )); do
    seen=$(grep -c -- "$pattern" "$WORK/coord.log" 2>/dev/null) || true
    ((${seen:-0} >= count)) && return 0
    kill -0 "$COORD_PID" 2>/dev/null || return 1
    sleep 0.2
  done
}

summary() {
  echo "=== discovery: nodes that answered and were registered (command 9)"
  grep '"index":9,' "$WORK/commands.jsonl" | grep -o '"node":"[^"]*","ip":"[^"]*"' | sort -u || true
  echo "=== commands the agents received (count, index)"
  grep -o '"source":"agent".*"index":-\{0,1\}[0-9]*' "$WORK/commands.jsonl" | grep -o '"index":.*' |
    sort | uniq -c || true
  echo "=== what the agents were told"
  for n in n1 n2 n3 n4; do control "show $n" || true; done
  echo "=== status snapshot"
  cat "$WORK/zunta-sa.log" 2>/dev/null || echo "(none written)"
}

# The parallel pass: the first pairs to start, then the pass's own summary.
parallel_summary() {
  echo "=== pairs starting (each once no pair within two hops of it trains)"
  grep 'starts training: ' "$WORK/coord.log" | head -12
  echo "..."
  grep 'Parallel training: ' "$WORK/coord.log"
  echo "=== what the first four agents were told"
  for n in n1 n2 n3 n4; do control "show $n" | cut -c1-160 || true; done
}

install_tools
build
WORK=$(mktemp -d /tmp/zunta-demo-XXXXXX)
if [[ $MODE == parallel ]]; then
  RANGE=127.0.64
  DISCOVERY_ADDRESS=$RANGE.255
  TOPOLOGY=$WORK/mesh64.topo
  "$BUILD_DIR/zunta-meshsim" --generate 64 --seed 1 --base "$RANGE" >"$TOPOLOGY"
fi
start_simulator
write_config
if [[ $MODE == parallel ]]; then
  echo "demo: generated mesh of 64 nodes on $RANGE.1-64, agents on port $AGENT_PORT, discovery at" \
    "$DISCOVERY_ADDRESS:$DISCOVERY_PORT; parallel_training=true"
  started=$SECONDS
  status=0
  run_coordinator -1 >/dev/null
  wait "$COORD_PID" || status=$?
  COORD_PID=
  sleep 0.5  # tee writes the last lines
  grep -E 'Training (triggered|ends)' "$WORK/coord.log" | cut -c1-140
  parallel_summary
  echo "demo: the whole pass took $((SECONDS - started)) s at time scale $TIME_SCALE"
  exit "$status"
fi
echo "demo: mesh of four nodes on $RANGE.1-4, agents on port $AGENT_PORT, discovery at $DISCOVERY_ADDRESS:$DISCOVERY_PORT"

status=0
if [[ $MODE == once ]]; then
  run_coordinator -1
  wait "$COORD_PID" || status=$?
  COORD_PID=
  summary
  exit "$status"
fi

run_coordinator -e
echo "demo: daemon running (pid $COORD_PID), retraining on topology changes; Ctrl-C stops"
wait_output "Training ends" 1
echo "demo: --- the n3-n4 link disappears: only the receive patterns are chosen again"
control "del mesh n3 n4"
wait_output "Pattern Set for Mesh Pair" 7
echo "demo: --- the n3-n4 link comes back: only n3-n4 is trained, every pair's patterns are applied again"
control "mesh n3 n4 300000"
wait_output "Training ends" 2
wait_output "Pattern Set for Mesh Pair" 11
kill "$COORD_PID" 2>/dev/null || true
wait "$COORD_PID" 2>/dev/null || true
COORD_PID=
summary
exit 0
