#!/usr/bin/env bash
# Mutation check: each plausible fault of tests/mutants.txt applied alone, the tree rebuilt
# incrementally (in build-mutation/) and the default test suite run; prints each fault's fate and
# a last line "killed K of N". Options: see scripts/mutation.py --help. Takes about a minute per
# fault; installs python3 when it is missing (as root, with apt-get).
set -euo pipefail
cd "$(dirname "$0")/.."
if ! command -v python3 >/dev/null 2>&1; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq && apt-get install -y -qq --no-install-recommends python3 >/dev/null
fi
exec python3 scripts/mutation.py "$@"
