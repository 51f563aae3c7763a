#!/usr/bin/env bash
# Fails unless the provider module defines exactly one dynamic symbol,
# OSSL_provider_init, and loads in openssl (check_private_library.sh checks
# that it carries its own copy of the library).
set -euo pipefail
module=$1
actual=$(nm -D --defined-only "$module" | awk '{print $3}' | sort -u)
[ "$actual" = "OSSL_provider_init" ] || { echo "the module exports: $actual"; exit 1; }
listed=$(X509AUTH_LOG=none openssl list -providers -provider-path "$(dirname "$module")" -provider x509auth)
echo "$listed" | grep -q "x509auth" || { echo "openssl did not list the provider: $listed"; exit 1; }
echo "$listed" | grep -q "status: active" || { echo "the provider is not active: $listed"; exit 1; }
echo "module exports only OSSL_provider_init and loads in openssl"
