#pragma once
#include <openssl/x509_vfy.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/Thumbprint.h"

namespace quorvant::shared::x509 {

class ICertificate;

// A set of certificates gathered into one OpenSSL X509_STORE. Declared here,
// not in store/, because a certificate reaches its store's X509_STORE through
// it; store/ implements it (CertStore), so the layers stay one-way.
class ICertificateStore {
 public:
  // Any value other than k_users_cert_store opens an empty store for the
  // library's own use (the CA certificates the host adds).
  enum CertStoreType : std::uint32_t { k_users_cert_store = 0 };

  ICertificateStore() = default;
  virtual ~ICertificateStore() = default;
  ICertificateStore(const ICertificateStore&) = delete;
  ICertificateStore& operator=(const ICertificateStore&) = delete;

  // 0 on success; 0xFFFFFFFF when already open or when default CA paths
  // cannot be set; otherwise the failing source's status.
  virtual std::uint32_t Open(CertStoreType type) = 0;
  virtual bool IsOpen() const = 0;
  // 0 when the DER bytes were parsed and added to the X509_STORE, else 1.
  virtual std::uint32_t AddEncodedCertificate(const unsigned char* bytes, std::size_t size) = 0;
  // 0 and a fresh certificate in |*out| when found; 1 (|*out| untouched)
  // when not.
  virtual std::uint32_t FindThumbprint(Thumbprint thumbprint,
                                       std::unique_ptr<ICertificate>* out) const = 0;
  // A fresh certificate object for every certificate: files, then tokens,
  // then added certificates.
  virtual std::vector<std::unique_ptr<ICertificate>> Certificates() const = 0;
  // The store's X509_STORE, still owned by the store; null before Open.
  virtual X509_STORE* X509Store() const = 0;

 protected:
  ICertificateStore(ICertificateStore&&) = default;
  ICertificateStore& operator=(ICertificateStore&&) = default;
};

}  // namespace quorvant::shared::x509
