#!/usr/bin/env bash
# Lines of C++ test code against product code, counted as the pre-stop check counts them:
# non-blank lines that are not // comments, in the files git knows under tests/, src/ and tools/.
set -euo pipefail
cd "$(dirname "$0")/.."
count() {
  git ls-files "$1" | grep -E '\.(c|cc|cpp|h|hpp)$' | xargs -r cat | grep -c -v -E '^\s*($|//)' || true
}
tests=$(count tests)
product=$(($(count src) + $(count tools)))
echo "tests $tests, product $product (src $(count src), tools $(count tools)):" \
  "tests are $((100 * tests / (tests + product)))% of all the code"
