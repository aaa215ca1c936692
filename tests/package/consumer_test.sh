#!/usr/bin/env bash
# The installed package as a user gets it: installs the build into a
# temporary prefix, builds the README's host example against it with
# find_package(camctl) and with pkg-config, and runs the pkg-config build
# against the installed camctl's camera simulator.
#   consumer_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1
src=$2
work=$(mktemp -d /tmp/camctl-package-XXXXXX)
serve_pid=""
cleanup() {
  if [ -n "$serve_pid" ]; then kill "$serve_pid" 2>/dev/null || true; wait "$serve_pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "consumer_test: $*" >&2; exit 1; }

prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
pc=$(find "$prefix" -name camctl.pc | head -n1)
[ -n "$pc" ] || fail "no camctl.pc installed"
libdir=$(dirname "$(dirname "$pc")")

# 1. CMake: find_package(camctl) from the prefix only.
cmake -S "$src/tests/package" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" \
  -DHOST_EXAMPLE="$src/tools/example/host_example.cpp" >"$work/cmake.log" 2>&1 ||
  { cat "$work/cmake.log"; fail "find_package(camctl) failed"; }
cmake --build "$work/cmake" >"$work/build.log" 2>&1 || { cat "$work/build.log"; fail "find_package build failed"; }

# 2. pkg-config: flags must point into the prefix it was installed to.
export PKG_CONFIG_PATH="$(dirname "$pc")"
cflags=$(pkg-config --cflags camctl)
libs=$(pkg-config --libs camctl)
case "$cflags" in *"$prefix"*) ;; *) fail "pkg-config --cflags ($cflags) is not inside $prefix" ;; esac
case "$libs" in *"$prefix"*) ;; *) fail "pkg-config --libs ($libs) is not inside $prefix" ;; esac
g++ -std=c++17 -Wall -Wextra -Werror "$src/tools/example/host_example.cpp" $cflags $libs -o "$work/pc_example" ||
  fail "pkg-config build failed"

# 3. Run it for 2 s against the installed camctl's simulator.
export LD_LIBRARY_PATH="$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
"$prefix/bin/camctl" serve --seconds 30 >"$work/serve.out" 2>/dev/null &
serve_pid=$!
url=""
for _ in $(seq 100); do
  url=$(sed -n 's/^serving //p' "$work/serve.out")
  [ -n "$url" ] && break
  sleep 0.1
done
[ -n "$url" ] || fail "camctl serve did not start"
mkdir "$work/run"
out=$(cd "$work/run" && timeout 30 "$work/pc_example" "$url" 2 2>/dev/null) || fail "host example failed"
pictures=${out%% pictures*}
[ "${pictures:-0}" -ge 20 ] 2>/dev/null || fail "host example saw '$out', expected at least 20 pictures"
ls "$work"/run/VMS/door+*/MS_Record/*/door+*_1_*.avi >/dev/null 2>&1 || fail "no finished recording"
ls "$work"/run/VMS/door+*/IMAGE-MANUAL/*/door_*_1_*.jpg >/dev/null 2>&1 || fail "no snapshot"
echo "consumer_test: find_package and pkg-config builds work; the example saw $out"
