#!/usr/bin/env bash
# Installs dependencies, builds Camctl and runs `camctl demo` against the
# bundled camera simulator. No camera is needed.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCAMCTL_TESTS=OFF -DCAMCTL_BENCH=OFF >/dev/null
cmake --build build -j "$(nproc)" --target camctl_tool
exec ./build/tools/camctl demo "$@"
