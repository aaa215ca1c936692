#!/usr/bin/env bash
# Non-blank lines of the tests against the code they test.
#   tests: tests/ (.cpp .h .py .sh and CMake files; fuzz corpora are data)
#   code:  src/ include/ tools/ (.cpp .h, and .py under src/)
# Prints the three figures and the ratio; the project keeps it at 0.25-0.35.
set -euo pipefail
cd "$(dirname "$0")/.."
count() { if [ $# -eq 0 ]; then echo 0; else cat "$@" | grep -cv '^[[:space:]]*$' || true; fi; }
mapfile -t tests < <(find tests -path tests/fuzz/corpus -prune -o -type f \
  \( -name '*.cpp' -o -name '*.h' -o -name '*.py' -o -name '*.sh' -o -name 'CMakeLists.txt' -o -name '*.cmake' \) -print | sort)
mapfile -t code < <(find src include tools -type f \( -name '*.cpp' -o -name '*.h' -o -path 'src/*.py' \) | sort)
t=$(count "${tests[@]}")
c=$(count "${code[@]}")
echo "test-ratio: tests ${t} lines, code ${c} lines, ratio $(awk -v t="$t" -v c="$c" 'BEGIN { printf "%.2f", (c ? t / c : 0) }') (target 0.25-0.35)"
