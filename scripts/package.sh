#!/usr/bin/env bash
# Builds the Debian packages with CPack: libx509auth3, libx509auth-dev,
# x509auth-tools, x509auth-openssl-provider and x509auth-pkcs11 (see
# cmake/Packaging.cmake),
# installed under /usr, with Debian's hardening flags, checked by lintian.
#   bash scripts/package.sh [OUTPUT_DIR]      (default: build-deb/packages)
# X509AUTH_DEB_BUILD names the build directory (default: build-deb).
set -euo pipefail
cd "$(dirname "$0")/.."
source_dir=$PWD
build=${X509AUTH_DEB_BUILD:-$source_dir/build-deb}
out=${1:-$build/packages}
mkdir -p "$(dirname "$build")"
bash scripts/install-deps.sh

# Debian's build flags; CMake reads CFLAGS, CXXFLAGS and LDFLAGS only, so the
# preprocessor's (_FORTIFY_SOURCE) go with the compilers' own.
eval "$(DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --export=sh)"
export CFLAGS="$CPPFLAGS $CFLAGS" CXXFLAGS="$CPPFLAGS $CXXFLAGS"
# Installed under /usr, the programs find the library where the system
# looks: no run path (Debian's policy forbids one).
cmake -S "$source_dir" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
  -DX509AUTH_BUILD_TESTS=OFF -DX509AUTH_BUILD_BENCH=OFF -DX509AUTH_BUILD_TOOLS=ON \
  -DX509AUTH_DEBIAN_DOCS=ON -DCMAKE_SKIP_INSTALL_RPATH=ON > "$build.configure.log"
cmake --build "$build" -j"$(nproc)"
rm -rf "$out"
mkdir -p "$out"
(cd "$build" && cpack -G DEB -B "$out/cpack" > "$out/cpack.log")
mv "$out"/cpack/*.deb "$out"/
rm -rf "$out/cpack"

# No lintian error is allowed; warnings are shown.
lintian --fail-on error --suppress-tags-from-file /dev/null "$out"/*.deb | tee "$out/lintian.txt"
echo "package.sh: $(cd "$out" && ls ./*.deb | tr '\n' ' ')in $out"
