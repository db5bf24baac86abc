#!/bin/sh
# Runs the procd init script as the target would, with stand-ins for /etc/rc.common, procd's
# functions and the UCI shell library, and checks what it hands to procd, the /etc/zunta.conf it
# writes, the status files it takes for the service's user and its reload decision (ctest
# packaging_openwrt_init). Paths of the target are moved into a temporary root.
set -u
HERE=$(cd "$(dirname "$0")" && pwd)
WORK=$(mktemp -d /tmp/zunta-init-check-XXXXXX)
trap 'rm -rf "$WORK"' EXIT
failures=0
fail() {
	echo "init-check: FAIL: $*"
	failures=$((failures + 1))
}

# procd's functions record what the service hands over; the UCI library reads the options of one
# file into variables; chown is recorded (the user zunta need not exist here).
cat >"$WORK/standins.sh" <<'SH'
procd_open_service() { :; }
procd_close_service() { service_triggers; }
procd_open_instance() { :; }
procd_close_instance() { echo "close_instance" >>"$LOG"; }
procd_set_param() { echo "param $*" >>"$LOG"; }
procd_add_jail() { echo "jail $*" >>"$LOG"; }
procd_add_jail_mount() { echo "mount_ro $*" >>"$LOG"; }
procd_add_jail_mount_rw() { echo "mount_rw $*" >>"$LOG"; }
procd_add_reload_trigger() { echo "reload_trigger $*" >>"$LOG"; }
chown() { echo "chown $*" >>"$LOG"; }
config_load() {
	eval "$(awk -v q="'" '$1 == "config" { gsub(q, "", $3); section = $3 }
		$1 == "option" { value = $0; sub(/^[ \t]*option[ \t]+[^ \t]+[ \t]+/, "", value); gsub(q, "", value)
			printf "CONFIG_%s_%s=%s%s%s\n", section, $2, q, value, q }' "$UCI_DIR/$1")"
}
config_get() {
	eval "_uci_value=\${CONFIG_$2_$3-\$4}"
	eval "$1=\$_uci_value"
}
config_get_bool() {
	config_get _uci_bool "$2" "$3" "$4"
	case $_uci_bool in 1 | on | true | yes | enabled) _uci_bool=1 ;; 0 | off | false | no | disabled) _uci_bool=0 ;; *) _uci_bool=$4 ;; esac
	eval "$1=\$_uci_bool"
}
SH
# /etc/rc.common: the init script, then the action; start and restart are recorded.
cat >"$WORK/rc.common" <<'SH'
. "$STANDINS"
. "$1"
CONF_FILE=$ROOT/etc/zunta.conf
STATE_DIR=$ROOT/etc/zunta
STATUS_FILES="$ROOT/tmp/zunta-sa.log $ROOT/tmp/zunta-status.json $ROOT/tmp/zunta-dump.log"
UJAIL=$ROOT/sbin/ujail
start() {
	echo "rc start" >>"$LOG"
	procd_open_service zunta-coord
	start_service
	procd_close_service
}
restart() { echo "rc restart" >>"$LOG"; }
case $2 in
start) start ;;
reload) reload_service ;;
esac
SH

# run NAME ACTION [sed expression for the UCI file] [ujail]: one run in a fresh root.
run() {
	ROOT=$WORK/$1
	mkdir -p "$ROOT/etc" "$ROOT/tmp" "$ROOT/uci" "$ROOT/sbin"
	sed "${3:-}" "$HERE/zunta.config" >"$ROOT/uci/zunta"
	if [ "${4:-}" = ujail ]; then printf '#!/bin/sh\n' >"$ROOT/sbin/ujail" && chmod 755 "$ROOT/sbin/ujail"; fi
	LOG=$ROOT/log
	: >"$LOG"
	ROOT=$ROOT LOG=$LOG UCI_DIR=$ROOT/uci STANDINS=$WORK/standins.sh \
		sh "$WORK/rc.common" "$HERE/zunta-coord.init" "$2" || fail "$1: the init script failed"
}
# expect NAME TEXT...: each text is a whole line of the run's log.
expect() {
	local name=$1 line
	shift
	for line in "$@"; do
		grep -qxF -- "$line" "$WORK/$name/log" || fail "$name: no \"$line\" in: $(tr '\n' '|' <"$WORK/$name/log")"
	done
}

