#!/usr/bin/env bash
# The main job: builds the library and its command-line tool, makes a demo
# on the spot (a CA, file certificates with plain, encrypted and DER keys, and
# a SoftHSM2 token holding an RSA and an EC certificate with their keys, and a
# planted server-only certificate that is not offered), then runs the
# x509-auth commands a user would run: list, doctor, chain, and sign with
# every offered certificate; a TLS handshake with each; and one gnutls-cli
# handshake with a certificate and key named by pkcs11: URIs of the PKCS#11
# module.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

bash scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build build -j"$(nproc)" --target x509-auth x509auth_pkcs11

demo=$(mktemp -d /tmp/x509auth-demo-XXXXXX)
trap 'rm -rf "$demo"' EXIT
echo "== Demo material in $demo"
mkdir -p "$demo/base/certs" "$demo/base/keys" "$demo/pki" "$demo/tokens"
cd "$demo/pki"

quiet() { "$@" > /dev/null 2>&1 || { echo "failed: $*"; exit 1; }; }

# A root CA; the tool adds it as an extra trusted CA.
quiet openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -days 3650 \
  -subj "/O=x509auth demo/CN=Demo Root CA" \
  -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign,cRLSign"

issue() {  # issue NAME KEYFILE SUBJECT_CN
  quiet openssl req -new -key "$2" -out "$1.csr" -subj "/O=x509auth demo/CN=$3"
  printf 'keyUsage=critical,digitalSignature,keyEncipherment\nextendedKeyUsage=clientAuth\n' > "$1.ext"
  quiet openssl x509 -req -in "$1.csr" -CA ca.pem -CAkey ca.key -CAcreateserial \
    -out "$1.pem" -days 825 -extfile "$1.ext"
}

quiet openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out alice.key
issue alice alice.key "Alice (file, RSA, password-protected key)"
cp alice.pem "$demo/base/certs/alice.pem"
quiet openssl pkcs8 -topk8 -in alice.key -v2 aes-256-cbc -passout pass:demo-password \
  -out "$demo/base/keys/alice.pem.key"

quiet openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out bob.key
issue bob bob.key "Bob (file, EC, DER)"
quiet openssl x509 -in bob.pem -outform DER -out "$demo/base/certs/bob.der"
quiet openssl pkcs8 -topk8 -nocrypt -in bob.key -outform DER -out "$demo/base/keys/bob.der.key"

# Planted: a certificate for TLS servers only, which the library does not
# offer to a client; doctor says why.
quiet openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out eve.key
quiet openssl req -new -key eve.key -out eve.csr -subj "/O=x509auth demo/CN=Eve (server only)"
printf 'keyUsage=critical,keyEncipherment\nextendedKeyUsage=serverAuth\n' > eve.ext
quiet openssl x509 -req -in eve.csr -CA ca.pem -CAkey ca.key -CAcreateserial \
  -out "$demo/base/certs/eve.pem" -days 825 -extfile eve.ext
cp eve.key "$demo/base/keys/eve.pem.key"

quiet openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out carol.key
issue carol carol.key "Carol (smart card, RSA)"
quiet openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out dave.key
issue dave dave.key "Dave (smart card, EC)"

# A fresh SoftHSM2 token; the tool is pointed at its module with --module.
module=/usr/lib/softhsm/libsofthsm2.so
printf 'directories.tokendir = %s\nobjectstore.backend = file\nlog.level = ERROR\n' \
  "$demo/tokens" > "$demo/softhsm2.conf"
