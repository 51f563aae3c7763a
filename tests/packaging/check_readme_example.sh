#!/usr/bin/env bash
# Compiles the C host shown in the README against the build tree, as C99
# with warnings as errors, and runs it as printed from a directory with no
# PKCS#11 module at all, on a certificate made here: it must list it.
set -euo pipefail
readme=$1 include=$2 libdir=$3 work=$4
rm -rf "$work"
mkdir -p "$work/run" "$work/base/certs" "$work/base/keys"
awk '/^```c$/ {inside=1; next} /^```$/ {if (inside) exit} inside {print}' "$readme" > "$work/example.c"
[ -s "$work/example.c" ] || { echo "no C example in $readme"; exit 1; }
${CC:-cc} -std=c99 -Wall -Wextra -Werror -I"$include" "$work/example.c" -o "$work/example" \
  -L"$libdir" -lx509auth
# A self-signed client certificate is its own CA: it is offered once trusted
# through the system's default CA file, which points here for this run.
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj "/CN=Readme Host" \
  -addext "keyUsage=critical,digitalSignature,keyCertSign" -addext "extendedKeyUsage=clientAuth" \
  -keyout "$work/base/keys/host.pem.key" -out "$work/base/certs/host.pem" 2> "$work/req.log"
cd "$work/run"
out=$(SSL_CERT_FILE="$work/base/certs/host.pem" LD_LIBRARY_PATH="$libdir" HOME="$work/run" \
      "$work/example" "$work/base" 2> "$work/stderr.txt")
[ "$out" = "Readme Host (issued by Readme Host)" ] ||
  { echo "the README's host printed '$out'"; cat "$work/stderr.txt"; exit 1; }
[ ! -s "$work/stderr.txt" ] || { echo "the README's host logged errors:"; cat "$work/stderr.txt"; exit 1; }
echo "README example compiled, ran from a directory without a module and listed: $out"
