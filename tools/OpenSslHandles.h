#pragma once
// Owning handles for the OpenSSL objects the tool makes, owned the moment
// they are made.
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

#include "x509_auth.h"

namespace x509auth_tool {

template <typename T, void (*Free)(T*)>
struct OpenSslDeleter {
  void operator()(T* p) const { Free(p); }
};
using X509Ptr = std::unique_ptr<X509, OpenSslDeleter<X509, X509_free>>;
using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, OpenSslDeleter<EVP_PKEY, EVP_PKEY_free>>;
using EvpPkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, OpenSslDeleter<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>;

// Parses DER bytes; null when they are not a certificate.
X509Ptr ParseDer(const uint8_t* der, uint64_t length);
// The certificate of a record the library handed out.
inline X509Ptr RecordCertificate(const X509_Auth_Certificate& record) {
  return ParseDer(record.encoded, record.encoded_length);
}
// PEM text of |cert|.
std::string ToPem(X509* cert);
// The subject's common name, else the one-line subject.
std::string CommonName(X509* cert);

}  // namespace x509auth_tool
