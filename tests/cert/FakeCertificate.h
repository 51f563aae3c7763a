#pragma once
// A certificate double for key tests: it hands out a context built by the
// test and a name, and nothing else of a real certificate.
#include <openssl/x509.h>

#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <variant>

#include "cert/ICertificate.h"

namespace x509auth_test {

class FakeCertificate : public quorvant::shared::x509::ICertificate {
 public:
  FakeCertificate(quorvant::shared::x509::CertContext context, std::string name)
      : context_(std::move(context)), name_(std::move(name)) {}

  // A certificate of the certificates directory with its key file.
  static FakeCertificate File(X509* cert, const std::filesystem::path& cert_path,
                              const std::filesystem::path& key_path,
                              std::string name = "File Cert") {
    auto context = std::make_unique<quorvant::shared::x509::CertFileContext>();
    context->x509.reset(X509_dup(cert));
    context->cert_path = cert_path;
    context->key_path = key_path;
    return FakeCertificate(
        quorvant::shared::x509::CertContext(std::in_place_index<0>, std::move(context)),
        std::move(name));
  }

  // A certificate the host added as bytes.
  static FakeCertificate Encoded(X509* cert, std::string name = "Encoded Cert") {
    auto context = std::make_unique<quorvant::shared::x509::EncodedCertContext>();
    context->x509.reset(X509_dup(cert));
    return FakeCertificate(
        quorvant::shared::x509::CertContext(std::in_place_index<1>, std::move(context)),
        std::move(name));
  }

  FakeCertificate(FakeCertificate&& other) noexcept
      : context_(std::move(other.context_)), name_(std::move(other.name_)) {}

  std::string PublicKeyAlgorithm() const override { return std::string(); }
  quorvant::shared::x509::Algorithm PublicKeyAlgorithmGroup() const override {
    return quorvant::shared::x509::Algorithm::k_unknown;
  }
  bool IntendedKeyUsage(std::uint32_t& usage) const override {
    usage = 0;
    return true;
  }
  std::uint32_t EnhancedKeyUsage() const override { return 0xFFFFFFFF; }
  std::string Name() const override { return name_; }
  std::string IssuerName() const override { return std::string(); }
  std::time_t NotBefore() const override { return 0; }
  std::time_t NotAfter() const override { return 0; }
  bool SupportsSmartCard() const override { return false; }
  std::vector<unsigned char> Encode() const override { return {}; }
  bool Thumbprint(quorvant::shared::x509::Thumbprint& /*thumbprint*/) const override {
    return false;
  }
  bool CaChain(std::vector<quorvant::shared::x509::Thumbprint>& /*chain*/,
               const quorvant::shared::x509::ICertificateStore* /*extra_store*/) const override {
    return false;
  }
  bool ShowDialog(void* /*parent*/) const override { return false; }
  const quorvant::shared::x509::CertContext& GetContext() const override { return context_; }

 private:
  quorvant::shared::x509::CertContext context_;
  std::string name_;
};

}  // namespace x509auth_test
