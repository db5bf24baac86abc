#!/usr/bin/env bash
# Makes the source tarball that the OpenWrt package downloads, build-pkg/zunta-<version>.tar.gz,
# from the last commit that changed anything outside packaging/openwrt/ (that directory is left out
# of the tarball), so that the package's own commits never change it. The same commit always gives
# the same bytes. Prints the PKG_HASH line of packaging/openwrt/Makefile for that tarball; with
# --update it writes that line into the Makefile.
set -euo pipefail
cd "$(dirname "$0")/.."

version=$(sed -n 's/^project(zunta VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
commit=$(git log -1 --format=%H -- . ':!packaging/openwrt')
out=build-pkg/zunta-$version.tar.gz
mkdir -p build-pkg
# git archive stamps every entry with the commit's time; gzip -n leaves out name and time.
git archive --format=tar --prefix="zunta-$version/" "$commit" | gzip -9n >"$out"
hash=$(sha256sum "$out" | cut -d' ' -f1)
echo "source-tarball: $out from commit $commit"
echo "PKG_HASH:=$hash"
if [[ ${1:-} == --update ]]; then
  sed -i "s/^PKG_HASH:=.*/PKG_HASH:=$hash/" packaging/openwrt/Makefile
fi
