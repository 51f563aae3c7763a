#!/usr/bin/env bash
# Fails unless the shared library's SONAME is libx509auth.so.3 and its
# dynamic symbol table defines exactly the API's functions (plus the version
# node the linker script names).
set -euo pipefail
lib=$1 expected=$2

soname=$(readelf -d "$lib" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
if [ "$soname" != "libx509auth.so.3" ]; then
  echo "SONAME is '$soname', expected libx509auth.so.3"; exit 1
fi

actual=$(nm -D --defined-only "$lib" | awk '{print $3}' | sed 's/@.*//' | grep -vx 'X509_AUTH_3' | sort -u)
wanted=$(sort -u "$expected")
extra=$(comm -23 <(echo "$actual") <(echo "$wanted"))
if [ -n "$extra" ]; then
  echo "exported but not part of the API:"; echo "$extra"; exit 1
fi
missing=$(comm -13 <(echo "$actual") <(echo "$wanted"))
if [ -n "$missing" ]; then
  echo "API functions not exported:"; echo "$missing"; exit 1
fi
# Every function is bound to the API's version node.
unversioned=$(nm -D --defined-only "$lib" | awk '$2 == "T" && $3 !~ /@@X509_AUTH_3$/ {print $3}')
if [ -n "$unversioned" ]; then
  echo "functions without the X509_AUTH_3 version: $unversioned"; exit 1
fi
echo "exports: $(echo "$actual" | wc -l) functions, SONAME $soname"
