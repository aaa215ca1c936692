#!/usr/bin/env bash
# Runs the interop matrix (tests/interop_test: every row a GStreamer encoder
# behind GStreamer's RTSP server, played through a camera) and writes its
# figures, with the versions of the encoders and servers, to docs/INTEROP.md.
#   scripts/interop.sh [BUILD_DIR]    (default: build)
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
cmake --build "$build" --target interop_test -j2 >/dev/null || exit 1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
CAMCTL_INTEROP_TABLE=$work/rows "$build/tests/interop_test" --gtest_color=no >"$work/log" 2>&1
status=$?
grep -E '^\[ +(OK|FAILED|SKIPPED) +\] Rows' "$work/log" | sed 's/ ([0-9]* ms)$//' >"$work/results"

pkg() { dpkg-query -W -f='${Package} ${Version}\n' "$@" 2>/dev/null | head -1; }
{
  echo "# Interop matrix"
  echo
  echo "Written by \`scripts/interop.sh\` from its last run of \`tests/interop_test\` ($(date -u +%Y-%m-%d))."
  echo "Each row is a GStreamer pipeline behind GStreamer's RTSP server on 127.0.0.1, opened"
  echo "through \`CIpCamera\` as a host would. The server sends a known number of pictures"
  echo "(320x240, 25/s) and audio samples, then ends the stream. Pictures: delivered to the"
  echo "host's callback, in % of all the server sent (the test asks for 90 % of those after"
  echo "the first key-frame group, which may pass before decoding is switched on). Audio:"
  echo "samples delivered, in % of those sent. Recording: started at the first picture,"
  echo "stopped at the end of the stream; ok when \`ffprobe\` reads the expected codec tag and"
  echo "decodes every packet to a picture. Close: time \`DelIpCamera\` took."
  echo
  echo "| Row | Pictures % | Audio % | Recording ok | Close |"
  echo "|---|---|---|---|---|"
  cat "$work/rows" 2>/dev/null
  echo
  echo "Test results of that run:"
  echo
  echo '```'
  cat "$work/results"
  echo '```'
  echo
  echo "Versions:"
  echo
  echo "- $(gst-launch-1.0 --version | sed -n 2p) ($(pkg gstreamer1.0-plugins-ugly | cut -d' ' -f1-2), $(pkg libgstrtspserver-1.0-0))"
  echo "- $(pkg 'libx264-[0-9]*')"
  echo "- $(pkg 'libx265-[0-9]*')"
  echo "- $(ffmpeg -version | head -1 | cut -d' ' -f1-3) ($(pkg 'libavcodec[0-9]*'))"
} >"$root/docs/INTEROP.md"
echo "interop: $(grep -c OK "$work/results") ok, $(grep -c FAILED "$work/results") failed, $(grep -c SKIPPED "$work/results") skipped; docs/INTEROP.md written"
exit $status
