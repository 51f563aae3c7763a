#pragma once
// Helpers over the OpenSSL objects the tool makes, each owned the moment it
// is made.
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

#include "x509_auth.h"
#include "x509auth/OpenSslPtr.h"

namespace x509auth_tool {

// The project's owning aliases (common/x509auth/OpenSslPtr.h).
using namespace x509auth_openssl;

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
