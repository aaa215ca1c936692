#!/usr/bin/env bash
# Installs dependencies, builds Camctl and runs the test suite.
#   scripts/test.sh            normal build (build/), all tests
#   CAMCTL_SANITIZE=address,undefined scripts/test.sh   sanitizer build (build-asan/)
#   CAMCTL_SANITIZE=thread scripts/test.sh              (build-tsan/)
# Extra arguments go to ctest (e.g. -R engine).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh

SAN="${CAMCTL_SANITIZE:-}"
case "$SAN" in
  "") BUILD=build ;;
  thread) BUILD=build-tsan ;;
  *) BUILD=build-asan ;;
esac
JOBS="${CAMCTL_JOBS:-$(nproc)}"

cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCAMCTL_SANITIZE="$SAN" -DCAMCTL_WERROR=ON \
  -DCAMCTL_TESTS=ON -DCAMCTL_BENCH=ON >/dev/null
cmake --build "$BUILD" -j "$JOBS"

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
export TSAN_OPTIONS="${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}"
cd "$BUILD"
# No retries: a test that fails on a loaded machine is a defect.
ctest --output-on-failure --no-tests=error -j "$JOBS" "$@"
cd ..
bash scripts/test-ratio.sh
