#include "OpenSslHandles.h"

#include <openssl/bio.h>
#include <openssl/pem.h>

#include <climits>

namespace x509auth_tool {
X509Ptr ParseDer(const uint8_t* der, uint64_t length) {
  if (der == nullptr || length == 0 || length > LONG_MAX) return nullptr;
  const unsigned char* cursor = der;
  return X509Ptr(d2i_X509(nullptr, &cursor, static_cast<long>(length)));
}

std::string ToPem(X509* cert) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio || PEM_write_bio_X509(bio.get(), cert) != 1) return "";
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<std::size_t>(length));
}

std::string CommonName(X509* cert) {
  X509_NAME* name = X509_get_subject_name(cert);
  char text[512];
  if (X509_NAME_get_text_by_NID(name, NID_commonName, text, sizeof text) > 0) return text;
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio || X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_ONELINE) < 0) return "";
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<std::size_t>(length));
}

}  // namespace x509auth_tool
