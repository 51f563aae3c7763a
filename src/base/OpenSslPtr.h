#pragma once
// Owning aliases for every OpenSSL and libp11 handle the library creates. A
// handle goes into one of these the moment it is made, so no *_free call
// appears anywhere else.
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/ui.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <memory>

namespace quorvant::shared::x509 {

template <typename T, void (*Free)(T*)>
struct OpenSslDeleter {
  void operator()(T* p) const { Free(p); }
};

// BIO_free returns int; the deleter wants a void function.
inline void BioFreeAll(BIO* bio) { BIO_free(bio); }

using X509Ptr = std::unique_ptr<X509, OpenSslDeleter<X509, X509_free>>;
using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, OpenSslDeleter<EVP_PKEY, EVP_PKEY_free>>;
using EvpPkeyCtxPtr =
    std::unique_ptr<EVP_PKEY_CTX, OpenSslDeleter<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>;
using BioPtr = std::unique_ptr<BIO, OpenSslDeleter<BIO, BioFreeAll>>;
using X509StorePtr = std::unique_ptr<X509_STORE, OpenSslDeleter<X509_STORE, X509_STORE_free>>;
using X509StoreCtxPtr =
    std::unique_ptr<X509_STORE_CTX, OpenSslDeleter<X509_STORE_CTX, X509_STORE_CTX_free>>;
using UiMethodPtr = std::unique_ptr<UI_METHOD, OpenSslDeleter<UI_METHOD, UI_destroy_method>>;

}  // namespace quorvant::shared::x509
