#!/usr/bin/env bash
# Fails unless a loadable module (the provider, the PKCS#11 module) defines
# exactly the dynamic symbols given and carries its own copy of the library:
# it must not need libx509auth.so.3, whose process-wide state a host or
# another component may be using, nor hold a GNU unique symbol, which the
# dynamic linker makes one object for the whole process however hidden.
set -euo pipefail
module=$1
shift
expected=$(printf '%s\n' "$@" | sort -u)
# Version nodes (absolute symbols) and version suffixes are the map's, not code.
actual=$(nm -D --defined-only "$module" | awk '$2 != "A" {sub(/@.*/, "", $3); print $3}' | sort -u)
[ "$actual" = "$expected" ] || { echo "$module exports: $actual"; exit 1; }
! readelf -d "$module" | grep -q 'Shared library: \[libx509auth' ||
  { echo "$module links libx509auth instead of carrying its own copy"; exit 1; }
# Nor the C++ runtime: a C host (openssl, ssh) would load it for the module
# alone, and share its state with any other user of it in the process. The
# sanitizer build keeps it shared: its runtime replaces operator new.
if [ "${X509AUTH_SANITIZED:-0}" != 1 ]; then
  ! readelf -d "$module" | grep -q -E 'Shared library: \[lib(stdc\+\+|gcc_s)' ||
    { echo "$module needs the shared C++ runtime instead of carrying its own"; exit 1; }
fi
! readelf -Ws --dyn-syms "$module" | grep -q UNIQUE ||
  { echo "$module has process-wide unique symbols"; exit 1; }
! nm -D --defined-only "$module" | grep -q ' X509_Auth_' ||
  { echo "$module exports the library's functions"; exit 1; }
echo "$module exports only $* and carries its own library and C++ runtime"
