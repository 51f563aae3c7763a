#pragma once
// Owning aliases for the OpenSSL objects the module makes; no *_free call
// appears anywhere else.
#include <openssl/asn1.h>
#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>

namespace x509auth_pkcs11 {

template <typename T, void (*Free)(T*)>
struct OpenSslDeleter {
  void operator()(T* p) const { Free(p); }
};
using X509Ptr = std::unique_ptr<X509, OpenSslDeleter<X509, X509_free>>;
using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, OpenSslDeleter<EVP_PKEY, EVP_PKEY_free>>;
using EvpMdCtxPtr = std::unique_ptr<EVP_MD_CTX, OpenSslDeleter<EVP_MD_CTX, EVP_MD_CTX_free>>;
using X509SigPtr = std::unique_ptr<X509_SIG, OpenSslDeleter<X509_SIG, X509_SIG_free>>;
using EcdsaSigPtr = std::unique_ptr<ECDSA_SIG, OpenSslDeleter<ECDSA_SIG, ECDSA_SIG_free>>;
using Asn1OctetStringPtr =
    std::unique_ptr<ASN1_OCTET_STRING, OpenSslDeleter<ASN1_OCTET_STRING, ASN1_OCTET_STRING_free>>;
// Bytes OpenSSL allocated for the caller (i2d_* output, ASN1_STRING_to_UTF8).
inline void OpenSslFreeBytes(unsigned char* p) { OPENSSL_free(p); }
using OpenSslBytesPtr = std::unique_ptr<unsigned char, OpenSslDeleter<unsigned char, OpenSslFreeBytes>>;

}  // namespace x509auth_pkcs11
