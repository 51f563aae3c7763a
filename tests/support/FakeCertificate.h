#pragma once
// A certificate whose answers a test chooses, for the rules below the C
// boundary: its key's algorithm, its usages, whether its chain builds and
// whether it has a thumbprint (it counts those two requests), and the
// context a key is opened from. Header only: the shared support library
// links no internal layer.
#include <openssl/x509.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "cert/ICertificate.h"

namespace x509auth_test {

class FakeCertificate : public quorvant::shared::x509::ICertificate {
 public:
  // What a certificate with no extensions and no chain answers.
  struct Answers {
    std::string name;
    std::string algorithm_oid;  // dotted
    quorvant::shared::x509::Algorithm algorithm = quorvant::shared::x509::Algorithm::k_unknown;
    std::uint32_t intended_usage = 0;
    bool intended_usage_readable = true;
    std::uint32_t enhanced_usage = 0xFFFFFFFF;
    bool chains = false;          // when true, a chain of one entry
    bool has_thumbprint = false;  // every byte 0xAB either way
  };

  // The answers of an RSA key.
  static Answers Rsa(std::string name) {
    Answers answers;
    answers.name = std::move(name);
    answers.algorithm_oid = "1.2.840.113549.1.1.1";
    answers.algorithm = quorvant::shared::x509::Algorithm::k_rsa;
    return answers;
  }

  explicit FakeCertificate(Answers answers, quorvant::shared::x509::CertContext context = {})
      : answers_(std::move(answers)), context_(std::move(context)) {}
  FakeCertificate(FakeCertificate&& other) noexcept
      : answers_(std::move(other.answers_)), context_(std::move(other.context_)) {}

  // A certificate of the certificates directory with its key file.
  static FakeCertificate File(X509* cert, const std::filesystem::path& cert_path,
                              const std::filesystem::path& key_path,
                              std::string name = "File Cert") {
    auto context = std::make_unique<quorvant::shared::x509::CertFileContext>();
    context->x509.reset(X509_dup(cert));
    context->cert_path = cert_path;
    context->key_path = key_path;
    return FakeCertificate(Named(std::move(name)), quorvant::shared::x509::CertContext(
                                                       std::in_place_index<0>, std::move(context)));
  }

  // A certificate the host added as bytes.
  static FakeCertificate Encoded(X509* cert, std::string name = "Encoded Cert") {
    auto context = std::make_unique<quorvant::shared::x509::EncodedCertContext>();
    context->x509.reset(X509_dup(cert));
    return FakeCertificate(Named(std::move(name)), quorvant::shared::x509::CertContext(
                                                       std::in_place_index<1>, std::move(context)));
  }

  std::string PublicKeyAlgorithm() const override { return answers_.algorithm_oid; }
  quorvant::shared::x509::Algorithm PublicKeyAlgorithmGroup() const override {
    return answers_.algorithm;
  }
  bool IntendedKeyUsage(std::uint32_t& usage) const override {
    usage = answers_.intended_usage;
    return answers_.intended_usage_readable;
  }
  std::uint32_t EnhancedKeyUsage() const override { return answers_.enhanced_usage; }
  std::string Name() const override { return answers_.name; }
  std::string IssuerName() const override { return std::string(); }
  std::time_t NotBefore() const override { return 0; }
  std::time_t NotAfter() const override { return 0; }
  bool SupportsSmartCard() const override { return false; }
  std::vector<unsigned char> Encode() const override { return {}; }
  bool Thumbprint(quorvant::shared::x509::Thumbprint& thumbprint) const override {
    ++thumbprint_requests;
    thumbprint.fill(0xAB);
    return answers_.has_thumbprint;
  }
  bool CaChain(std::vector<quorvant::shared::x509::Thumbprint>& chain,
               const quorvant::shared::x509::ICertificateStore* /*extra_store*/) const override {
    ++chain_requests;
    if (answers_.chains) chain.push_back(quorvant::shared::x509::Thumbprint{});
    return answers_.chains;
  }
  bool ShowDialog(void* /*parent*/) const override { return false; }
  const quorvant::shared::x509::CertContext& GetContext() const override { return context_; }

  mutable int chain_requests = 0;
  mutable int thumbprint_requests = 0;

 private:
  static Answers Named(std::string name) {
    Answers answers;
    answers.name = std::move(name);
    return answers;
  }

  Answers answers_;
  quorvant::shared::x509::CertContext context_;
};

}  // namespace x509auth_test
