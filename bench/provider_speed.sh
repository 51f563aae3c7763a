#!/usr/bin/env bash
# Whole openssl s_client processes, as users feel them: a TLS 1.3 handshake
# authenticated through the x509auth provider against the same process given
# the key file directly (EC file key), and a SoftHSM2 token key through the
# provider against libp11's engine with the same token key. Plus where the
# time of a provider run goes: openssl alone, loading the provider, and the
# lookup of one thumbprint with and without the system CA bundle and the
# PKCS#11 module. Every command is timed by hyperfine against a local
# openssl s_server; the rounds alternate the commands, and the ratios are of
# medians within this one run. Usage: bash bench/provider_speed.sh [ROUNDS]
set -euo pipefail
cd "$(dirname "$0")/.."
rounds=${1:-3}
command -v hyperfine > /dev/null || { echo "hyperfine is missing (bash scripts/install-deps.sh)"; exit 1; }
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build build -j"$(nproc)" --target x509auth_provider > /dev/null

out=$(pwd)/bench-out/provider
rm -rf "$out"
mkdir -p "$out/base/certs" "$out/base/keys" "$out/tokens" "$out/empty"
cd "$out"
softhsm=/usr/lib/softhsm/libsofthsm2.so
provider_dir=$(cd ../../build/provider && pwd)

# Material: a CA, an EC client certificate with its key file, a server.
ext=$(mktemp)
printf 'extendedKeyUsage=clientAuth\nkeyUsage=critical,digitalSignature\n' > "$ext"
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout ca.key -out ca.pem \
  -subj "/CN=Bench CA" -days 2 2> /dev/null
client() {  # name
  openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1.key" 2> /dev/null
  openssl req -new -key "$1.key" -subj "/CN=$1" -out "$1.csr"
  openssl x509 -req -in "$1.csr" -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 -extfile "$ext" \
    -out "$1.pem" 2> /dev/null
}
client file-client
cp file-client.pem base/certs/client.pem
cp file-client.key base/keys/client.pem.key
client token-client
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout server.key \
  -out server.pem -subj "/CN=localhost" -days 2 2> /dev/null
rm -f "$ext"
thumbprint() { openssl x509 -in "$1" -noout -fingerprint -sha1 | cut -d= -f2 | tr -d : | tr A-F a-f; }
file_tp=$(thumbprint file-client.pem)
token_tp=$(thumbprint token-client.pem)

# The token: the second client's certificate and key on a fresh SoftHSM2 token.
printf 'directories.tokendir = %s/tokens\nobjectstore.backend = file\nlog.level = ERROR\n' "$out" > softhsm2.conf
export SOFTHSM2_CONF=$out/softhsm2.conf
softhsm2-util --init-token --free --label Bench --pin 1234 --so-pin 5678 > /dev/null
openssl pkcs8 -topk8 -nocrypt -in token-client.key -outform DER -out token-client.p8
openssl x509 -in token-client.pem -outform DER -out token-client.der
pkcs11-tool --module "$softhsm" --login --pin 1234 --token-label Bench --write-object token-client.p8 \
  --type privkey --id 01 --label client > /dev/null 2>&1
pkcs11-tool --module "$softhsm" --login --pin 1234 --token-label Bench --write-object token-client.der \
  --type cert --id 01 --label client > /dev/null 2>&1

port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
openssl s_server -accept "127.0.0.1:$port" -cert server.pem -key server.key -Verify 1 \
  -verify_return_error -CAfile ca.pem -quiet > server.log 2>&1 &
server=$!
trap 'kill $server 2> /dev/null || true' EXIT
sleep 0.5

