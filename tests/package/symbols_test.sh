#!/usr/bin/env bash
# Faults: internal symbols leaking out of libcamctl.so; a class or function the headers export missing from it.
#   symbols_test.sh LIBRARY INCLUDE_DIR
# The API is what include/camctl/ marks CAMCTL_API: its classes' members,
# vtables and type information, and its free functions.
set -euo pipefail
lib=$1
inc=$2
classes=$(sed -nE 's/^class CAMCTL_API ([A-Za-z_0-9]+).*/\1/p' "$inc"/camctl/*.h | sort -u)
functions=$(sed -nE 's/^CAMCTL_API [^(]*[ *&]([A-Za-z_0-9]+)\(.*/\1/p' "$inc"/camctl/*.h | sort -u)
[ -n "$classes" ] && [ -n "$functions" ] || { echo "symbols_test: no CAMCTL_API declarations in $inc" >&2; exit 1; }
c=$(echo $classes | tr ' ' '|')
f=$(echo $functions | tr ' ' '|')
symbols=$(nm -DC --defined-only "$lib" | cut -d' ' -f3-)
leaked=$(grep -vE "^(($c)::|(vtable|typeinfo|typeinfo name) for ($c)\$|($f)\()" <<<"$symbols" || true)
[ -z "$leaked" ] || { echo "symbols_test: exported but not API:" >&2; echo "$leaked" | head -n 40 >&2; exit 1; }
for name in $classes $functions; do
  grep -qE "^($name::|$name\(|typeinfo for $name\$)" <<<"$symbols" || { echo "symbols_test: $name is not exported" >&2; exit 1; }
done
echo "symbols_test: $(wc -l <<<"$symbols") symbols, all API; $(wc -w <<<"$classes $functions") classes and functions present"
