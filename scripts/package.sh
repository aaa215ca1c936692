#!/usr/bin/env bash
# Builds the Debian packages from a fresh clone:
#   bash scripts/package.sh
# installs what is missing (lintian included), configures build-deb/ for
# /usr without tests and benchmarks, builds, runs `cpack -G DEB` and checks
# the packages with lintian. The .deb files are left in build-deb/.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh --lintian

BUILD=build-deb
JOBS="${CAMCTL_JOBS:-$(nproc)}"
cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
  -DCAMCTL_TESTS=OFF -DCAMCTL_BENCH=OFF -DCAMCTL_WERROR=ON >/dev/null
cmake --build "$BUILD" -j "$JOBS"
rm -f "$BUILD"/*.deb
(cd "$BUILD" && cpack -G DEB)
lintian --fail-on error "$BUILD"/*.deb
ls -1 "$BUILD"/*.deb
