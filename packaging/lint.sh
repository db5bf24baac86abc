#!/bin/sh
# Checks the packaging files that need no build: the manual pages render without warnings, the
# shell scripts parse, and the unit's sandbox stays at an exposure of 2.0 or lower. Tools that are
# not installed are skipped with a note. Run by ctest as packaging_lint.
set -u
cd "$(dirname "$0")"
status=0

for page in man/zunta-coord.8 man/zunta.conf.5; do
  out=$(groff -ww -man -Tutf8 -z "$page" 2>&1)
  if [ -n "$out" ]; then echo "lint: $page: $out"; status=1; fi
  if command -v mandoc >/dev/null 2>&1; then
    out=$(mandoc -Tlint "$page" 2>&1)
    if [ -n "$out" ]; then echo "lint: $out"; status=1; fi
  else
    echo "lint: mandoc not installed, $page checked with groff only"
  fi
done

for script in openwrt/zunta-coord.init openwrt/init-check.sh debian/postinst debian/prerm debian/postrm \
  unit-check.sh sandbox-check.sh ../scripts/*.sh; do
  case $script in
    *.sh) bash -n "$script" || status=1 ;;
    *) sh -n "$script" || status=1 ;;
  esac
done

if command -v systemd-analyze >/dev/null 2>&1; then
  # --threshold counts tenths: 20 is an exposure of 2.0.
  if ! systemd-analyze security --offline=true --threshold=20 zunta-coord.service >/dev/null 2>&1; then
    systemd-analyze security --offline=true zunta-coord.service 2>&1 | tail -1
    echo "lint: zunta-coord.service is exposed above 2.0"
    status=1
  fi
else
  echo "lint: systemd-analyze not installed, the unit's exposure is not checked"
fi
exit $status
