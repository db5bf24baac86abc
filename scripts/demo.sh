#!/usr/bin/env bash
# Runs the coordinator against the simulated four-node mesh (tools/meshsim/examples/four-nodes.topo)
# on 127.0.60.x, with every file in a temporary directory and every wait scaled down. Installs what
# the build needs from Debian's packages (as root), builds, then runs the daemon and the simulator
# in a network namespace of their own in which only loopback is up.
#
#   scripts/demo.sh                 train every mesh pair once (zunta-coord -1) and exit
#   scripts/demo.sh --daemon        run the continuous cycle with the topology check (zunta-coord -e):
#                                   after the first training the n3-n4 link disappears (only the
#                                   receive patterns are chosen again), then comes back (only n3-n4
#                                   is trained again); then the daemon is stopped
#   scripts/demo.sh --parallel      a generated 64-node mesh on 127.0.64.x trained once with
#                                   parallel_training=true: each pair starts as soon as no pair within
#                                   two hops of it trains; the whole pass takes about two minutes, and
#                                   the status page shows it live on http://127.0.0.1:DEMO_PAGE_PORT/
# Every mode ends by printing the path of a status page filled from its run (build/demo-page/).
# Options:
#   --keep                          keep the temporary directory (log, record, snapshot)
#   --build-dir DIR                 build tree holding zunta-coord and zunta-meshsim (default build/)
# Environment: DEMO_AGENT_PORT (default 12458), DEMO_DISCOVERY_PORT (default 12101), DEMO_PAGE_PORT
# (default 18716).
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=scripts/debian-packages.sh
. "$ROOT/scripts/debian-packages.sh"
ARGS=("$@")
BUILD_DIR=$ROOT/build
MODE=once
KEEP=0
RANGE=127.0.60                       # the addresses of the example topology
DISCOVERY_ADDRESS=$RANGE.255         # the coordinator's "broadcast", delivered as loopback unicast
AGENT_PORT=${DEMO_AGENT_PORT:-12458}
DISCOVERY_PORT=${DEMO_DISCOVERY_PORT:-12101}
TIME_SCALE=0.05
TOPOLOGY=$ROOT/tools/meshsim/examples/four-nodes.topo

PAGE_PORT=${DEMO_PAGE_PORT:-18716}

usage() { sed -n '2,19p' "$0" | sed 's/^# \{0,1\}//'; }

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
PAGE_PID=
WORK=

cleanup() {
  local pid
  for pid in "$SLEEP_PID" "$COORD_PID" "$SIM_PID" "$PAGE_PID"; do
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
  if [[ -n $WORK && -f $WORK/coord.log ]]; then show_output; fi
  if [[ -n $WORK && -S $WORK/meshsim.sock ]]; then summary; fi
  exit 130
}
trap cleanup EXIT
trap on_signal INT TERM

