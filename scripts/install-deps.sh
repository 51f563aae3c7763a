#!/usr/bin/env bash
# Installs every build, test and benchmark dependency from Debian's packages.
# Idempotent: packages already present are left alone, and apt-get is not even
# started when nothing is missing. Must run as root (or through sudo).
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libssl-dev openssl
  libp11-dev libp11-kit-dev
  softhsm2 opensc opensc-pkcs11
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  valgrind
  python3
  gcr xvfb x11-utils xauth imagemagick
  libcli11-dev nlohmann-json3-dev tmux
  bash-completion man-db lintian dpkg-dev file
  clang-14 libclang-rt-14-dev clang-format
  gnutls-bin libnss3-tools openssh-client openssh-server hyperfine wget
  p11-kit p11-kit-modules
  openjdk-17-jdk-headless
  pcscd vsmartcard-vpcd libcacard-dev
  libengine-pkcs11-openssl
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all dependencies present"
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
