#pragma once
// Owning aliases for the OpenSSL handles the provider makes, as the library
// does in src/base/OpenSslPtr.h: a handle is owned the moment it exists.
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>

namespace x509auth_provider {

template <typename T, void (*Free)(T*)>
struct Deleter {
  void operator()(T* p) const { Free(p); }
};

using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using EvpPkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>;
using EvpMdPtr = std::unique_ptr<EVP_MD, Deleter<EVP_MD, EVP_MD_free>>;
using EvpMdCtxPtr = std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX, EVP_MD_CTX_free>>;
using X509Ptr = std::unique_ptr<X509, Deleter<X509, X509_free>>;
using LibCtxPtr = std::unique_ptr<OSSL_LIB_CTX, Deleter<OSSL_LIB_CTX, OSSL_LIB_CTX_free>>;

}  // namespace x509auth_provider