# A build tree made by the demo leaves the tests out; scripts/test.sh turns them on again.
build() {
  if [[ ! -f $BUILD_DIR/CMakeCache.txt ]]; then
    cmake -S "$ROOT" -B "$BUILD_DIR" -DZUNTA_BUILD_TESTS=OFF -DZUNTA_BUILD_BENCH=OFF >/dev/null
  fi
  cmake --build "$BUILD_DIR" --target zunta-coord zunta-meshsim -j2 | grep -v '^\[\|^-- ' || true
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

# The daemon writes its log to a file; show_output prints what is new in it. The script alone
# prints, so the daemon's lines and the script's section headers come out in the order they
# happened.
run_coordinator() {
  env ZUNTA_CONF="$WORK/zunta.conf" ZUNTA_SNAPSHOT="$WORK/zunta-sa.log" ZUNTA_STATUS_JSON="$WWW/status.json" \
    ZUNTA_DUMP_FILE="$WORK/zunta-dump.log" ZUNTA_TRAINING_STATUS_FILE="$WORK/training_status.log" \
    ZUNTA_AGENT_PORT="$AGENT_PORT" ZUNTA_TIME_SCALE="$TIME_SCALE" \
    "$BUILD_DIR/zunta-coord" "$@" >"$WORK/coord.log" &
  COORD_PID=$!
}

SHOWN=0  # lines of the daemon's log printed so far
show_output() {
  local complete
  complete=$(wc -l <"$WORK/coord.log")
  if ((complete > SHOWN)); then
    sed -n "$((SHOWN + 1)),${complete}p" "$WORK/coord.log"
    SHOWN=$complete
  fi
}

# Waits for the daemon to exit, printing its log as it goes; returns its exit status.
wait_coordinator() {
  local status=0
  while kill -0 "$COORD_PID" 2>/dev/null; do
    show_output
    sleep 0.2
  done
  wait "$COORD_PID" || status=$?
  COORD_PID=
  show_output
  return "$status"
}

control() { "$BUILD_DIR/zunta-meshsim" --send "$WORK/meshsim.sock" "$1"; }

# Waits until the printed part of the daemon's output holds `count` lines matching `pattern`.
wait_output() {
  local pattern=$1 count=$2 seen
  for (( ; ; )); do
    show_output
    seen=$(head -n "$SHOWN" "$WORK/coord.log" | grep -c -- "$pattern") || true
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

# The status page beside the daemon's JSON document; with --parallel it is served on the host's
# loopback (see below) and refreshes itself.
serve_page() {
  echo "demo: watch the pass on the status page: http://127.0.0.1:$PAGE_PORT/ (it refreshes every 4 s)"
}

# A copy of the status page with the run's last document inside it, to open from the file system.
fill_page() {
  local out=$BUILD_DIR/demo-page
  [[ -f $WWW/status.json ]] || return 0
  mkdir -p "$out"
  awk -v doc="$WWW/status.json" '
    /<script type="application\/json" id="embedded-status"><\/script>/ {
      print "<script type=\"application/json\" id=\"embedded-status\">"
      while ((getline line < doc) > 0) { gsub(/<\//, "<\\/", line); print line }
      print "</script>"
      next
    }
    { print }' "$ROOT/packaging/www/index.html" >"$out/index.html"
  cp "$WWW/status.json" "$out/zunta-status.json"
  echo "demo: the status page of this run: $out/index.html (its document: $out/zunta-status.json)"
}

if [[ -z ${ZUNTA_DEMO_ISOLATED:-} ]]; then
  zunta_install_packages demo "${DEMO_PACKAGES[@]}"
  if [[ $MODE == parallel ]]; then zunta_install_packages demo python3; fi
  build
  trap - EXIT INT TERM
  page_env=()
  if [[ $MODE == parallel ]]; then
    # The page is served outside the demo's private network namespace, on the host's loopback, so
    # that a browser on this machine reaches it; the server shows only the folder that holds the
    # page and the document the daemon writes.
    WWW=$(mktemp -d /tmp/zunta-demo-www-XXXXXX)
    cp "$ROOT/packaging/www/index.html" "$WWW/index.html"
    python3 -m http.server "$PAGE_PORT" --bind 127.0.0.1 --directory "$WWW" >/dev/null 2>&1 &
    PAGE_PID=$!
    trap 'kill "$PAGE_PID" 2>/dev/null || true; rm -rf "$WWW"' EXIT
    page_env=(ZUNTA_DEMO_WWW="$WWW")
  fi
  status=0
  zunta_isolated demo env ZUNTA_DEMO_ISOLATED=1 "${page_env[@]}" bash "$0" "${ARGS[@]}" || status=$?
  exit "$status"
fi
WORK=$(mktemp -d /tmp/zunta-demo-XXXXXX)
WWW=${ZUNTA_DEMO_WWW:-$WORK/www}
mkdir -p "$WWW"
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
  serve_page
  started=$SECONDS
  status=0
  run_coordinator -1
  wait "$COORD_PID" || status=$?
  COORD_PID=
  grep -E 'Training (triggered|ends)' "$WORK/coord.log" | cut -c1-140
  parallel_summary
  echo "demo: the whole pass took $((SECONDS - started)) s at time scale $TIME_SCALE"
  fill_page
  exit "$status"
fi
echo "demo: mesh of four nodes on $RANGE.1-4, agents on port $AGENT_PORT, discovery at $DISCOVERY_ADDRESS:$DISCOVERY_PORT"

status=0
if [[ $MODE == once ]]; then
  run_coordinator -1
  wait_coordinator || status=$?
  summary
  fill_page
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
wait_coordinator || true
summary
fill_page
exit 0
