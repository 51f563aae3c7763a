#include <gtest/gtest.h>

#include "cert/ICertificate.h"
#include "keystore/OfferDecision.h"

namespace quorvant::shared::x509 {
namespace {

// A certificate whose usage, chain and thumbprint a test chooses, counting
// the chain and thumbprint requests.
class ScriptedCertificate : public ICertificate {
 public:
  ScriptedCertificate(bool client_auth, bool chains, bool has_thumbprint)
      : client_auth_(client_auth), chains_(chains), has_thumbprint_(has_thumbprint) {}
  std::string PublicKeyAlgorithm() const override { return "1.2.840.113549.1.1.1"; }
  Algorithm PublicKeyAlgorithmGroup() const override { return Algorithm::k_rsa; }
  bool IntendedKeyUsage(std::uint32_t& usage) const override {
    usage = 0x20;  // key encipherment only
    return true;
  }
  std::uint32_t EnhancedKeyUsage() const override { return client_auth_ ? 0x2 : 0x1; }
  std::string Name() const override { return "scripted"; }
  std::string IssuerName() const override { return "scripted"; }
  std::time_t NotBefore() const override { return 0; }
  std::time_t NotAfter() const override { return 0; }
  bool SupportsSmartCard() const override { return false; }
  std::vector<unsigned char> Encode() const override { return {}; }
  bool Thumbprint(x509::Thumbprint& thumbprint) const override {
    ++thumbprint_requests;
    thumbprint.fill(0xAB);
    return has_thumbprint_;
  }
  bool CaChain(std::vector<x509::Thumbprint>& chain, const ICertificateStore*) const override {
    ++chain_requests;
    if (chains_) chain.push_back(x509::Thumbprint{});
    return chains_;
  }
  bool ShowDialog(void*) const override { return false; }
  const CertContext& GetContext() const override { return context_; }

  mutable int chain_requests = 0;
  mutable int thumbprint_requests = 0;

 private:
  bool client_auth_, chains_, has_thumbprint_;
  CertContext context_;
};

TEST(OfferDecisionTest, OfferedWhenUsageChainAndThumbprintAllHold) {
  const ScriptedCertificate cert(true, true, true);
  ChainBuilder builder;
  const OfferDecision decision =
      DecideOffer(cert, nullptr, builder, OfferDecision::Reasons::k_until_refused);
  EXPECT_TRUE(decision.offered);
  EXPECT_TRUE(decision.key_usage_allowed);
  EXPECT_TRUE(decision.chained);
  EXPECT_EQ(decision.chain.size(), 1u);
  EXPECT_TRUE(decision.has_thumbprint);
  EXPECT_EQ(decision.thumbprint[0], 0xAB);
}

TEST(OfferDecisionTest, ListingStopsAtARefusedKeyUsageWithoutBuildingAChain) {
  const ScriptedCertificate cert(false, true, true);
  ChainBuilder builder;
  const OfferDecision decision =
      DecideOffer(cert, nullptr, builder, OfferDecision::Reasons::k_until_refused);
  EXPECT_FALSE(decision.offered);
  EXPECT_FALSE(decision.key_usage_allowed);
  EXPECT_EQ(cert.chain_requests, 0);
  EXPECT_EQ(cert.thumbprint_requests, 0);
}

TEST(OfferDecisionTest, ListingStopsAtAFailedChainWithoutTheThumbprint) {
  const ScriptedCertificate cert(true, false, true);
  ChainBuilder builder;
  const OfferDecision decision =
      DecideOffer(cert, nullptr, builder, OfferDecision::Reasons::k_until_refused);
  EXPECT_FALSE(decision.offered);
  EXPECT_FALSE(decision.chained);
  EXPECT_EQ(cert.thumbprint_requests, 0);
}

TEST(OfferDecisionTest, EveryReasonGoesOnPastEachRefusal) {
  const ScriptedCertificate cert(false, false, false);
  ChainBuilder builder;
  const OfferDecision decision =
      DecideOffer(cert, nullptr, builder, OfferDecision::Reasons::k_every);
  EXPECT_FALSE(decision.offered);
  EXPECT_FALSE(decision.key_usage_allowed);
  EXPECT_FALSE(decision.chained);
  EXPECT_FALSE(decision.has_thumbprint);
  EXPECT_EQ(cert.chain_requests, 1);
  EXPECT_EQ(cert.thumbprint_requests, 1);
  // No chain builder ran, so there is no OpenSSL reason to report.
  EXPECT_FALSE(decision.chain_failure.verification);
  EXPECT_TRUE(decision.chain_failure.message.empty());
}

}  // namespace
}  // namespace quorvant::shared::x509
