#pragma once
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "base/Algorithm.h"
#include "base/Thumbprint.h"
#include "cert/CertContext.h"

namespace quorvant::shared::x509 {

class ChainBuilder;
class ICertificateStore;

// The view of one certificate that the key store hands around. Operations
// are in their fixed slot order.
class ICertificate {
 public:
  ICertificate() = default;
  virtual ~ICertificate() = default;
  ICertificate(const ICertificate&) = delete;
  ICertificate& operator=(const ICertificate&) = delete;

  // The dotted OID of the subject public key's algorithm.
  virtual std::string PublicKeyAlgorithm() const = 0;
  virtual Algorithm PublicKeyAlgorithmGroup() const = 0;
  // Always true; |usage| gets the key-usage bits, 0 without the extension.
  virtual bool IntendedKeyUsage(std::uint32_t& usage) const = 0;
  // The extended-key-usage bits, 0xFFFFFFFF without the extension.
  virtual std::uint32_t EnhancedKeyUsage() const = 0;
  // Subject and issuer common names; empty when there is none.
  virtual std::string Name() const = 0;
  virtual std::string IssuerName() const = 0;
  // Validity, read as local time.
  virtual std::time_t NotBefore() const = 0;
  virtual std::time_t NotAfter() const = 0;
  virtual bool SupportsSmartCard() const = 0;
  // The DER encoding.
  virtual std::vector<unsigned char> Encode() const = 0;
  virtual bool Thumbprint(x509::Thumbprint& thumbprint) const = 0;
  // Appends the thumbprints of the verified chain, the certificate first.
  // |extra_store| (may be null) adds its certificates to the trusted ones.
  virtual bool CaChain(std::vector<x509::Thumbprint>& chain,
                       const ICertificateStore* extra_store) const = 0;
  // Starts the desktop's certificate viewer on this certificate.
  virtual bool ShowDialog(void* parent) const = 0;
  virtual const CertContext& GetContext() const = 0;
  // CaChain sharing |builder|'s trusted store with the other certificates of
  // one listing; an implementation without a chain of its own ignores it.
  virtual bool CaChain(std::vector<x509::Thumbprint>& chain, const ICertificateStore* extra_store,
                       ChainBuilder& /*builder*/) const {
    return CaChain(chain, extra_store);
  }
};

}  // namespace quorvant::shared::x509
