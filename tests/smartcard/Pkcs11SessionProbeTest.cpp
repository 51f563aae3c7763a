#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>
#include <vector>

#include "SmartcardTest.h"
#include "SoftHsmToken.h"
#include "TestPki.h"
#include "smartcard/Libp11Context.h"
#include "smartcard/Pkcs11SessionProbe.h"

namespace x509auth_test {
namespace {

using quorvant::shared::x509::Libp11Context;
using quorvant::shared::x509::Pkcs11SessionProbe;

// SoftHSM2's answer to a session on a token it does not know as initialised.
constexpr int k_token_not_recognized = -0xE1;

class Pkcs11SessionProbeTest : public ListedTokenTest {
 protected:
  void ListTokens() {
    TestKey key = SharedKey(KeyKind::k_ec);
    cert_ = MakeCert(Named("Probe Leaf"), key.get());
    MakeCardA(cert_.get(), key.get());
    ListedTokenTest::ListTokens();
    if (HasFatalFailure()) return;
    ASSERT_EQ(context_->SlotCount(), 2u);
    free_slot_ = &context_->Slots()[1];
    ASSERT_FALSE(free_slot_->token->initialized);
    rec().Reset();
  }

  TestX509 cert_;
  PKCS11_SLOT* free_slot_ = nullptr;
};

TEST_F(Pkcs11SessionProbeTest, UsableTokenTakesASession) {
  ListTokens();
  EXPECT_EQ(context_->ProbeSession(slot_a_), 0);
  EXPECT_TRUE(context_->CanOpenSession(slot_a_));
}

TEST_F(Pkcs11SessionProbeTest, UninitialisedTokenIsRefusedWithoutAskingTheModule) {
  ListTokens();
  EXPECT_EQ(context_->ProbeSession(free_slot_), Pkcs11SessionProbe::k_token_unusable);
  EXPECT_FALSE(context_->CanOpenSession(free_slot_));
  EXPECT_FALSE(context_->CanOpenSession(nullptr));
}

TEST_F(Pkcs11SessionProbeTest, ModuleRefusingASessionYieldsItsNegatedReturnValue) {
  ListTokens();
  // libp11 believes the token usable, the module refuses it: the state of a
  // card pulled out after listing.
  free_slot_->token->initialized = 1;
  EXPECT_EQ(context_->ProbeSession(free_slot_), k_token_not_recognized);
}

TEST_F(Pkcs11SessionProbeTest, ProbingDoesNotEndALogin) {
  ListTokens();
  rec().ScriptAnswer(PinAnswer::Value("1234"));
  ASSERT_EQ(context_->LogInToSlotIfRequired(slot_a_), 0);

  ASSERT_EQ(context_->ProbeSession(slot_a_), 0);
  ASSERT_EQ(context_->ProbeSession(slot_a_), 0);

  PKCS11_KEY* keys = nullptr;
  unsigned int count = 0;
  ASSERT_EQ(PKCS11_enumerate_keys(slot_a_->token, &keys, &count), 0);
  EXPECT_EQ(count, 1u);
}

TEST_F(Pkcs11SessionProbeTest, UnattachedProbeRefusesEverySlot) {
  ListTokens();
  Pkcs11SessionProbe probe;
  EXPECT_EQ(probe.Probe(slot_a_), Pkcs11SessionProbe::k_token_unusable);
}

TEST_F(Pkcs11SessionProbeTest, AttachingNeverLoadsAModuleOfItsOwn) {
  Pkcs11SessionProbe probe;
  // Nothing has loaded the module in this process yet.
  EXPECT_FALSE(probe.Attach(SoftHsmToken::ModulePath().string()));
  EXPECT_FALSE(probe.Attach((hsm_.Root() / "missing.so").string()));
}

TEST_F(Pkcs11SessionProbeTest, ProbeAttachesToTheModuleTheContextLoaded) {
  ListTokens();
  Pkcs11SessionProbe probe;
  ASSERT_TRUE(probe.Attach(Libp11Context::k_module_file_name));
  EXPECT_EQ(probe.Probe(slot_a_), 0);
  probe.Detach();
  EXPECT_EQ(probe.Probe(slot_a_), Pkcs11SessionProbe::k_token_unusable);
}

TEST_F(Pkcs11SessionProbeTest, LoginToUninitialisedTokenFailsWithoutPromptOrHang) {
  ListTokens();

  EXPECT_EQ(context_->LogInToSlotIfRequired(free_slot_), -1);

  const LogLines expected = {{3, "Error logging in to token [%s]. Error code: [%i]",
                              "Error logging in to token []. Error code: [-1]"}};
  EXPECT_EQ(OwnLogLines(), expected) << rec().Dump();
  EXPECT_TRUE(rec().Prompts().empty());
  EXPECT_TRUE(context_->LoginHandler().LoggedInSlots().empty());
}

TEST_F(Pkcs11SessionProbeTest, TokenRefusingSessionsIsSkippedByGetCertsWithModuleCode) {
  ListTokens();
  free_slot_->token->initialized = 1;
  std::vector<Libp11Context::Libp11CertAndSlot> certs;

  EXPECT_EQ(context_->GetCerts(certs), 0);

  EXPECT_EQ(certs.size(), 1u);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error,
                        "Error enumerating certificates on token [%s]. Error code: [%i]",
                        "Error enumerating certificates on token []. Error code: [-225]"))
      << rec().Dump();
}

