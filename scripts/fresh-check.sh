#!/usr/bin/env bash
# Proves that the README's two commands work on a fresh machine: makes a minimal Debian 12 root
# with mmdebstrap (variant minbase, from Debian's packages), copies a clean clone of this tree's
# last commit into it, and runs there, as root, scripts/demo.sh and then scripts/test.sh, failing on
# any error. The scripts install what they need with apt (the root reaches the Debian mirror the
# way this machine does: its Debian sources and its Acquire settings are copied in); they run the
# daemon and the tests in network namespaces of their own, with loopback only. Run as root:
#
#   scripts/fresh-check.sh [--keep]     (--keep leaves the root in build-fresh/ for a look)
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=scripts/debian-packages.sh
. "$ROOT/scripts/debian-packages.sh"
KEEP=0
case ${1:-} in
  "") ;;
  --keep) KEEP=1 ;;
  *) echo "usage: scripts/fresh-check.sh [--keep]" >&2; exit 2 ;;
esac
if [[ $(id -u) != 0 ]]; then
  echo "fresh-check: run as root (mmdebstrap, chroot and mounts need it)" >&2
  exit 2
fi
zunta_install_packages fresh-check "${FRESH_CHECK_PACKAGES[@]}"

FRESH=$ROOT/build-fresh
started=$SECONDS
cleanup() {
  if [[ $KEEP == 0 ]]; then rm -rf "$FRESH"; fi
}
trap cleanup EXIT
rm -rf "$FRESH"
mkdir -p "$FRESH"

# This machine's way to the Debian mirror: its sources for bookworm (else Debian's default mirror)
# and every apt.conf.d file that sets an Acquire option (proxies, validity checks).
mirrors=()
for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list /etc/apt/sources.list.d/*.sources; do
  [[ -f $f ]] && grep -qsw bookworm "$f" && mirrors+=("$f")
done
aptopts=()
for f in /etc/apt/apt.conf.d/*; do
  [[ -f $f ]] && grep -qs '^[[:space:]]*Acquire' "$f" && aptopts+=("--aptopt=$f")
done
echo "fresh-check: minimal Debian 12 root in $FRESH/root (sources: ${mirrors[*]:-the default mirror})"
mmdebstrap --variant=minbase --mode=root --quiet "${aptopts[@]}" bookworm "$FRESH/root" "${mirrors[@]}"
rootfs_done=$SECONDS

# A clean clone of the last commit, owned by root as the scripts run as root.
git clone --quiet --no-local "$ROOT" "$FRESH/root/root/zunta"
echo "fresh-check: clone of $(git -C "$FRESH/root/root/zunta" log -1 --format='%h %s' | cut -c1-72)"

# The README's commands, as a new user types them, in the root with /proc, /sys, /dev and a fresh
# /tmp of its own; every process dies with the namespace when the run ends.
RUN='
set -e
mount -t proc proc "$R/proc"
mount -t sysfs sysfs "$R/sys"
mount --rbind /dev "$R/dev"
mount -t tmpfs -o mode=1777 tmpfs "$R/tmp"
cp /etc/resolv.conf "$R/etc/resolv.conf"
exec chroot "$R" /usr/bin/env -i HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin TERM=dumb LANG=C.UTF-8 \
  bash -c "cd /root/zunta && echo \"== scripts/demo.sh\" && scripts/demo.sh && demo_done=\$SECONDS && echo \"== scripts/test.sh\" && scripts/test.sh && echo \"fresh-check: demo \$demo_done s, test \$((SECONDS - demo_done)) s\""
'
status=0
R=$FRESH/root unshare --mount --propagation private --pid --fork -- sh -c "$RUN" || status=$?
echo "fresh-check: root made in $((rootfs_done - started)) s; the whole check took $((SECONDS - started)) s"
if ((status != 0)); then
  echo "fresh-check: FAILED (status $status)" >&2
  exit "$status"
fi
echo "fresh-check: scripts/demo.sh and scripts/test.sh passed on a fresh Debian 12 root"