# The shipped configuration: -e, the usual respawn figures, the unprivileged user, every key in
# the file; no jail where the target has no ujail.
run default start
expect default "param command /usr/sbin/zunta-coord -e" "param respawn 3600 5 5" "param term_timeout 5" \
	"param user zunta" "param group zunta" "param stdout 1" "param stderr 1" "reload_trigger zunta" \
	"close_instance"
grep -q '^jail\|no_new_privs' "$WORK/default/log" && fail "default: a jail without ujail"
printf '%s\n' "# Written by /etc/init.d/zunta-coord from /etc/config/zunta: edit that file instead." \
	root=true broadcast_address=192.168.1.255 broadcast_port=12101 training_start_hour=3 \
	training_frequency_minutes=0 discovery_check_sender=false parallel_training=false \
	training_memory=/etc/zunta/training >"$WORK/expected.conf"
cmp -s "$WORK/expected.conf" "$WORK/default/etc/zunta.conf" || fail "default: zunta.conf differs:
$(diff "$WORK/expected.conf" "$WORK/default/etc/zunta.conf")"
[ "$(stat -c %a "$WORK/default/etc/zunta.conf")" = 644 ] || fail "default: zunta.conf is not 0644"
[ "$(ls "$WORK/default/etc")" = "zunta
zunta.conf" ] || fail "default: files left in etc: $(ls "$WORK/default/etc")"
expect default "chown zunta:zunta $WORK/default/etc/zunta"

# The plain cycle, other respawn figures, a key left out; with ujail: no new privileges, no
# capabilities, and only the configuration, /tmp and the state directory in the jail.
run custom start "s/topology_check '1'/topology_check '0'/; s/respawn_retry '5'/respawn_retry '0'/;
	s/respawn_timeout '5'/respawn_timeout '10'/; /training_memory/d; s/parallel_training 'false'/parallel_training 'true'/" ujail
expect custom "param command /usr/sbin/zunta-coord" "param respawn 3600 10 0" "param no_new_privs 1" \
	"param capabilities /etc/capabilities/zunta-coord.json" "jail zunta-coord" \
	"mount_ro $WORK/custom/etc/zunta.conf" "mount_rw /tmp $WORK/custom/etc/zunta"
grep -q '^parallel_training=true$' "$WORK/custom/etc/zunta.conf" || fail "custom: parallel_training not written"
grep -q '^training_memory=' "$WORK/custom/etc/zunta.conf" && fail "custom: a key left out was written"

# Names another user took first under /tmp (a directory, a link to a victim, a file of his own)
# become empty files of the service's user; the link's target is untouched.
mkdir -p "$WORK/claimed/tmp/zunta-sa.log/inner"
echo victim >"$WORK/victim"
ln -s "$WORK/victim" "$WORK/claimed/tmp/zunta-status.json"
echo "not the daemon's" >"$WORK/claimed/tmp/zunta-dump.log"
run claimed start
for name in zunta-sa.log zunta-status.json zunta-dump.log; do
	file=$WORK/claimed/tmp/$name
	{ [ -f "$file" ] && [ ! -L "$file" ] && [ ! -s "$file" ]; } || fail "claimed: $name is not an empty file"
	[ "$(stat -c %a "$file")" = 644 ] || fail "claimed: $name is not 0644"
	grep -q "^chown zunta:zunta $file\.[A-Za-z0-9]*$" "$WORK/claimed/log" || fail "claimed: $name not given to zunta"
done
[ "$(cat "$WORK/victim")" = victim ] || fail "claimed: the link was followed"
[ "$(ls "$WORK/claimed/tmp" | wc -l)" = 3 ] || fail "claimed: files left in tmp: $(ls "$WORK/claimed/tmp")"

# Reload: the daemon reads the port at start-up only, so a new port restarts it; anything else
# is a start that rewrites the file (procd restarts the instance only if what it got changed).
run same start
run same reload
expect same "rc start"
grep -q "^rc restart" "$WORK/same/log" && fail "same: an unchanged port restarted the daemon"
run port start
sed -i "s/broadcast_port '12101'/broadcast_port '12102'/" "$WORK/port/uci/zunta"
: >"$WORK/port/log"
ROOT=$WORK/port LOG=$WORK/port/log UCI_DIR=$WORK/port/uci STANDINS=$WORK/standins.sh \
	sh "$WORK/rc.common" "$HERE/zunta-coord.init" reload
expect port "rc restart"

[ "$failures" -eq 0 ] || exit 1
echo "init-check: the init script hands procd what it should, writes zunta.conf and takes the status files"
