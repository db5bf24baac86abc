#!/usr/bin/env bash
# Shows that zunta-coord works inside the sandbox of packaging/zunta-coord.service on a machine
# where systemd is not the init system, by building that sandbox by hand and training the simulated
# four-node mesh once (zunta-coord -1). Run as root:
#
#   packaging/sandbox-check.sh [--build-dir DIR]      (default build/)
#
# What the unit asks for, and how it is rebuilt here:
#   User=zunta, NoNewPrivileges=yes,     setpriv: the package's user zunta (else nobody), no
#   CapabilityBoundingSet= (empty)       supplementary groups, no_new_privs, empty bounding,
#                                        inheritable and ambient capability sets
#   ProtectSystem=strict,                a private mount namespace in which every mount except
#   ReadWritePaths=/tmp, PrivateTmp=no   /proc, /sys and /dev is remounted read-only, then the
#                                        host's /tmp is made writable again (shared, not private)
# Not rebuilt (they need systemd's seccomp and namespace set-up): RestrictAddressFamilies=,
# SystemCallFilter=, MemoryDenyWriteExecute=, PrivateDevices=, PrivateUsers=, ProtectKernel*=,
# ProtectProc=. Everything runs in its own network namespace: nothing leaves loopback.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD_DIR=$ROOT/build
RANGE=127.0.62                 # the simulated nodes, moved off the demo's range
AGENT_PORT=12462
DISCOVERY_PORT=12105
TIME_SCALE=0.05

while (($#)); do
  case $1 in
    --build-dir) BUILD_DIR=$(cd "${2:?}" && pwd); shift ;;
    -h|--help) sed -n '2,19p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "sandbox-check: unknown argument $1" >&2; exit 2 ;;
  esac
  shift
done

if [[ $(id -u) != 0 ]]; then
  echo "sandbox-check: run as root (namespaces and setpriv need it)" >&2
  exit 2
fi

# Stage 1: build, then start over in a network namespace of our own with only loopback in it.
if [[ -z ${ZUNTA_SANDBOX_STAGE:-} ]]; then
  cmake --build "$BUILD_DIR" --target zunta-coord zunta-meshsim -j2 >/dev/null
  exec env ZUNTA_SANDBOX_STAGE=net unshare --net -- "$0" --build-dir "$BUILD_DIR"
fi

ip link set lo up
if getent passwd zunta >/dev/null; then RUN_USER=zunta; RUN_GROUP=zunta; else RUN_USER=nobody; RUN_GROUP=nogroup; fi

WORK=$(mktemp -d /tmp/zunta-sandbox-XXXXXX)
PROBE=$(mktemp -d /var/tmp/zunta-sandbox-probe-XXXXXX)
SIM_PID=
cleanup() {
  if [[ -n $SIM_PID ]]; then kill "$SIM_PID" 2>/dev/null || true; wait "$SIM_PID" 2>/dev/null || true; fi
  rm -rf "$WORK" "$PROBE"
}
trap cleanup EXIT

# The daemon runs from /tmp so that any user may execute it; its files go to a directory of its
# own under the shared /tmp, the same file system as the product paths /tmp/zunta-sa.log etc.
chmod 755 "$WORK"
install -m 755 "$BUILD_DIR/zunta-coord" "$WORK/zunta-coord"
printf 'root=true\nbroadcast_address=%s.255\nbroadcast_port=%s\n' "$RANGE" "$DISCOVERY_PORT" >"$WORK/zunta.conf"
chmod 644 "$WORK/zunta.conf"
install -d -m 755 -o "$RUN_USER" -g "$RUN_GROUP" "$WORK/state"
# World-writable but outside /tmp: the sandbox must refuse writes here.
chmod 1777 "$PROBE"

"$BUILD_DIR/zunta-meshsim" --agent-port "$AGENT_PORT" --discovery-address "$RANGE.255" \
  --discovery-port "$DISCOVERY_PORT" --relocate "$RANGE" --control "$WORK/meshsim.sock" --quiet \
  "$ROOT/tools/meshsim/examples/four-nodes.topo" 2>"$WORK/meshsim.log" &