export SOFTHSM2_CONF="$demo/softhsm2.conf"
quiet softhsm2-util --init-token --free --label "Demo Token" --pin 1234 --so-pin 12345678
put() {  # put FILE TYPE ID LABEL
  quiet pkcs11-tool --module "$module" --token-label "Demo Token" --login --pin 1234 \
    --write-object "$1" --type "$2" --id "$3" --label "$4"
}
for who in carol:01 dave:02; do
  name=${who%%:*} id=${who##*:}
  quiet openssl x509 -in "$name.pem" -outform DER -out "$name.der"
  quiet openssl pkcs8 -topk8 -nocrypt -in "$name.key" -outform DER -out "$name.key.der"
  put "$name.der" cert "$id" "$name"
  put "$name.key.der" privkey "$id" "$name"
done

# Every command below is what a user would type; the PIN and the password
# come from the environment instead of a prompt.
export DEMO_PIN=1234 DEMO_PASSWORD=demo-password
x509_auth() {
  echo
  echo "\$ x509-auth $*"
  "$root/build/tools/x509-auth" --dir "$demo/base" --add-ca "$demo/pki/ca.pem" \
    --module "$module" --pin-env DEMO_PIN --password-env DEMO_PASSWORD "$@"
}
cd "$demo"
echo "== Running x509-auth"
echo "   (every command below also gets: --dir $demo/base --add-ca $demo/pki/ca.pem"
echo "    --module $module --pin-env DEMO_PIN --password-env DEMO_PASSWORD)"
echo "   (the library's own log lines are shown only under a failure, or all with -v)"
x509_auth list
x509_auth doctor
thumbprints=$("$root/build/tools/x509-auth" -q --dir "$demo/base" --add-ca "$demo/pki/ca.pem" \
  --module "$module" list --json | sed -n 's/^ *"thumbprint": "\([0-9a-f]*\)",*$/\1/p')
first=$(echo "$thumbprints" | head -n1)
x509_auth chain "${first:0:8}"
signed=0 total=0
for thumbprint in $thumbprints; do
  total=$((total + 1))
  if echo "x509auth demo message" | x509_auth sign "${thumbprint:0:8}" --out "$demo/sig.bin"; then
    signed=$((signed + 1))
  fi
done
echo
echo "== Summary: $total certificates offered, $signed of them signed and verified"
[ "$signed" -eq "$total" ]

# A TLS handshake per certificate against a local openssl s_server that
# requires a client certificate from the demo CA and verifies it; the server
# answers the line the tool sends, reversed.
echo
echo "== TLS client authentication with each certificate (x509-auth tls)"
quiet openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 \
  -subj "/CN=localhost" -keyout "$demo/server.key" -out "$demo/server.pem"
handshakes=0
for thumbprint in $thumbprints; do
  port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
  timeout 60 openssl s_server -accept "127.0.0.1:$port" -cert "$demo/server.pem" -key "$demo/server.key" \
    -Verify 1 -verify_return_error -CAfile "$demo/pki/ca.pem" -naccept 1 -rev > "$demo/server.log" 2>&1 &
  server=$!
  for _ in $(seq 50); do grep -q ACCEPT "$demo/server.log" 2>/dev/null && break; sleep 0.1; done
  if x509_auth tls "127.0.0.1:$port" --cert "$thumbprint" --CAfile "$demo/server.pem" \
       --send "hello from x509-auth"; then
    handshakes=$((handshakes + 1))
    echo "   the server verified: $(grep -m1 '^depth=0' "$demo/server.log")"
  fi
  kill "$server" 2>/dev/null || true
  wait "$server" 2>/dev/null || true
done
echo
echo "== Summary: $handshakes of $total certificates authenticated a TLS handshake"
[ "$handshakes" -eq "$total" ]

# The same certificates for PKCS#11 programs: gnutls-cli names Alice's
# certificate and key (password-protected: the PIN given to the token is the
# key file's password) by pkcs11: URIs of the x509auth module.
echo
echo "== TLS client authentication through the PKCS#11 module (gnutls-cli)"
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
timeout 60 openssl s_server -accept "127.0.0.1:$port" -cert "$demo/server.pem" -key "$demo/server.key" \
  -Verify 1 -verify_return_error -CAfile "$demo/pki/ca.pem" -naccept 1 -www > "$demo/server.log" 2>&1 &
server=$!
for _ in $(seq 50); do grep -q ACCEPT "$demo/server.log" 2>/dev/null && break; sleep 0.1; done
# The label is the certificate's common name, spaces percent-encoded as URIs want.
uri="pkcs11:token=x509auth;object=Alice%20(file,%20RSA,%20password-protected%20key)"
echo "\$ GNUTLS_PIN=demo-password gnutls-cli --provider build/pkcs11/x509auth-pkcs11.so \\"
echo "    --x509certfile '$uri;type=cert' --x509keyfile '$uri;type=private' ..."
pkcs11_ok=0
if printf 'GET / HTTP/1.0\r\n\r\n' | X509AUTH_DIRS="$demo/base" X509AUTH_HOME_DIRS= \
     X509AUTH_CA_FILES="$demo/pki/ca.pem" X509AUTH_LOG=error GNUTLS_PIN=demo-password \
     timeout 60 gnutls-cli --provider "$root/build/pkcs11/x509auth-pkcs11.so" \
     --x509certfile "$uri;type=cert" --x509keyfile "$uri;type=private" \
     --x509cafile "$demo/server.pem" --verify-hostname localhost --port "$port" 127.0.0.1 \
     > "$demo/gnutls.log" 2>&1 && grep -q "HTTP/1.0 200 ok" "$demo/gnutls.log"; then
  pkcs11_ok=1
  grep -m1 "^- Description:" "$demo/gnutls.log" | sed 's/^/   /'
  echo "   the server verified: $(grep -m1 '^depth=0' "$demo/server.log")"
else
  tail -20 "$demo/gnutls.log"
fi
kill "$server" 2>/dev/null || true
wait "$server" 2>/dev/null || true
echo "== Summary: gnutls-cli through the PKCS#11 module: $([ "$pkcs11_ok" -eq 1 ] && echo handshake completed || echo FAILED)"
[ "$pkcs11_ok" -eq 1 ]
