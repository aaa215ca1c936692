#!/usr/bin/env bash
# Fuzzes the private HTTP frame reader with libFuzzer (clang, ASan + UBSan).
#   scripts/fuzz.sh [seconds]        default 600 (ten minutes)
# Builds build-fuzz/, copies the checked-in seed corpus to a scratch corpus
# (build-fuzz/corpus), runs the fuzzer, and leaves any crash, leak or
# timeout input in build-fuzz/artifacts/. Exit status: the fuzzer's.
# New interesting inputs worth keeping can be added to tests/fuzz/corpus/
# (the normal test suite replays them).
set -euo pipefail
cd "$(dirname "$0")/.."
SECONDS_TO_RUN="${1:-600}"
JOBS="${CAMCTL_JOBS:-2}"
BUILD=build-fuzz

CC=clang CXX=clang++ cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCAMCTL_FUZZ=ON -DCAMCTL_SANITIZE=address,undefined -DCAMCTL_WERROR=OFF \
  -DCAMCTL_BENCH=OFF >/dev/null
cmake --build "$BUILD" -j "$JOBS" --target http_frame_fuzzer

mkdir -p "$BUILD/corpus" "$BUILD/artifacts"
cp -n tests/fuzz/corpus/* "$BUILD/corpus/" 2>/dev/null || true

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
# stderr is closed for the reader's own log lines; sanitizer reports and
# libFuzzer's status still come through.
set +e
"$BUILD/tests/fuzz/http_frame_fuzzer" "$BUILD/corpus" \
  -max_total_time="$SECONDS_TO_RUN" -timeout=10 -rss_limit_mb=2048 -max_len=20000 \
  -close_fd_mask=2 -print_final_stats=1 -artifact_prefix="$BUILD/artifacts/"
status=$?
set -e
echo "fuzz.sh: fuzzer exit status $status; corpus $(ls "$BUILD/corpus" | wc -l) inputs;" \
  "artifacts: $(ls "$BUILD/artifacts" | wc -l)"
exit $status
