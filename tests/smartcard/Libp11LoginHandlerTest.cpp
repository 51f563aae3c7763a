#include <gtest/gtest.h>
#include <libp11.h>
#include <openssl/err.h>

#include <stdexcept>
#include <vector>

#include "SmartcardTest.h"
#include "SoftHsmToken.h"
#include "TestPki.h"
#include "smartcard/Libp11Context.h"
#include "smartcard/Libp11LoginHandler.h"
#include "smartcard/TokenWatch.h"

namespace x509auth_test {
namespace {

using quorvant::shared::x509::Libp11Context;
using quorvant::shared::x509::Libp11LoginHandler;
using quorvant::shared::x509::TokenWatch;

constexpr const char* k_wrong_pin = "Login failed. Maybe the pin was incorrect.\n";
constexpr const char* k_login_details = "Error getting login details: %i";
constexpr const char* k_login_error = "Error logging in to token [%s]. Error code: [%i]";

std::string LoginError(const std::string& label, int code) {
  return "Error logging in to token [" + label + "]. Error code: [" + std::to_string(code) + "]";
}

// Private-key objects are private: a token shows them only while logged in.
unsigned int VisiblePrivateKeys(PKCS11_SLOT* slot) {
  PKCS11_KEY* keys = nullptr;
  unsigned int count = 0;
  EXPECT_EQ(PKCS11_enumerate_keys(slot->token, &keys, &count), 0);
  return count;
}

class Libp11LoginHandlerTest : public ListedTokenTest {
 protected:
  // One token "Card A" (and, when asked, "Card B") with an RSA certificate
  // and its key, listed by a fresh context; the recorder starts empty.
  void MakeTokens(bool second = false) {
    TestKey key = SharedKey(KeyKind::k_rsa);
    TestX509 cert = MakeCert(Named("Login Leaf"), key.get());
    MakeCardA(cert.get(), key.get());
    if (second) {
      TestKey ec_key = SharedKey(KeyKind::k_ec);
      TestX509 ec_cert = MakeCert(Named("Login Leaf B"), ec_key.get());
      hsm_.InitToken("Card B", "4321");
      hsm_.ImportCertAndKey("Card B", ec_cert.get(), ec_key.get(), "02", "leaf b", "4321");
    }
    ListTokens();
    if (HasFatalFailure()) return;
    slot_b_ = FindSlot(*context_, "Card B");
    rec().Reset();
  }

  // Card A counts as logged in with no prompt, no line, and nothing
  // remembered to log out of.
  void ExpectNoLoginNeeded() {
    EXPECT_EQ(context_->LogInToSlotIfRequired(slot_a_), 0);

    EXPECT_TRUE(rec().Prompts().empty());
    EXPECT_TRUE(OwnLogLines().empty()) << rec().Dump();
    EXPECT_TRUE(context_->LoginHandler().LoggedInSlots().empty());
  }