client_args="-connect 127.0.0.1:$port -CAfile $out/server.pem -verify_return_error -tls1_3"
prov="-provider-path $provider_dir -provider x509auth -provider default"
settings="X509AUTH_DIRS=$out/base X509AUTH_CA_FILES=$out/ca.pem"
declare -A commands=(
  [direct-key-file]="openssl s_client $client_args -cert $out/file-client.pem -key $out/file-client.key"
  [provider-file-key]="env $settings openssl s_client $prov $client_args -cert x509auth:thumbprint=$file_tp -key x509auth:thumbprint=$file_tp"
  [provider-file-key-no-module]="env $settings X509AUTH_MODULE=none openssl s_client $prov $client_args -cert x509auth:thumbprint=$file_tp -key x509auth:thumbprint=$file_tp"
  [engine-token-key]="env PKCS11_MODULE_PATH=$softhsm openssl s_client $client_args -engine pkcs11 -keyform engine -key 'pkcs11:token=Bench;object=client;type=private?pin-value=1234' -cert $out/token-client.pem"
  [provider-token-key]="env $settings X509AUTH_MODULE=$softhsm openssl s_client $prov $client_args -pass pass:1234 -cert x509auth:thumbprint=$token_tp -key x509auth:thumbprint=$token_tp"
  [openssl-alone]="openssl version"
  [provider-loaded]="openssl list $prov -providers"
  [lookup]="env $settings openssl storeutl $prov -noout -certs x509auth:thumbprint=$file_tp"
  [lookup-no-ca-bundle]="env $settings SSL_CERT_FILE=/dev/null openssl storeutl $prov -noout -certs x509auth:thumbprint=$file_tp"
  [lookup-no-module]="env $settings X509AUTH_MODULE=none openssl storeutl $prov -noout -certs x509auth:thumbprint=$file_tp"
  [opensc-alone]="pkcs11-tool --module /usr/lib/x86_64-linux-gnu/pkcs11/opensc-pkcs11.so --list-slots || true"
  [softhsm-alone]="pkcs11-tool --module $softhsm --list-slots || true"
)
order=(direct-key-file provider-file-key provider-file-key-no-module engine-token-key
       provider-token-key openssl-alone provider-loaded lookup lookup-no-ca-bundle lookup-no-module
       opensc-alone softhsm-alone)
# Without libp11's engine (libengine-pkcs11-openssl) the token comparison is
# left out and the rest is measured.
engine_dir=$(openssl version -e | sed 's/^ENGINESDIR: "\(.*\)"$/\1/')
if [ ! -e "$engine_dir/pkcs11.so" ]; then
  echo "libp11's engine is not installed: the token rows are left out"
  order=(direct-key-file provider-file-key provider-file-key-no-module openssl-alone
         provider-loaded lookup lookup-no-ca-bundle lookup-no-module opensc-alone softhsm-alone)
fi

# Every command must work before it is timed.
cd empty
for name in "${order[@]}"; do
  if ! bash -c "${commands[$name]} < /dev/null" > "../check-$name.log" 2>&1; then
    echo "$name failed:"; cat "../check-$name.log"; exit 1
  fi
done
for round in $(seq 1 "$rounds"); do
  args=()
  for name in "${order[@]}"; do args+=(-n "$name" "${commands[$name]} < /dev/null"); done
  hyperfine --style none --warmup 2 --runs 10 --export-json "../round-$round.json" "${args[@]}" > /dev/null
done
cd ..
python3 - "$rounds" <<'PY'
import json, statistics, sys
rounds = int(sys.argv[1])
times = {}
for r in range(1, rounds + 1):
    for result in json.load(open(f"round-{r}.json"))["results"]:
        times.setdefault(result["command"], []).extend(result["times"])
median = {name: statistics.median(values) * 1000 for name, values in times.items()}
def row(label, name, base):
    print(f"| {label} | {median[name]:.1f} ms | {median[name] / median[base]:.2f}x {base} |")
print(f"Whole openssl processes, medians of {rounds} x 10 runs each (ms), TLS 1.3, EC P-256 keys:\n")
print("| what | median | ratio |\n|---|---|---|")
row("s_client with the key file", "direct-key-file", "direct-key-file")
row("s_client through the provider (file key, default module)", "provider-file-key", "direct-key-file")
row("s_client through the provider (file key, pkcs11_module none)", "provider-file-key-no-module", "direct-key-file")
if "engine-token-key" in median:
    row("s_client with libp11's engine (SoftHSM2 token key)", "engine-token-key", "engine-token-key")
    row("s_client through the provider (the same token key)", "provider-token-key", "engine-token-key")
print("\nWhere a provider run's time goes:\n")
print("| what | median |\n|---|---|")
for label, name in [("openssl version", "openssl-alone"), ("+ load the provider", "provider-loaded"),
                    ("+ find one thumbprint (storeutl)", "lookup"),
                    ("  the same, SSL_CERT_FILE=/dev/null", "lookup-no-ca-bundle"),
                    ("  the same, pkcs11_module none", "lookup-no-module"),
                    ("pkcs11-tool --list-slots, OpenSC's module (no reader)", "opensc-alone"),
                    ("pkcs11-tool --list-slots, SoftHSM2's module", "softhsm-alone")]:
    print(f"| {label} | {median[name]:.1f} ms |")
PY
