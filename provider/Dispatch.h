#pragma once
// The dispatch tables of the operation files, collected by ProviderContext.cpp
// into the provider's algorithm lists.
#include <openssl/core.h>

namespace x509auth_provider {

extern const OSSL_DISPATCH k_rsa_keymgmt_functions[];
extern const OSSL_DISPATCH k_ec_keymgmt_functions[];
extern const OSSL_DISPATCH k_rsa_signature_functions[];
extern const OSSL_DISPATCH k_ecdsa_signature_functions[];
extern const OSSL_DISPATCH k_rsa_asym_cipher_functions[];
extern const OSSL_DISPATCH k_store_functions[];

}  // namespace x509auth_provider
