#!/usr/bin/env bash
# bench/compare: Camctl against the tools a user would pick instead, on the
# same generated inputs, in one run.
#
#   bash bench/compare.sh            build (Release) if needed, run, report
#   bash bench/compare.sh --no-docs  print the table only, leave docs/ alone
#
# References, measured inside the benchmark programs in the same run: the
# ffmpeg command line (-threads 1 -pix_fmt bgr24|yuv420p -f null -, and
# -c copy -f avi), libjpeg-turbo, a bare 2 ms ticker for the player timer,
# ffmpeg's single-core 720p rate for the live-camera bound, and a C++ host
# for the Python module (bench/python_bench.py).
# Results: a table of ratios on stdout, the generated section of
# docs/PERFORMANCE.md (between the compare markers) and
# docs/live_fps_per_camera.png (gnuplot).
#
# Environment: CAMCTL_BENCH_BUILD (build folder, default build-bench),
# CAMCTL_LIVE_TRIAL_S (seconds per live sweep point, default 15),
# CAMCTL_CAMERA_TRIAL_S (seconds per camera-count trial, default 60),
# CAMCTL_CAMERA_TRIALS (trials of the camera-count search, default 3).
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)
START=$(date +%s)
WRITE_DOCS=1
[ "${1:-}" = "--no-docs" ] && WRITE_DOCS=0

BUILD=${CAMCTL_BENCH_BUILD:-build-bench}
OUT="$BUILD/compare"
LOAD_BEFORE=$(cut -d' ' -f1-3 /proc/loadavg)

# ---- build ---------------------------------------------------------------
# Release (-O3). Warnings are not errors here: g++ 12 at -O3 reports a false
# null-argument warning in the simulator that -O2 builds do not.
if [ ! -f "$BUILD/CMakeCache.txt" ]; then
  cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=Release -DCAMCTL_BENCH=ON -DCAMCTL_TESTS=ON \
    -DCAMCTL_WERROR=OFF -DCAMCTL_SANITIZE= >/dev/null
