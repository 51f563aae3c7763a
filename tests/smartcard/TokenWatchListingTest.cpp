// The slot listings behind the token watch: a listing replaced while a
// certificate still points into it stays readable until nobody holds it, and
// goes at the next change after that; without the watch the first listing is
// the only one.
#include <gtest/gtest.h>
#include <openssl/x509.h>

#include <memory>
#include <string>
#include <vector>

#include "SmartcardTest.h"
#include "SoftHsmToken.h"
#include "TestPki.h"
#include "smartcard/Libp11Context.h"
#include "smartcard/TokenSlots.h"
#include "smartcard/TokenWatch.h"

namespace x509auth_test {
namespace {

using quorvant::shared::x509::Libp11Context;
using quorvant::shared::x509::TokenSlots;
using quorvant::shared::x509::TokenWatch;
using CertAndSlot = Libp11Context::Libp11CertAndSlot;

class TokenWatchListingTest : public SmartcardTest {
 protected:
  void SetUp() override {
    X509AUTH_SKIP_WITHOUT_SOFTHSM2();
    SmartcardTest::SetUp();
    hsm_.emplace();
    hsm_->InitToken("Card A");
    key_ = SharedKey(KeyKind::k_ec, 1);
    cert_ = MakeCert(Named("Listed A"), key_.get());
    hsm_->ImportCert("Card A", cert_.get(), "01", "a");
  }
  void TearDown() override {
    TokenWatch::Set(false);
    SmartcardTest::TearDown();
  }

  // Initialises SoftHSM2's free token through the module the context
  // loaded, as a card inserted into a reader changes the slot list.
  static void InitFreeToken(const Libp11Context& context, const std::string& label) {
    CK_FUNCTION_LIST_PTR f = context.ModuleFunctions();
    ASSERT_NE(f, nullptr);
    CK_SLOT_ID ids[16];
    CK_ULONG count = 16;
    ASSERT_EQ(f->C_GetSlotList(CK_TRUE, ids, &count), CKR_OK);
    for (CK_ULONG i = 0; i < count; ++i) {
      CK_TOKEN_INFO info{};
      if (f->C_GetTokenInfo(ids[i], &info) != CKR_OK || (info.flags & CKF_TOKEN_INITIALIZED))
        continue;
      std::string so_pin = SoftHsmToken::k_default_so_pin;
      std::string padded = label;
      padded.resize(32, ' ');
      ASSERT_EQ(f->C_InitToken(ids[i], reinterpret_cast<CK_UTF8CHAR_PTR>(so_pin.data()),
                               so_pin.size(), reinterpret_cast<CK_UTF8CHAR_PTR>(padded.data())),
                CKR_OK);
      return;
    }
    FAIL() << "no free token";
  }

  std::optional<SoftHsmToken> hsm_;
  TestKey key_;
  TestX509 cert_;
};

TEST_F(TokenWatchListingTest, ReplacedListingHeldByACertificateStaysUntilReleasedAtTheNextChange) {
  TokenWatch::Set(true);
  std::shared_ptr<Libp11Context> context = Libp11Context::GetInstance();
  std::vector<CertAndSlot> first;
  std::shared_ptr<TokenSlots> held;
  ASSERT_EQ(context->GetCerts(first, &held), 0);
  ASSERT_EQ(first.size(), 1u) << rec().Dump();
  ASSERT_NE(held, nullptr);
  EXPECT_EQ(held, context->CurrentSlots());

  InitFreeToken(*context, "Card B");
  std::vector<CertAndSlot> second;
  std::shared_ptr<TokenSlots> now;
  ASSERT_EQ(context->GetCerts(second, &now), 0);
  EXPECT_NE(now, held);
  EXPECT_EQ(context->SupersededCount(), 1u);
  // The held entry still reads: its listing was kept for it.
  EXPECT_EQ(X509_cmp(first[0].cert->x509, cert_.get()), 0);
  ASSERT_EQ(second.size(), 1u);
  EXPECT_EQ(X509_cmp(second[0].cert->x509, cert_.get()), 0);
  EXPECT_NE(second[0].slot, first[0].slot);

  // Let go: it goes at the next change, not before.
  first.clear();
  held.reset();
  std::vector<CertAndSlot> unchanged;
  ASSERT_EQ(context->GetCerts(unchanged), 0);
  EXPECT_EQ(context->SupersededCount(), 1u);
  InitFreeToken(*context, "Card C");
  std::vector<CertAndSlot> third;
  now.reset();
  ASSERT_EQ(context->GetCerts(third), 0);
  EXPECT_EQ(context->SupersededCount(), 0u);
  EXPECT_EQ(third.size(), 1u);
}

TEST_F(TokenWatchListingTest, WithoutTheWatchTheFirstListingIsTheOnlyOne) {
  std::shared_ptr<Libp11Context> context = Libp11Context::GetInstance();
  std::vector<CertAndSlot> first;
  std::shared_ptr<TokenSlots> held;
  ASSERT_EQ(context->GetCerts(first, &held), 0);
  InitFreeToken(*context, "Card B");
  std::vector<CertAndSlot> second;
  std::shared_ptr<TokenSlots> now;
  ASSERT_EQ(context->GetCerts(second, &now), 0);
  EXPECT_EQ(now, held);
  EXPECT_EQ(context->SupersededCount(), 0u);
  EXPECT_EQ(FindSlot(*context, "Card B"), nullptr);
}

}  // namespace
}  // namespace x509auth_test
