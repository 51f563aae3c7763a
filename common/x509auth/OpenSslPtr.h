#pragma once
// Owning aliases for every OpenSSL and libp11-made OpenSSL handle the
// project creates: the library, the provider, the tool, the PKCS#11 module
// and the tests. A
// handle goes into one of these the moment it is made, so no *_free call
// appears anywhere else. Header-only, so that the provider and the tool use
// it without linking the library's internals (they still reach the library
// only through x509_auth.h).
#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/params.h>
#include <openssl/provider.h>
#include <openssl/store.h>
#include <openssl/ui.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <memory>

namespace x509auth_openssl {

template <typename T, void (*Free)(T*)>
struct OpenSslDeleter {
  void operator()(T* p) const { Free(p); }
};

using X509Ptr = std::unique_ptr<X509, OpenSslDeleter<X509, X509_free>>;
using X509CrlPtr = std::unique_ptr<X509_CRL, OpenSslDeleter<X509_CRL, X509_CRL_free>>;
using X509StorePtr = std::unique_ptr<X509_STORE, OpenSslDeleter<X509_STORE, X509_STORE_free>>;
using X509StoreCtxPtr =
    std::unique_ptr<X509_STORE_CTX, OpenSslDeleter<X509_STORE_CTX, X509_STORE_CTX_free>>;
using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, OpenSslDeleter<EVP_PKEY, EVP_PKEY_free>>;
using EvpPkeyCtxPtr =
    std::unique_ptr<EVP_PKEY_CTX, OpenSslDeleter<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>;
using EvpMdPtr = std::unique_ptr<EVP_MD, OpenSslDeleter<EVP_MD, EVP_MD_free>>;
using EvpMdCtxPtr = std::unique_ptr<EVP_MD_CTX, OpenSslDeleter<EVP_MD_CTX, EVP_MD_CTX_free>>;
using LibCtxPtr = std::unique_ptr<OSSL_LIB_CTX, OpenSslDeleter<OSSL_LIB_CTX, OSSL_LIB_CTX_free>>;
using EvpKeymgmtPtr = std::unique_ptr<EVP_KEYMGMT, OpenSslDeleter<EVP_KEYMGMT, EVP_KEYMGMT_free>>;
// Every BIO made here is a single one, for which BIO_free_all is BIO_free
// with the void result a deleter needs.
using BioPtr = std::unique_ptr<BIO, OpenSslDeleter<BIO, BIO_free_all>>;
using UiPtr = std::unique_ptr<UI, OpenSslDeleter<UI, UI_free>>;
using UiMethodPtr = std::unique_ptr<UI_METHOD, OpenSslDeleter<UI_METHOD, UI_destroy_method>>;
using X509SigPtr = std::unique_ptr<X509_SIG, OpenSslDeleter<X509_SIG, X509_SIG_free>>;
using EcdsaSigPtr = std::unique_ptr<ECDSA_SIG, OpenSslDeleter<ECDSA_SIG, ECDSA_SIG_free>>;
using Asn1StringPtr = std::unique_ptr<ASN1_STRING, OpenSslDeleter<ASN1_STRING, ASN1_STRING_free>>;
using Asn1OctetStringPtr =
    std::unique_ptr<ASN1_OCTET_STRING, OpenSslDeleter<ASN1_OCTET_STRING, ASN1_OCTET_STRING_free>>;
using X509NamePtr = std::unique_ptr<X509_NAME, OpenSslDeleter<X509_NAME, X509_NAME_free>>;
using ParamBldPtr =
    std::unique_ptr<OSSL_PARAM_BLD, OpenSslDeleter<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>>;
using BignumPtr = std::unique_ptr<BIGNUM, OpenSslDeleter<BIGNUM, BN_free>>;
using Asn1ObjectPtr = std::unique_ptr<ASN1_OBJECT, OpenSslDeleter<ASN1_OBJECT, ASN1_OBJECT_free>>;
using OsslParamPtr = std::unique_ptr<OSSL_PARAM, OpenSslDeleter<OSSL_PARAM, OSSL_PARAM_free>>;
using OsslStoreInfoPtr =
    std::unique_ptr<OSSL_STORE_INFO, OpenSslDeleter<OSSL_STORE_INFO, OSSL_STORE_INFO_free>>;
// Closing and unloading report a status nobody can act on at release time.
inline void OsslStoreClose(OSSL_STORE_CTX* store) { OSSL_STORE_close(store); }
using OsslStoreCtxPtr =
    std::unique_ptr<OSSL_STORE_CTX, OpenSslDeleter<OSSL_STORE_CTX, OsslStoreClose>>;
inline void OsslProviderUnload(OSSL_PROVIDER* provider) { OSSL_PROVIDER_unload(provider); }
using OsslProviderPtr =
    std::unique_ptr<OSSL_PROVIDER, OpenSslDeleter<OSSL_PROVIDER, OsslProviderUnload>>;
// Bytes OpenSSL allocated for the caller (i2d_* output, ASN1_STRING_to_UTF8):
// OPENSSL_free is a macro, so it gets a function of its own.
inline void OpenSslFreeBytes(unsigned char* p) { OPENSSL_free(p); }
using OpenSslBytesPtr =
    std::unique_ptr<unsigned char, OpenSslDeleter<unsigned char, OpenSslFreeBytes>>;

}  // namespace x509auth_openssl
