#!/usr/bin/env bash
# coverage.sh [build directory]: line and branch coverage of the bridge by its own tests. Prints both, and fails unless
# every line and every branch was taken. Without an argument it builds the preset "coverage" first.
#
# Branches that only an exception takes are left out: nothing that the bridge calls throws.
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${1:-build/coverage}

if [ $# = 0 ]; then
  cmake --preset coverage >/dev/null
  cmake --build --preset coverage --target bridge_test
fi
find "$build" -name '*.gcda' -delete
"$build/tests/bridge/bridge_test" --gtest_brief=1
gcovr --root . --filter 'framework/tkv/tkv\.cpp' --exclude-throw-branches --exclude-unreachable-branches --branches \
  --print-summary --fail-under-line 100 --fail-under-branch 100 "$build/framework"
