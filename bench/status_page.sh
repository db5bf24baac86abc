#!/usr/bin/env bash
# The status page at the size of a large mesh: a generated 250-node mesh (493 pairs) trained in
# parallel and taken mid-way, its documents validated, the page rendered in headless Chromium and
# checked as the browser test checks it; prints the document's size, the page's render time and
# the screenshot (build/browser/page-mesh250.png); then the time the daemon takes to write the
# document for 16, 64 and 250 nodes (status_json_bench).
# Needs build/zunta-coord, build/zunta-meshsim, build/status_json_bench, /usr/bin/python3 with
# python3-jsonschema and chromium-headless-shell. Runs in its own network namespace (loopback only).
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${BUILD_DIR:-$ROOT/build}
unshare -n sh -c "ip link set lo up && /usr/bin/python3 '$ROOT/tests/browser/page_check.py' --build-dir '$BUILD' \
  --out '$BUILD/browser' --cases mesh250"
"$BUILD/status_json_bench"
