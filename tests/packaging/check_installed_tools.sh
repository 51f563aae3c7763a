#!/usr/bin/env bash
# Installs the build tree under a scratch prefix and runs the installed
# programs with a clean environment (no LD_LIBRARY_PATH, nothing from the
# build): they find libx509auth.so.3 through their run path relative to
# $ORIGIN, wherever the prefix is.
set -euo pipefail
build=$1 work=$2
rm -rf "$work"
mkdir -p "$work/home"
# An unusual prefix with a space, moved after installing: nothing may point
# at where it was installed.
cmake --install "$build" --prefix "$work/first place" > "$work/install.log"
mv "$work/first place" "$work/moved prefix"
prefix="$work/moved prefix"
tool="$prefix/bin/x509-auth"
[ -x "$tool" ] || { echo "no installed x509-auth"; exit 1; }
dynamic=$(readelf -d "$tool")
grep -q 'R.*PATH.*\$ORIGIN/' <<< "$dynamic" ||
  { echo "x509-auth has no run path relative to \$ORIGIN:"; readelf -d "$tool" | grep -i path; exit 1; }

clean() { env -i PATH=/usr/bin:/bin HOME="$work/home" "$@"; }
out=$(clean "$tool" --version)
[ "$out" = "x509-auth 3.0.0, libx509auth API version 3" ] || { echo "--version printed '$out'"; exit 1; }
# The library it found is the installed one.
loaded=$(clean bash -c 'LD_DEBUG=libs "$0" --version 2>&1' "$tool")
grep -q "calling init: $prefix/.*libx509auth.so.3" <<< "$loaded" ||
  { echo "x509-auth did not load the installed libx509auth.so.3"; exit 1; }
out=$(clean "$tool" list)
[ "$out" = "No certificate is offered. 'x509-auth doctor' tells why a certificate is not." ] ||
  { echo "list printed '$out'"; exit 1; }
# The installed provider module finds the library the same way.
modules=$(find "$prefix" -name x509auth.so -path '*ossl-modules*')
providers=$(clean env X509AUTH_LOG=none openssl list -providers -provider-path "$(dirname "$modules")" \
  -provider x509auth)
grep -q "status: active" <<< "$providers" || { echo "the installed provider does not load"; exit 1; }
echo "installed programs run from a moved prefix with a clean environment"
