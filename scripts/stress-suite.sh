#!/usr/bin/env bash
# Runs the built test suite RUNS times in a row while stress-ng keeps every
# core busy, and stops at the first failing run.
#   scripts/stress-suite.sh [RUNS] [BUILD_DIR] [ctest arguments...]
# Prints one line per run (result and duration) and a summary.
set -uo pipefail
cd "$(dirname "$0")/.."
RUNS="${1:-10}"
BUILD="${2:-build}"
shift $(( $# > 2 ? 2 : $# ))
command -v stress-ng >/dev/null || { echo "stress-suite: stress-ng is not installed" >&2; exit 2; }
[ -f "$BUILD/CTestTestfile.cmake" ] || { echo "stress-suite: no test tree in $BUILD (run scripts/test.sh first)" >&2; exit 2; }

stress-ng --cpu "$(nproc)" --timeout 0 --quiet &
STRESS=$!
trap 'kill $STRESS 2>/dev/null; wait $STRESS 2>/dev/null' EXIT

passed=0
for i in $(seq 1 "$RUNS"); do
  t0=$(date +%s)
  log="$BUILD/Testing/stress-run-$i.log"
  if (cd "$BUILD" && ctest --output-on-failure --no-tests=error -j "$(nproc)" "$@") >"$log" 2>&1; then
    passed=$((passed + 1))
    echo "stress-suite: run $i passed in $(( $(date +%s) - t0 )) s"
  else
    echo "stress-suite: run $i FAILED after $(( $(date +%s) - t0 )) s (log: $log)"
    grep -E "^\s*[0-9]+ - |Failed|\*\*\*" "$log" | tail -20
    break
  fi
done
echo "stress-suite: $passed of $RUNS runs passed under load"
[ "$passed" -eq "$RUNS" ]