  PKCS11_SLOT* slot_b_ = nullptr;
};

TEST_F(Libp11LoginHandlerTest, CorrectPinLogsInAfterOnePromptNamingTheToken) {
  MakeTokens();
  ASSERT_EQ(VisiblePrivateKeys(slot_a_), 0u);
  rec().ScriptAnswer(PinAnswer::Value("1234"));

  EXPECT_EQ(context_->LogInToSlotIfRequired(slot_a_), 0);

  ASSERT_EQ(rec().Prompts().size(), 1u);
  EXPECT_EQ(rec().Prompts()[0].title, "Enter pin");
  EXPECT_EQ(rec().Prompts()[0].prompt, "Enter pin for token: Card A");
  EXPECT_EQ(rec().Releases(), 1);
  EXPECT_EQ(rec().Outstanding(), 0);
  EXPECT_TRUE(rec().Messages().empty());
  EXPECT_TRUE(OwnLogLines().empty()) << rec().Dump();
  EXPECT_EQ(context_->LoginHandler().LoggedInSlots(), (std::set<PKCS11_slot_st*>{slot_a_}));
  EXPECT_EQ(VisiblePrivateKeys(slot_a_), 1u);
}

TEST_F(Libp11LoginHandlerTest, WrongPinLogsTellsHostAndIsNotRemembered) {
  MakeTokens();
  rec().ScriptAnswer(PinAnswer::Value("0000"));

  const int result = context_->LogInToSlotIfRequired(slot_a_);

  EXPECT_LT(result, 0);
  const LogLines expected = {{3, k_wrong_pin, k_wrong_pin},
                             {3, k_login_error, LoginError("Card A", result)}};
  EXPECT_EQ(OwnLogLines(), expected) << rec().Dump();
  ASSERT_EQ(rec().Messages().size(), 1u);
  EXPECT_EQ(rec().Messages()[0].message, "Incorrect pin entered for: Card A");
  EXPECT_EQ(rec().Messages()[0].title, "Smartcard error");
  EXPECT_EQ(rec().Prompts().size(), 1u);
  EXPECT_EQ(rec().Releases(), 1);
  EXPECT_TRUE(context_->LoginHandler().LoggedInSlots().empty());
  EXPECT_EQ(VisiblePrivateKeys(slot_a_), 0u);
}

// With the token watch on, a card pulled during the prompt is told apart
// from a wrong PIN by what libp11 records during the login only: a removal
// error left in the queue by something earlier changes nothing, and stays.
TEST_F(Libp11LoginHandlerTest, WrongPinWithAnOlderRemovalErrorQueuedIsStillAWrongPin) {
  MakeTokens();
  TokenWatch::Set(true);
  ERR_clear_error();
  ERR_raise(ERR_get_CKR_code(), static_cast<int>(CKR_DEVICE_REMOVED));
  const unsigned long older = ERR_peek_error();
  rec().ScriptAnswer(PinAnswer::Value("0000"));

  const int result = context_->LogInToSlotIfRequired(slot_a_);
  const bool lost = context_->TakeTokenLoss();
  TokenWatch::Set(false);

  EXPECT_LT(result, 0);
  EXPECT_FALSE(lost);
  ASSERT_EQ(rec().Messages().size(), 1u);
  EXPECT_EQ(rec().Messages()[0].message, "Incorrect pin entered for: Card A");
  EXPECT_FALSE(rec().WithFormat(k_wrong_pin).empty());
  EXPECT_EQ(ERR_peek_error(), older);
  ERR_clear_error();
}

TEST_F(Libp11LoginHandlerTest, WrongPinWithoutMessageCallbackStillFailsAndLogs) {
  MakeTokens();
  InstallCallbacks(true, true, true, false);
  rec().ScriptAnswer(PinAnswer::Value("0000"));

  const int result = context_->LogInToSlotIfRequired(slot_a_);

  EXPECT_LT(result, 0);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error, k_wrong_pin, k_wrong_pin)) << rec().Dump();
  EXPECT_TRUE(rec().Messages().empty());
  EXPECT_EQ(rec().Releases(), 1);
}

TEST_F(Libp11LoginHandlerTest, MissingPinCallbackFailsWithOneAndNoPrompt) {
  MakeTokens();
  InstallCallbacks(true, false, true, true);

  EXPECT_EQ(context_->LogInToSlotIfRequired(slot_a_), 1);

  const LogLines expected = {{3, k_login_details, "Error getting login details: 1"},
                             {3, k_login_error, LoginError("Card A", 1)}};
  EXPECT_EQ(OwnLogLines(), expected) << rec().Dump();
  EXPECT_TRUE(rec().Prompts().empty());
  EXPECT_TRUE(context_->LoginHandler().LoggedInSlots().empty());
}

TEST_F(Libp11LoginHandlerTest, HostReturningNoResultFailsWithOne) {
  MakeTokens();
  rec().ScriptAnswer(PinAnswer::NullResult());

  EXPECT_EQ(context_->LogInToSlotIfRequired(slot_a_), 1);

  const LogLines expected = {{3, k_login_details, "Error getting login details: 1"},
                             {3, k_login_error, LoginError("Card A", 1)}};
  EXPECT_EQ(OwnLogLines(), expected) << rec().Dump();
  EXPECT_EQ(rec().Prompts().size(), 1u);
  EXPECT_EQ(rec().Releases(), 0);
}

TEST_F(Libp11LoginHandlerTest, HostCancelReturnsItsStatusAndReleasesTheResult) {
  MakeTokens();
  rec().ScriptAnswer(PinAnswer::Status(7, "1234"));

  EXPECT_EQ(context_->LogInToSlotIfRequired(slot_a_), 7);

  const LogLines expected = {{3, k_login_details, "Error getting login details: 7"},
                             {3, k_login_error, LoginError("Card A", 7)}};
  EXPECT_EQ(OwnLogLines(), expected) << rec().Dump();
  EXPECT_EQ(rec().Releases(), 1);
  EXPECT_EQ(rec().Outstanding(), 0);
  EXPECT_TRUE(rec().Messages().empty());
  EXPECT_TRUE(context_->LoginHandler().LoggedInSlots().empty());
  EXPECT_EQ(VisiblePrivateKeys(slot_a_), 0u);
}

