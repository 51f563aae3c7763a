#!/usr/bin/env bash
# Installs the build tree into a scratch prefix, then builds a small C host
# against it twice: once through pkg-config, once through the CMake package.
set -euo pipefail
build=$1 work=$2 source=$3
rm -rf "$work"
mkdir -p "$work"
prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" > "$work/install.log"

for f in include/x509_auth.h lib/pkgconfig/x509auth.pc lib/cmake/x509auth/x509authConfig.cmake \
         lib/libx509auth.so lib/libx509auth.so.3; do
  [ -e "$prefix/$f" ] || { echo "missing after install: $f"; exit 1; }
done
libdir="$prefix/lib"

export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
${CC:-cc} -std=c99 -Wall -Wextra -Werror "$source/host_main.c" -o "$work/host_pkgconfig" \
  $(pkg-config --cflags --libs x509auth)
out=$(LD_LIBRARY_PATH="$libdir" "$work/host_pkgconfig")
[ "$out" = "x509auth api 3" ] || { echo "pkg-config host printed '$out'"; exit 1; }

cmake -S "$source/consumer" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$prefix" \
  -DHOST_MAIN="$source/host_main.c" > "$work/consumer-configure.log"
cmake --build "$work/consumer" > "$work/consumer-build.log"
out=$(LD_LIBRARY_PATH="$libdir" "$work/consumer/host_cmake")
[ "$out" = "x509auth api 3" ] || { echo "CMake host printed '$out'"; exit 1; }
echo "installed tree usable through pkg-config and find_package"