SIM_PID=$!
for _ in $(seq 100); do
  [[ -S $WORK/meshsim.sock ]] && break
  kill -0 "$SIM_PID" 2>/dev/null || break
  sleep 0.1
done
if [[ ! -S $WORK/meshsim.sock ]]; then
  echo "sandbox-check: the simulator did not start:" >&2
  cat "$WORK/meshsim.log" >&2
  exit 1
fi

# Stage 2, inside a private mount namespace: read-only system, writable shared /tmp, then drop to
# the service user with no privileges left and run the probes and the daemon.
SANDBOX='
set -e
mount --bind /tmp /tmp
findmnt -rn -o TARGET | sort -u | while read -r mp; do
  case $mp in /proc|/proc/*|/sys|/sys/*|/dev|/dev/*) continue ;; esac
  mount -o remount,bind,ro "$mp" 2>/dev/null || echo "sandbox: $mp could not be made read-only" >&2
done
mount -o remount,bind,rw /tmp
exec setpriv --reuid="$RUN_USER" --regid="$RUN_GROUP" --clear-groups --no-new-privs \
  --bounding-set=-all --inh-caps=-all --ambient-caps=-all -- sh -c "$PROBES"
'
PROBES='
set -e
echo "sandbox: running as $(id -un) ($(id -u)); $(grep -E "^(NoNewPrivs|CapEff|CapBnd|CapAmb)" /proc/self/status | tr -s "\t\n" "  ")"
if touch "$PROBE/written" 2>"$WORK/state/probe.err"; then
  echo "sandbox: FAIL: $PROBE was writable"; exit 1
fi
echo "sandbox: writing outside /tmp refused: $(cat "$WORK/state/probe.err")"
if touch /etc/zunta-sandbox-probe 2>/dev/null; then echo "sandbox: FAIL: /etc was writable"; exit 1; fi
exec env ZUNTA_CONF="$WORK/zunta.conf" ZUNTA_SNAPSHOT="$WORK/state/zunta-sa.log" ZUNTA_STATUS_JSON="$WORK/state/zunta-status.json" \
  ZUNTA_DUMP_FILE="$WORK/state/zunta-dump.log" ZUNTA_TRAINING_STATUS_FILE="$WORK/state/training_status.log" \
  ZUNTA_AGENT_PORT="$AGENT_PORT" ZUNTA_TIME_SCALE="$TIME_SCALE" "$WORK/zunta-coord" -1
'
export RUN_USER RUN_GROUP PROBES PROBE WORK AGENT_PORT TIME_SCALE
status=0
timeout 300 unshare --mount --propagation private -- sh -c "$SANDBOX" >"$WORK/coord.log" 2>&1 || status=$?
grep '^sandbox:' "$WORK/coord.log" || true

fail() {
  echo "sandbox-check: FAIL: $*" >&2
  tail -20 "$WORK/coord.log" >&2
  exit 1
}
((status == 0)) || fail "the sandboxed run ended with status $status"
grep -q '^Exit$' "$WORK/coord.log" || fail "no \"Exit\" line"
pairs=$(grep -c 'Pattern Set for Mesh Pair' "$WORK/coord.log" || true)
((pairs == 4)) || fail "$pairs of 4 mesh pairs got their patterns"
snapshot=$WORK/state/zunta-sa.log
[[ -f $snapshot ]] || fail "no status file"
keys=$(grep -c '"key"' "$snapshot" || true)
((keys == 4)) || fail "the status file lists $keys of 4 trained pairs"
owner=$(stat -c '%U %a' "$snapshot")
echo "sandbox-check: status file $(basename "$snapshot") written under /tmp, owner and mode: $owner"
[[ $owner == "$RUN_USER "*4 ]] || fail "the status file is not owned by $RUN_USER and readable by all"
echo "sandbox-check: OK: zunta-coord -1 trained $pairs mesh pairs as $RUN_USER without privileges on a read-only system"