TEST_F(Libp11LoginHandlerTest, HostCancelWithoutReleaseCallbackKeepsTheResultWithTheHost) {
  MakeTokens();
  InstallCallbacks(true, true, false, true);
  rec().ScriptAnswer(PinAnswer::Status(3));

  EXPECT_EQ(context_->LogInToSlotIfRequired(slot_a_), 3);

  EXPECT_EQ(rec().Outstanding(), 1);
}

TEST_F(Libp11LoginHandlerTest, TokenAlreadyLoggedInIsNotPromptedNorRemembered) {
  MakeTokens();
  ASSERT_EQ(PKCS11_login(slot_a_, 0, "1234"), 0);

  ExpectNoLoginNeeded();
}

TEST_F(Libp11LoginHandlerTest, TokenNotRequiringLoginIsNeverPrompted) {
  MakeTokens();
  // SoftHSM2 tokens always require login; a token without that flag is
  // what a card with only public objects presents.
  slot_a_->token->loginRequired = 0;

  ExpectNoLoginNeeded();
}

TEST_F(Libp11LoginHandlerTest, SecondSuccessfulLoginLeavesTheSlotRememberedOnce) {
  MakeTokens();
  Libp11LoginHandler handler;
  rec().ScriptAnswer(PinAnswer::Value("1234"));
  rec().ScriptAnswer(PinAnswer::Value("1234"));
  ASSERT_EQ(handler.LoginIfRequired(slot_a_), 0);
  // Logged out behind the handler's back, so the next call logs in again.
  ASSERT_EQ(PKCS11_logout(slot_a_), 0);

  EXPECT_EQ(handler.LoginIfRequired(slot_a_), 0);

  EXPECT_EQ(rec().Prompts().size(), 2u);
  EXPECT_EQ(handler.LoggedInSlots(), (std::set<PKCS11_slot_st*>{slot_a_}));
}

TEST_F(Libp11LoginHandlerTest, LogOutOfAllSlotsLogsOutEveryRememberedToken) {
  MakeTokens(true);
  ASSERT_NE(slot_b_, nullptr);
  Libp11LoginHandler handler(
      [this](const PKCS11_slot_st* slot) { return context_->ProbeSession(slot); });
  rec().ScriptAnswer(PinAnswer::Value("1234"));
  rec().ScriptAnswer(PinAnswer::Value("4321"));
  ASSERT_EQ(handler.LoginIfRequired(slot_a_), 0);
  ASSERT_EQ(handler.LoginIfRequired(slot_b_), 0);
  ASSERT_EQ(handler.LoggedInSlots().size(), 2u);
  ASSERT_EQ(VisiblePrivateKeys(slot_a_), 1u);
  ASSERT_EQ(VisiblePrivateKeys(slot_b_), 1u);

  handler.LogOutOfAllSlots();

  EXPECT_TRUE(handler.LoggedInSlots().empty());
  EXPECT_EQ(VisiblePrivateKeys(slot_a_), 0u);
  EXPECT_EQ(VisiblePrivateKeys(slot_b_), 0u);
  // A second call has nothing left to log out.
  handler.LogOutOfAllSlots();
  EXPECT_TRUE(handler.LoggedInSlots().empty());
}

TEST_F(Libp11LoginHandlerTest, DestroyingTheHandlerLogsOutItsSlots) {
  MakeTokens();
  {
    Libp11LoginHandler handler;
    rec().ScriptAnswer(PinAnswer::Value("1234"));
    ASSERT_EQ(handler.LoginIfRequired(slot_a_), 0);
    ASSERT_EQ(VisiblePrivateKeys(slot_a_), 1u);
  }
  EXPECT_EQ(VisiblePrivateKeys(slot_a_), 0u);
}

TEST_F(Libp11LoginHandlerTest, TokenWithoutLabelCannotBePromptedFor) {
  MakeTokens();
  char* label = slot_a_->token->label;
  slot_a_->token->label = nullptr;
  Libp11LoginHandler handler;

  EXPECT_THROW(handler.LoginIfRequired(slot_a_), std::logic_error);

  slot_a_->token->label = label;
  EXPECT_TRUE(rec().Prompts().empty());
}

}  // namespace
}  // namespace x509auth_test
