#pragma once
// Helpers for the certificate tests: a certificate store that is nothing but
// an X509_STORE the test fills, and builders for each kind of Cert.
#include <openssl/x509_vfy.h>

#include <filesystem>
#include <memory>
#include <vector>

#include "RecordingCallbacks.h"
#include "base/OpenSslPtr.h"
#include "base/SafeCallbacksWrapper.h"
#include "cert/Cert.h"
#include "cert/ICertificateStore.h"

namespace quorvant::shared::x509::test {

// A store that only holds an X509_STORE: what a certificate asks its store
// for when it builds its chain. |open| false models a store never opened.
class X509OnlyStore : public ICertificateStore {
 public:
  explicit X509OnlyStore(bool open = true) {
    if (open) store_.reset(X509_STORE_new());
  }
  void Add(X509* cert) { X509_STORE_add_cert(store_.get(), cert); }

  std::uint32_t Open(CertStoreType) override { return 0xFFFFFFFF; }
  bool IsOpen() const override { return store_ != nullptr; }
  std::uint32_t AddEncodedCertificate(const unsigned char*, std::size_t) override { return 1; }
  std::uint32_t FindThumbprint(Thumbprint, std::unique_ptr<ICertificate>*) const override {
    return 1;
  }
  std::vector<std::unique_ptr<ICertificate>> Certificates() const override { return {}; }
  X509_STORE* X509Store() const override { return store_.get(); }

 private:
  X509StorePtr store_;
};

inline X509Ptr Dup(X509* cert) { return X509Ptr(X509_dup(cert)); }

inline std::unique_ptr<Cert> MakeFileCert(const ICertificateStore* store, X509* cert,
                                          std::filesystem::path cert_path = "certs/a.pem",
                                          std::filesystem::path key_path = "keys/a.pem.key") {
  return std::make_unique<Cert>(CertContext(std::make_unique<CertFileContext>(
      CertFileContext{store, Dup(cert), std::move(cert_path), std::move(key_path)})));
}

inline std::unique_ptr<Cert> MakeEncodedCert(const ICertificateStore* store, X509* cert) {
  return std::make_unique<Cert>(
      CertContext(std::make_unique<EncodedCertContext>(EncodedCertContext{store, Dup(cert)})));
}

// A token certificate over a PKCS11_CERT record the test owns; enough for
// everything that only reads the certificate.
inline std::unique_ptr<Cert> MakeTokenCert(const ICertificateStore* store, PKCS11_CERT* cert) {
  return std::make_unique<Cert>(CertContext(
      std::make_unique<Libp11CertContext>(Libp11CertContext{store, nullptr, cert, nullptr})));
}

// Routes the library's log into the recorder, emptied.
inline x509auth_test::RecordingCallbacks& InstallRecorder() {
  x509auth_test::RecordingCallbacks& recorder = x509auth_test::RecordingCallbacks::GetInstance();
  recorder.Reset();
  SafeCallbacksWrapper::GetInstance().Replace(recorder.Callbacks());
  return recorder;
}

}  // namespace quorvant::shared::x509::test
