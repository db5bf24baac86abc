#!/bin/sh
# Checks the systemd unit where systemd is not running (ctest packaging_unit):
#  - systemd-analyze verify has nothing to say about it, its ExecStart pointed at the built daemon;
#  - a daemon that refuses to start (no configuration file; root not true) exits at once with
#    status 0, the unit restarts it whatever its status (Restart=always, needed after a lost
#    interface), so its start limit must end the loop: StartLimitBurst starts RestartSec apart
#    happen within StartLimitIntervalSec, and the unit is then left failed;
#  - the tmpfiles.d entry, applied to a root of its own as the unit and the postinst apply it,
#    turns whatever another user left at the status files' names (a directory, a link, a file)
#    into empty files of the user zunta.
# Usage: unit-check.sh DAEMON [EMULATOR...]
set -u
UNIT=$(cd "$(dirname "$0")" && pwd)/zunta-coord.service
DAEMON=$1
shift
WORK=$(mktemp -d /tmp/zunta-unit-check-XXXXXX)
trap 'rm -rf "$WORK"' EXIT
status=0
fail() {
	echo "unit-check: FAIL: $*"
	status=1
}
setting() { sed -n "s/^$1=//p" "$UNIT" | tail -1; }

if command -v systemd-analyze >/dev/null 2>&1; then
	sed "s|=/usr/sbin/zunta-coord |=$DAEMON |" "$UNIT" >"$WORK/zunta-coord.service"
	out=$(systemd-analyze verify --man=no "$WORK/zunta-coord.service" 2>&1)
	[ -z "$out" ] || fail "systemd-analyze verify: $out"
else
	echo "unit-check: systemd-analyze not installed, the unit is not verified"
fi

[ "$(setting Type)" = exec ] || fail "Type=$(setting Type), not exec"
[ "$(setting Restart)" = always ] || fail "Restart=$(setting Restart): a daemon that exits 0 is not restarted"
burst=$(setting StartLimitBurst)
interval=$(setting StartLimitIntervalSec)
pause=$(setting RestartSec)
if [ $(((burst - 1) * pause)) -ge "$interval" ]; then
	fail "$burst starts $pause s apart do not fit into $interval s: the unit would restart for ever"
fi

# The refusals, each in a network namespace of its own (without a configuration the default
# broadcast address would apply).
printf 'root=false\nbroadcast_address=127.0.2.254\nbroadcast_port=24628\n' >"$WORK/not-root.conf"
for conf in "$WORK/absent.conf" "$WORK/not-root.conf"; do
	if ! unshare -n true 2>/dev/null; then
		echo "unit-check: no private network namespace, refusals not run"
		break
	fi
	code=0
	ZUNTA_CONF=$conf timeout 20 unshare -n -- "$@" "$DAEMON" -e >"$WORK/out" 2>&1 || code=$?
	if [ "$code" -ne 0 ] || [ "$(tail -1 "$WORK/out")" != Exit ]; then
		fail "$(basename "$conf"): exit status $code, log: $(tr '\n' '|' <"$WORK/out")"
	fi
done
if command -v systemd-tmpfiles >/dev/null 2>&1 && [ "$(id -u)" = 0 ]; then
	root=$WORK/root
	mkdir -p "$root/etc" "$root/tmp" "$root/usr/lib/tmpfiles.d"
	chmod 1777 "$root/tmp"
	echo 'zunta:x:3771:3771::/:/usr/sbin/nologin' >"$root/etc/passwd"
	echo 'zunta:x:3771:' >"$root/etc/group"
	cp "$(dirname "$UNIT")/zunta.tmpfiles" "$root/usr/lib/tmpfiles.d/zunta-coord.conf"
	mkdir -p "$root/tmp/zunta-sa.log/inner"
	echo kept >"$WORK/victim"
	ln -s "$WORK/victim" "$root/tmp/zunta-status.json"
	echo other >"$root/tmp/zunta-dump.log"
	chown 1:1 "$root/tmp/zunta-dump.log"
	systemd-tmpfiles --root="$root" --create --remove zunta-coord.conf || fail "systemd-tmpfiles failed"
	for name in zunta-sa.log zunta-status.json zunta-dump.log training_status.log; do
		[ "$(stat -c '%F %u %a %s' "$root/tmp/$name" 2>&1)" = "regular empty file 3771 644 0" ] ||
			fail "tmpfiles: $name is $(stat -c '%F %u %a %s' "$root/tmp/$name" 2>&1)"
	done
	[ "$(cat "$WORK/victim")" = kept ] || fail "tmpfiles: the link was followed"
else
	echo "unit-check: systemd-tmpfiles missing or not root, the tmpfiles.d entry is not applied"
fi

[ "$status" -eq 0 ] && echo "unit-check: verified; a refused start ($burst starts ${pause} s apart) leaves the unit failed within $interval s"
exit "$status"
