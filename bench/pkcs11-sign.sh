#!/usr/bin/env bash
# pkcs11-tool --sign through the x509auth module against the same key
# imported into a SoftHSM2 token, with hyperfine: one RSA-2048 and one P-256
# key, SHA-256 (RSA PKCS#1 v1.5 hashing in the module; ECDSA over the
# digest), each command a whole pkcs11-tool process (load the module,
# find the key, sign, unload). Writes bench-out/pkcs11-sign.md.
#   bash bench/pkcs11-sign.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
build=${1:-$root/build}
module="$build/pkcs11/x509auth-pkcs11.so"
softhsm=/usr/lib/softhsm/libsofthsm2.so
[ -f "$module" ] || { echo "build the module first: cmake --build build --target x509auth_pkcs11" >&2; exit 1; }

work=$(mktemp -d /tmp/x509auth-pkcs11-bench-XXXXXX)
trap 'rm -rf "$work"' EXIT
cd "$work"
mkdir -p base/certs base/keys tokens
q() { "$@" > /dev/null 2>&1 || { echo "failed: $*" >&2; exit 1; }; }
q openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -days 3 -subj "/CN=Bench CA" \
  -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign"
for who in rsa:rsa_keygen_bits:2048:RSA ec:ec_paramgen_curve:P-256:EC; do
  IFS=: read -r name opt value algorithm <<< "$who"
  q openssl genpkey -algorithm "$algorithm" -pkeyopt "$opt:$value" -out "$name.key"
  q openssl req -new -key "$name.key" -out "$name.csr" -subj "/CN=Bench $name"
  printf 'keyUsage=critical,digitalSignature\nextendedKeyUsage=clientAuth\n' > ext
  q openssl x509 -req -in "$name.csr" -CA ca.pem -CAkey ca.key -CAcreateserial -days 3 -extfile ext -out "base/certs/$name.pem"
  cp "$name.key" "base/keys/$name.pem.key"
done
printf 'directories.tokendir = %s\nobjectstore.backend = file\nlog.level = ERROR\n' "$work/tokens" > softhsm2.conf
export SOFTHSM2_CONF="$work/softhsm2.conf"
q softhsm2-util --init-token --free --label bench --pin 1234 --so-pin 5678
for who in rsa:01 ec:02; do
  name=${who%%:*} id=${who##*:}
  q openssl pkcs8 -topk8 -nocrypt -in "$name.key" -outform DER -out "$name.key.der"
  q pkcs11-tool --module "$softhsm" --token-label bench --login --pin 1234 --write-object "$name.key.der" --type privkey --id "$id" --label "$name"
done
head -c 1000 /dev/urandom > data
# SoftHSM2 2.6 has no CKM_ECDSA_SHA256: both sign the digest with CKM_ECDSA.
openssl dgst -sha256 -binary data > digest
export X509AUTH_DIRS="$work/base" X509AUTH_HOME_DIRS= X509AUTH_CA_FILES="$work/ca.pem" X509AUTH_MODULE= X509AUTH_LOG=none
thumb() { openssl x509 -in "base/certs/$1.pem" -outform DER | openssl sha1 -binary | xxd -p; }
mkdir -p "$root/bench-out"
hyperfine --warmup 3 --runs 30 -N --export-markdown "$root/bench-out/pkcs11-sign.md" \
  -n "x509auth RSA-2048" "pkcs11-tool --module $module --sign -m SHA256-RSA-PKCS --id $(thumb rsa) -i data -o /dev/null" \
  -n "SoftHSM2 RSA-2048" "pkcs11-tool --module $softhsm --token-label bench --login --pin 1234 --sign -m SHA256-RSA-PKCS --id 01 -i data -o /dev/null" \
  -n "x509auth P-256" "pkcs11-tool --module $module --sign -m ECDSA --id $(thumb ec) -i digest -o /dev/null" \
  -n "SoftHSM2 P-256" "pkcs11-tool --module $softhsm --token-label bench --login --pin 1234 --sign -m ECDSA --id 02 -i digest -o /dev/null"
