#!/usr/bin/env bash
# The installed package as a user gets it: installs the build into a
# temporary prefix, builds the README's host example against it with
# find_package(camctl) and with pkg-config, and runs the pkg-config build
# against the installed camctl's camera simulator.
#   consumer_test.sh BUILD_DIR SOURCE_DIR [deb]
# With "deb" the prefix is a scratch root holding the Debian packages
# (cpack -G DEB) unpacked with dpkg -x; their control fields are checked and,
# where lintian is installed, lintian must report no error. Exit 77 (skipped)
# without the dpkg tools.
set -euo pipefail
build=$1
src=$2
mode=${3:-install}
work=$(mktemp -d /tmp/camctl-package-XXXXXX)
serve_pid=""
cleanup() {
  if [ -n "$serve_pid" ]; then kill "$serve_pid" 2>/dev/null || true; wait "$serve_pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "consumer_test: $*" >&2; exit 1; }

if [ "$mode" = deb ]; then
  for tool in dpkg-deb dpkg-shlibdeps file cpack; do
    command -v $tool >/dev/null || { echo "consumer_test: $tool missing, skipped"; exit 77; }
  done
  (cd "$build" && cpack -G DEB -B "$work/debs") >"$work/cpack.log" 2>&1 || { cat "$work/cpack.log"; fail "cpack failed"; }
  for package in libcamctl0 libcamctl-dev camctl; do
    deb=$(ls "$work"/debs/${package}_*.deb) || fail "no $package package"
    dpkg -x "$deb" "$work/root"
    depends=$(dpkg-deb -f "$deb" Depends)
    case $package in
      libcamctl0) want="libavformat" ;;  # computed from the library's own links
      *) want="libcamctl0 (= " ;;
    esac
    case "$depends" in *"$want"*) ;; *) fail "$package depends on '$depends', not on $want..." ;; esac
  done
  if command -v lintian >/dev/null; then
    lintian --fail-on error "$work"/debs/*.deb >"$work/lintian.log" 2>&1 || { cat "$work/lintian.log"; fail "lintian reports errors"; }
  fi
  prefix="$work/root/usr"
  lib=$(find "$prefix/lib" -name 'libcamctl.so.0.*' | head -n1)
  soname=$(objdump -p "$lib" | sed -n 's/^ *SONAME *//p')
  [ "$soname" = libcamctl.so.0 ] || fail "SONAME is '$soname'"
  for f in share/man/man1/camctl.1.gz share/bash-completion/completions/camctl bin/camsim; do
    [ -e "$prefix/$f" ] || fail "the camctl package lacks /usr/$f"
  done
else
  prefix="$work/prefix"
  cmake --install "$build" --prefix "$prefix" >/dev/null
fi
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
echo "consumer_test ($mode): find_package and pkg-config builds work; the example saw $out"
