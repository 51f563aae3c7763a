#!/usr/bin/env bash
# Builds the Debian packages (scripts/package.sh, lintian included), installs
# them on this machine with apt-get, runs what they installed, then removes
# them and checks that nothing they installed is left behind. Needs root.
#   check_debian_packages.sh SOURCE_DIR WORK_DIR
set -euo pipefail
source_dir=$1 work=$2
packages=(libx509auth3 libx509auth-dev x509auth-tools x509auth-openssl-provider x509auth-pkcs11)
installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }
for p in "${packages[@]}"; do
  ! installed "$p" || { echo "$p is installed already; this test would remove it"; exit 1; }
done
rm -rf "$work"
mkdir -p "$work"
X509AUTH_DEB_BUILD="$work/build" bash "$source_dir/scripts/package.sh" "$work/packages" > "$work/package.log" 2>&1 ||
  { tail -40 "$work/package.log"; exit 1; }
debs=("$work"/packages/*.deb)
[ ${#debs[@]} -eq ${#packages[@]} ] || { echo "expected ${#packages[@]} packages: ${debs[*]}"; exit 1; }

remove() {
  DEBIAN_FRONTEND=noninteractive apt-get remove --purge -y -qq "${packages[@]}" > "$work/remove.log" 2>&1 || true
}
trap remove EXIT
DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${debs[@]}" > "$work/install.log" 2>&1 ||
  { cat "$work/install.log"; exit 1; }
for p in "${packages[@]}"; do dpkg -L "$p"; done | sort -u > "$work/files.txt"

clean() { env -i PATH=/usr/bin:/bin HOME="$work" "$@"; }
out=$(clean x509-auth --version)
[ "$out" = "x509-auth 3.0.0, libx509auth API version 3" ] || { echo "x509-auth --version: '$out'"; exit 1; }
[ "$(command -v x509-auth)" = /usr/bin/x509-auth ] || { echo "x509-auth is not /usr/bin's"; exit 1; }
out=$(clean man -w x509-auth)
[ "$out" = /usr/share/man/man1/x509-auth.1.gz ] || { echo "man -w x509-auth: '$out'"; exit 1; }
[ -f /usr/share/bash-completion/completions/x509-auth ] || { echo "no bash completion"; exit 1; }
providers=$(clean env X509AUTH_LOG=none openssl list -providers -provider x509auth)
grep -q "status: active" <<< "$providers" || { echo "openssl does not load x509auth:"; echo "$providers"; exit 1; }
module=/usr/lib/x86_64-linux-gnu/pkcs11/x509auth-pkcs11.so
[ -f "$module" ] || { echo "no PKCS#11 module at $module"; exit 1; }
grep -q "^module: $module" /usr/share/p11-kit/modules-available/x509auth-pkcs11.module 2>/dev/null ||
  { echo "the p11-kit module file does not name $module"; ls /usr/share/p11-kit/modules-available/ || true; exit 1; }
slots=$(clean pkcs11-tool --module "$module" --list-slots 2>&1)
grep -q "x509auth" <<< "$slots" || { echo "pkcs11-tool on the installed module:"; echo "$slots"; exit 1; }
[ "$(pkg-config --modversion x509auth)" = 3.0.0 ] || { echo "pkg-config does not find x509auth"; exit 1; }
depends=$(dpkg-query -W -f='${Depends}' x509auth-tools)
grep -q "libx509auth3 (= 3.0.0)" <<< "$depends" && grep -q "libc6" <<< "$depends" ||
  { echo "x509auth-tools depends on '$depends'"; exit 1; }
# The provider and the PKCS#11 module carry their own copy of the library.
for p in x509auth-openssl-provider x509auth-pkcs11; do
  depends=$(dpkg-query -W -f='${Depends}' "$p")
  ! grep -q "libx509auth3" <<< "$depends" || { echo "$p depends on '$depends'"; exit 1; }
done
grep -q "^libx509auth 3 libx509auth3" /var/lib/dpkg/info/libx509auth3*.shlibs ||
  { echo "libx509auth3 has no shlibs file"; exit 1; }

trap - EXIT
remove
for p in "${packages[@]}"; do
  ! installed "$p" || { echo "$p is still installed"; exit 1; }
  ! dpkg-query -W "$p" > /dev/null 2>&1 || [ -z "$(dpkg-query -W -f='${Status}' "$p" | grep -v 'not-installed')" ] ||
    { echo "$p left a trace in dpkg: $(dpkg-query -W -f='${Status}' "$p")"; exit 1; }
done
left=0
while read -r path; do
  [ "$path" = /. ] && continue
  if [ -f "$path" ] || [ -L "$path" ]; then echo "left behind: $path"; left=1; fi
  if [ -d "$path" ] && [[ $path == */x509auth* || $path == */libx509auth* ]]; then
    echo "left behind: $path/"; left=1
  fi
done < "$work/files.txt"
[ $left -eq 0 ] || exit 1
echo "packages build clean, install, work and remove without a trace"
