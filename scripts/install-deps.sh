#!/usr/bin/env bash
# Installs what Camctl needs to build, test and run its demo on Debian 12.
# Idempotent: packages already present are skipped, apt-get runs only when
# something is missing.
#   install-deps.sh            build, tests, Debian packages, API reference,
#                              the loaded suite runs (stress-ng)
#   install-deps.sh --lintian  also lintian (scripts/package.sh; the package
#                              test runs it when present)
set -euo pipefail

PKGS=(
  build-essential cmake pkg-config git
  libavformat-dev libavcodec-dev libavutil-dev libswscale-dev
  libfaad-dev libjpeg62-turbo-dev libjpeg-turbo-progs libde265-dev
  libx11-dev libva-dev libyuv-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  ffmpeg xvfb xauth x11-apps
  python3 python3-gi gir1.2-gst-rtsp-server-1.0 gstreamer1.0-rtsp
  gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good
  gstreamer1.0-plugins-bad gstreamer1.0-plugins-ugly gstreamer1.0-libav
  clang libclang-rt-14-dev gnuplot-nox
  dpkg-dev file doxygen
  pybind11-dev python3-dev python3-numpy python3-pytest
  stress-ng
)
if [ "${1:-}" = --lintian ]; then PKGS+=(lintian); fi

missing=()
for p in "${PKGS[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all ${#PKGS[@]} packages present"
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
