#!/usr/bin/env bash
# Compiles the C client of the README's "TLS with OpenSSL programs" section
# and runs it with the provider module from the build tree on a certificate
# made here, checking that it gets the certificate and key from the store;
# then loads the section's openssl.cnf as printed (only the install prefix
# and /etc/myapp pointed at this build and this run) into a stock openssl
# with no x509auth variable set, from a directory holding no module.
set -euo pipefail
readme=$1 moduledir=$2 libdir=$3 module=$4 work=$5
rm -rf "$work"
mkdir -p "$work/run" "$work/base/certs" "$work/base/keys"
awk '/^## TLS with OpenSSL programs/ {section=1} section && /^```c$/ {inside=1; next}
     inside && /^```$/ {exit} inside {print}' "$readme" > "$work/client.c"
[ -s "$work/client.c" ] || { echo "no C example in the README's TLS section"; exit 1; }
${CC:-cc} -std=c99 -Wall -Wextra -Werror "$work/client.c" -o "$work/client" -lssl -lcrypto
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj "/CN=Readme Client" \
  -addext "keyUsage=critical,digitalSignature,keyCertSign" -addext "extendedKeyUsage=clientAuth" \
  -keyout "$work/base/keys/client.pem.key" -out "$work/base/certs/client.pem" 2> "$work/req.log"
thumbprint=$(openssl x509 -in "$work/base/certs/client.pem" -noout -fingerprint -sha1 | cut -d= -f2 | tr -d : | tr 'A-F' 'a-f')
cd "$work/run"
out=$(OPENSSL_MODULES="$moduledir" LD_LIBRARY_PATH="$libdir" X509AUTH_DIRS="$work/base" \
      X509AUTH_CA_FILES="$work/base/certs/client.pem" X509AUTH_LOG=none HOME="$work/run" \
      "$work/client" "x509auth:thumbprint=$thumbprint" < /dev/null)
[ "$out" = "x509auth:thumbprint=$thumbprint is ready for TLS client authentication" ] ||
  { echo "the README's TLS client printed '$out'"; exit 1; }
echo "README TLS client compiled and loaded its certificate and key through the provider"

awk '/^## TLS with OpenSSL programs/ {section=1} section && /^```ini$/ {inside=1; next}
     inside && /^```$/ {exit} inside {print}' "$readme" > "$work/printed.cnf"
grep -q '^pkcs11_module = ' "$work/printed.cnf" || { echo "the README's openssl.cnf names no pkcs11_module"; exit 1; }
mkdir -p "$work/myapp"
cp "$work/base/certs/client.pem" "$work/myapp/ca.pem"
cp -r "$work/base/certs" "$work/base/keys" "$work/myapp/"
sed -e "s|/opt/x509auth/lib/ossl-modules|$moduledir|" -e "s|/etc/myapp|$work/myapp|g" \
  "$work/printed.cnf" > "$work/openssl.cnf"
listed=$(env -u X509AUTH_DIRS -u X509AUTH_CA_FILES -u X509AUTH_MODULE -u X509AUTH_LOG \
         OPENSSL_CONF="$work/openssl.cnf" LD_LIBRARY_PATH="$libdir" HOME="$work/run" \
         openssl storeutl -noout -text x509auth: 2> "$work/storeutl.err")
echo "$listed" | grep -q "Subject: CN=Readme Client" ||
  { echo "the README's openssl.cnf listed:"; echo "$listed"; cat "$work/storeutl.err"; exit 1; }
[ ! -s "$work/storeutl.err" ] || { echo "stderr was not empty:"; cat "$work/storeutl.err"; exit 1; }
echo "README openssl.cnf loaded the provider with its settings"
