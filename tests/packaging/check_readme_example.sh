#!/usr/bin/env bash
# Compiles the C host shown in the README against the build tree, as C99
# with warnings as errors, and runs it where a PKCS#11 module is present.
set -euo pipefail
readme=$1 include=$2 libdir=$3 module=$4 work=$5
rm -rf "$work"
mkdir -p "$work/run"
awk '/^```c$/ {inside=1; next} /^```$/ {if (inside) exit} inside {print}' "$readme" > "$work/example.c"
[ -s "$work/example.c" ] || { echo "no C example in $readme"; exit 1; }
${CC:-cc} -std=c99 -Wall -Wextra -Werror -I"$include" "$work/example.c" -o "$work/example" \
  -L"$libdir" -lx509auth
ln -s "$module" "$work/run/opensc-pkcs11.so"
cd "$work/run"
LD_LIBRARY_PATH="$libdir" HOME="$work/run" "$work/example"
echo "README example compiled and ran"