fi
BENCHES=()
for src in bench/*_bench.cpp; do BENCHES+=("$(basename "$src" .cpp)"); done
echo "compare: building ${BENCHES[*]}"
cmake --build "$BUILD" -j "${CAMCTL_JOBS:-2}" --target "${BENCHES[@]}" 2>&1 | grep -E "error|Error" || true
# The Python module and the C++ host it is compared with (when pybind11 is there).
cmake --build "$BUILD" -j "${CAMCTL_JOBS:-2}" --target camctl_python camctl_callback_host camsim 2>&1 |
  grep -E "error|Error" || true
BUILT=$(date +%s)

mkdir -p "$OUT"
rm -f "$OUT"/*.json "$OUT"/*.log
have() { [ -x "$BUILD/bench/$1" ]; }

# run NAME TIMEOUT [args...]: one benchmark program, JSON to $OUT/NAME.json.
run() {
  local name=$1 limit=$2 tag=${RUN_TAG:-$1}
  shift 2
  if ! have "$name"; then
    echo "compare: $name not built, skipped"
    return 0
  fi
  local t0
  t0=$(date +%s)
  echo "compare: $tag ..."
  (cd "$BUILD/bench" && timeout "$limit" "./$name" --benchmark_format=json \
      --benchmark_out="$ROOT/$OUT/$tag.json" --benchmark_out_format=json "$@" \
      >"$ROOT/$OUT/$tag.stdout" 2>"$ROOT/$OUT/$tag.log") ||
    echo "compare: $tag ended with status $? (see $OUT/$tag.log)"
  echo "compare: $tag took $(( $(date +%s) - t0 )) s"
}

run colour_bench 120
run imaging_bench 180 --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
run engine_bench 300
run h265_bench 300
run recorder_bench 180
run player_bench 120

# Live: single-core reference and time to first picture, then the sweep of
# session counts (one process per count, so that memory figures are clean).
RUN_TAG=live_ref run live_bench 120 --benchmark_filter='BM_Reference720pBgr|BM_TimeToFirstPicture|BM_Idle'
BOUND=$(python3 bench/compare_report.py --bound "$OUT" 2>/dev/null || echo 8)
SWEEP=$(python3 -c "
import math,sys
b=max(8.0,float('$BOUND')); top=int(math.ceil(b))
pts=sorted({1,max(2,round(top/4)),max(3,round(top/2)),max(4,round(3*top/4)),top})
print(' '.join(map(str,pts)))")
echo "compare: live bound $BOUND cameras, sweep over: $SWEEP"
for n in $SWEEP; do
  RUN_TAG=live_n$n CAMCTL_LIVE_N=$n CAMCTL_LIVE_TRIAL_S=${CAMCTL_LIVE_TRIAL_S:-15} \
    run live_bench 180 --benchmark_filter="BM_Live"
done

# Live latency of stamped pictures, ours (smooth stream off and on) and the
# ffmpeg and GStreamer low-latency readers.
RUN_TAG=latency CAMCTL_LATENCY_TRIAL_S=${CAMCTL_LATENCY_TRIAL_S:-60} run latency_bench 420

# Recording-only cameras: the HTTP count, then the RTSP sample against one
# ffmpeg segmenting process per camera.
RUN_TAG=record_scale CAMCTL_RECORD_N=${CAMCTL_RECORD_N:-200} CAMCTL_RECORD_REF_N=${CAMCTL_RECORD_REF_N:-8} \
  CAMCTL_RECORD_TRIAL_S=${CAMCTL_RECORD_TRIAL_S:-60} run record_scale_bench 900

# The Python module against a C++ host (3 rounds of 10 s per pair).
if [ -f "$BUILD/bench/camctl_callback_host" ] && ls "$BUILD"/python/camctl*.so >/dev/null 2>&1; then
  echo "compare: python_bench ..."
  /usr/bin/python3 bench/python_bench.py "$BUILD" "$OUT" >"$OUT/python_bench.log" 2>&1 ||
    echo "compare: python_bench ended with status $? (see $OUT/python_bench.log)"
fi

# The camera-count search (60 s trials), when the camera benchmark exists.
CAMCTL_BENCH_TRIAL_SECONDS=${CAMCTL_CAMERA_TRIAL_S:-60} CAMCTL_BENCH_MAX_TRIALS=${CAMCTL_CAMERA_TRIALS:-3} \
  run camera_bench 420

END=$(date +%s)
LOAD_AFTER=$(cut -d' ' -f1-3 /proc/loadavg)
{
  echo "date=$(date -u '+%Y-%m-%d %H:%M UTC')"
  echo "cpu=$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//')"
  echo "cores=$(nproc)"
  echo "memory=$(awk '/MemTotal/ {printf "%.1f GiB", $2/1048576}' /proc/meminfo)"
  echo "os=$(. /etc/os-release && echo "$PRETTY_NAME"), kernel $(uname -r)"
  echo "compiler=$(g++ --version | head -1)"
  echo "ffmpeg=$(ffmpeg -hide_banner -version | head -1 | cut -d' ' -f1-3)"
  echo "build=Release (-O3), $BUILD"
  echo "load_before=$LOAD_BEFORE"
  echo "load_after=$LOAD_AFTER"
  echo "build_seconds=$((BUILT - START))"
  echo "run_seconds=$((END - BUILT))"
} >"$OUT/machine.txt"

ARGS=("$OUT")
[ "$WRITE_DOCS" = 1 ] && ARGS+=(--doc docs/PERFORMANCE.md --plot docs/live_fps_per_camera.png)
python3 bench/compare_report.py "${ARGS[@]}"
echo "compare: total $((END - START)) s (build $((BUILT - START)) s, benchmarks $((END - BUILT)) s)"
