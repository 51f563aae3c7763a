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
# The OpenSSL provider module: where the .pc file says, loadable by openssl,
# exporting only its entry point.
modulesdir=$(pkg-config --variable=modulesdir x509auth)
[ -f "$modulesdir/x509auth.so" ] || { echo "no provider module in '$modulesdir'"; exit 1; }
[ "$(nm -D --defined-only "$modulesdir/x509auth.so" | awk '{print $3}')" = "OSSL_provider_init" ] ||
  { echo "the installed module exports more than OSSL_provider_init"; exit 1; }
X509AUTH_LOG=none openssl list -providers -provider-path "$modulesdir" -provider x509auth \
  > "$work/providers.txt"
grep -q "status: active" "$work/providers.txt" ||
  { echo "the installed module does not load:"; cat "$work/providers.txt"; exit 1; }
# The PKCS#11 module: in lib/pkcs11, exporting only C_GetFunctionList,
# loadable from the installed tree alone, and its p11-kit file (not enabled)
# naming it there.
p11module="$libdir/pkcs11/x509auth-pkcs11.so"
[ -f "$p11module" ] || { echo "no PKCS#11 module at $p11module"; exit 1; }
[ "$(nm -D --defined-only "$p11module" | awk '$2 != "A" {print $3}')" = "C_GetFunctionList@@X509AUTH_PKCS11" ] ||
  { echo "the installed PKCS#11 module exports more than C_GetFunctionList"; exit 1; }
X509AUTH_DIRS= X509AUTH_HOME_DIRS= X509AUTH_MODULE= X509AUTH_LOG=none X509AUTH_PKCS11_CONF=/nonexistent \
  pkcs11-tool --module "$p11module" -L > "$work/pkcs11-tool.txt" 2>&1 ||
  { echo "the installed PKCS#11 module does not load:"; cat "$work/pkcs11-tool.txt"; exit 1; }
grep -q "token label        : x509auth" "$work/pkcs11-tool.txt" ||
  { echo "no x509auth token:"; cat "$work/pkcs11-tool.txt"; exit 1; }
grep -qx "module: $p11module" "$prefix/share/p11-kit/modules-available/x509auth-pkcs11.module" ||
  { echo "the p11-kit file does not name the installed module"; exit 1; }
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
