#pragma once
#include "cert/ICertificate.h"

namespace quorvant::shared::x509 {

class ChainBuilder;

// The one certificate implementation, over one of three contexts. It must
// not outlive the store that made it (the context's store is not owned); a
// token certificate keeps the PKCS#11 context alive by itself.
class Cert : public ICertificate {
 public:
  explicit Cert(CertContext context);
  ~Cert() override = default;

  std::string PublicKeyAlgorithm() const override;
  Algorithm PublicKeyAlgorithmGroup() const override;
  bool IntendedKeyUsage(std::uint32_t& usage) const override;
  std::uint32_t EnhancedKeyUsage() const override;
  std::string Name() const override;
  std::string IssuerName() const override;
  std::time_t NotBefore() const override;
  std::time_t NotAfter() const override;
  bool SupportsSmartCard() const override;
  std::vector<unsigned char> Encode() const override;
  bool Thumbprint(x509::Thumbprint& thumbprint) const override;
  bool CaChain(std::vector<x509::Thumbprint>& chain,
               const ICertificateStore* extra_store) const override;
  bool ShowDialog(void* parent) const override;
  const CertContext& GetContext() const override;
  bool CaChain(std::vector<x509::Thumbprint>& chain, const ICertificateStore* extra_store,
               ChainBuilder& builder) const override;

  // The active context's certificate, still owned by it.
  X509* GetX509() const;
  // The X509_STORE of the store that made this certificate.
  X509_STORE* GetX509Store() const;

 private:
  CertContext context_;
};

}  // namespace quorvant::shared::x509
