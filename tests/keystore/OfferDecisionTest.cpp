#include <gtest/gtest.h>

#include "FakeCertificate.h"
#include "keystore/OfferDecision.h"

namespace quorvant::shared::x509 {
namespace {

using x509auth_test::FakeCertificate;

// Usage for client authentication or for servers only (key encipherment
// either way), a chain or none, a thumbprint or none.
FakeCertificate ScriptedCertificate(bool client_auth, bool chains, bool has_thumbprint) {
  FakeCertificate::Answers answers = FakeCertificate::Rsa("scripted");
  answers.intended_usage = 0x20;  // key encipherment only
  answers.enhanced_usage = client_auth ? 0x2 : 0x1;
  answers.chains = chains;
  answers.has_thumbprint = has_thumbprint;
  return FakeCertificate(answers);
}

// The decision on |cert| with no extra store, by a chain builder of its own.
OfferDecision Decide(const FakeCertificate& cert, OfferDecision::Reasons reasons) {
  ChainBuilder builder;
  return DecideOffer(cert, nullptr, builder, reasons);
}

TEST(OfferDecisionTest, OfferedWhenUsageChainAndThumbprintAllHold) {
  const FakeCertificate cert = ScriptedCertificate(true, true, true);
  const OfferDecision decision = Decide(cert, OfferDecision::Reasons::k_until_refused);
  EXPECT_TRUE(decision.offered);
  EXPECT_TRUE(decision.key_usage_allowed);
  EXPECT_TRUE(decision.chained);
  EXPECT_EQ(decision.chain.size(), 1u);
  EXPECT_TRUE(decision.has_thumbprint);
  EXPECT_EQ(decision.thumbprint[0], 0xAB);
}

TEST(OfferDecisionTest, ListingStopsAtARefusedKeyUsageWithoutBuildingAChain) {
  const FakeCertificate cert = ScriptedCertificate(false, true, true);
  const OfferDecision decision = Decide(cert, OfferDecision::Reasons::k_until_refused);
  EXPECT_FALSE(decision.offered);
  EXPECT_FALSE(decision.key_usage_allowed);
  EXPECT_EQ(cert.chain_requests, 0);
  EXPECT_EQ(cert.thumbprint_requests, 0);
}

TEST(OfferDecisionTest, ListingStopsAtAFailedChainWithoutTheThumbprint) {
  const FakeCertificate cert = ScriptedCertificate(true, false, true);
  const OfferDecision decision = Decide(cert, OfferDecision::Reasons::k_until_refused);
  EXPECT_FALSE(decision.offered);
  EXPECT_FALSE(decision.chained);
  EXPECT_EQ(cert.thumbprint_requests, 0);
}

TEST(OfferDecisionTest, EveryReasonGoesOnPastEachRefusal) {
  const FakeCertificate cert = ScriptedCertificate(false, false, false);
  const OfferDecision decision = Decide(cert, OfferDecision::Reasons::k_every);
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