// The slot whose token a scripted prompt pulls out while the user types.
PKCS11_SLOT* g_pulled_slot = nullptr;
X509_Auth_PinEntryCallback g_recording_prompt = nullptr;

X509_Auth_PinEntryResult* PromptThenPullCard(const char* title, const char* prompt) {
  X509_Auth_PinEntryResult* result = g_recording_prompt(title, prompt);
  g_pulled_slot->token->initialized = 0;
  return result;
}

TEST_F(Pkcs11SessionProbeTest, CardPulledDuringPinPromptFailsTheLoginInsteadOfHanging) {
  ListTokens();
  X509_Auth_Callbacks callbacks = rec().Callbacks();
  g_recording_prompt = callbacks.pin_entry;
  g_pulled_slot = slot_a_;
  callbacks.pin_entry = PromptThenPullCard;
  quorvant::shared::x509::SafeCallbacksWrapper::GetInstance().Replace(callbacks);
  rec().ScriptAnswer(PinAnswer::Value("1234"));

  EXPECT_EQ(context_->LogInToSlotIfRequired(slot_a_), -1);

  EXPECT_EQ(rec().Prompts().size(), 1u);
  EXPECT_EQ(rec().Releases(), 1);
  EXPECT_TRUE(rec().Messages().empty());
  const LogLines expected = {{3, "Error logging in to token [%s]. Error code: [%i]",
                              "Error logging in to token [Card A]. Error code: [-1]"}};
  EXPECT_EQ(OwnLogLines(), expected) << rec().Dump();
  EXPECT_TRUE(context_->LoginHandler().LoggedInSlots().empty());
}

TEST_F(Pkcs11SessionProbeTest, TokenDeletedAfterListingFailsLoginAndKeyLookupWithoutHanging) {
  ListTokens();
  PKCS11_CERT* cert = certs_.at(0).cert;
  hsm_.DeleteToken("Card A");
  rec().ScriptAnswer(PinAnswer::Value("1234"));

  const int login = context_->LogInToSlotIfRequired(slot_a_);

  // SoftHSM2 still opens sessions on the deleted token but refuses the
  // login, which reads as a wrong PIN.
  EXPECT_LT(login, 0);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error, "Login failed. Maybe the pin was incorrect.\n",
                        "Login failed. Maybe the pin was incorrect.\n"))
      << rec().Dump();
  EXPECT_TRUE(context_->LoginHandler().LoggedInSlots().empty());
  // Key lookup, guarded as key users must guard it, finds nothing.
  ASSERT_EQ(context_->ProbeSession(slot_a_), 0);
  EXPECT_EQ(PKCS11_find_key(cert), nullptr);
}

TEST_F(Pkcs11SessionProbeTest, LoggedInTokenDeletedBeforeTeardownDoesNotHangTheContext) {
  ListTokens();
  rec().ScriptAnswer(PinAnswer::Value("1234"));
  ASSERT_EQ(context_->LogInToSlotIfRequired(slot_a_), 0);
  hsm_.DeleteToken("Card A");
  certs_.clear();
  std::weak_ptr<Libp11Context> watched = context_;

  // Logs out of the remembered slot through libp11's pooled session and
  // unloads the module; the watchdog fails the test if this blocks.
  context_.reset();

  EXPECT_TRUE(watched.expired());
}

// The window no probe can close: libp11 0.4.12 itself waits forever once
// the module refuses a session. If this ever fails, libp11 no longer hangs
// there and the probe is merely a courtesy.
TEST_F(Pkcs11SessionProbeTest, UnguardedLibp11CallOnRefusedSessionStillHangs) {
  hsm_.InitToken("Card A");
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // The module is loaded only in the child, which never returns to gtest.
    std::shared_ptr<Libp11Context> context = Libp11Context::GetInstance();
    std::vector<Libp11Context::Libp11CertAndSlot> certs;
    context->GetCerts(certs);
    PKCS11_SLOT* free_slot = &context->Slots()[context->SlotCount() - 1];
    PKCS11_KEY* keys = nullptr;
    unsigned int count = 0;
    PKCS11_enumerate_keys(free_slot->token, &keys, &count);
    _exit(0);
  }
  int status = 0;
  pid_t done = 0;
  for (int i = 0; i < 30 && done == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    done = waitpid(child, &status, WNOHANG);
  }
  const bool still_waiting = done == 0;
  if (still_waiting) {
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
  }
  EXPECT_TRUE(still_waiting) << "libp11 returned from a session it could not open";
}

}  // namespace
}  // namespace x509auth_test
