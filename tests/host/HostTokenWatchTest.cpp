// The token watch (X509_Auth_SetTokenWatch) through the C interface, on a
// SoftHSM2 token store. SoftHSM2 2.6.1 reads its token directory once, at
// C_Initialize, and never lists a token another process creates later; a
// token initialised through the loaded module itself is listed at once, and
// a token whose files are deleted stays in the slot list with
// C_GetTokenInfo failing (CKR_GENERAL_ERROR), which makes libp11's listing
// fail as a whole. The tests drive the module the library loaded for the
// changes a card reader would bring.
#include <dlfcn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <p11-kit/pkcs11.h>

#include <algorithm>
#include <cstring>
#include <functional>

#include "HostFixture.h"
#include "LoadedSoftHsm.h"
#include "SoftHsmToken.h"

namespace x509auth_test {
namespace {

constexpr CK_RV k_not_loaded = ~CK_RV{0};

Bytes Sha256(const std::string& message) {
  Bytes digest(32);
  EVP_Digest(message.data(), message.size(), digest.data(), nullptr, EVP_sha256(), nullptr);
  return digest;
}

const X509_Auth_Certificate* Find(const std::vector<const X509_Auth_Certificate*>& records,
                                  const char* name) {
  for (const X509_Auth_Certificate* record : records)
    if (std::strcmp(record->name, name) == 0) return record;
  return nullptr;
}

std::vector<std::string> Names(const std::vector<const X509_Auth_Certificate*>& records) {
  std::vector<std::string> names;
  for (const X509_Auth_Certificate* record : records) names.emplace_back(record->name);
  std::sort(names.begin(), names.end());
  return names;
}

X509_Auth_Result Sign(const X509_Auth_Certificate* record, const Bytes& digest,
                      const X509_Auth_Signature** signature) {
  const uint32_t algorithms[] = {1, 2};
  return X509_Auth_SignHash(record->thumbprint, 2, algorithms, X509_Auth_HashType_Sha256,
                            digest.data(), signature);
}

std::size_t Count(const std::vector<PromptEntry>& prompts, const std::string& prompt) {
  return static_cast<std::size_t>(
      std::count_if(prompts.begin(), prompts.end(),
                    [&](const PromptEntry& entry) { return entry.prompt == prompt; }));
}

constexpr const char* k_user_prompt = "Enter pin for token: Card A";
constexpr const char* k_retry_line =
    "A token or its session went away during the operation; listing the tokens again and trying "
    "once more";

class HostTokenWatchTest : public HostTokenKeysTest {
 protected:
  HostTokenWatchTest() : HostTokenKeysTest("Token A", "Token B") {}

  // Card A with its certificate and key, and the library started on it.
  void StartWithCardA(bool watch) {
    hsm_->ImportCertAndKey("Card A", rsa_.get(), rsa_key_.get(), "01", "a");
    Start(watch);
  }

  // StartWithCardA, listed into |records|, and Token A's key used once
  // after the PIN: the state each change below is made in. Token A's record.
  const X509_Auth_Certificate* SignedOnceWithCardA(
      bool watch, std::vector<const X509_Auth_Certificate*>& records) {
    StartWithCardA(watch);
    records = List();
    const X509_Auth_Certificate* record = Find(records, "Token A");
    if (record == nullptr) {
      ADD_FAILURE() << "Token A is not listed\n" << rec().Dump();
      return nullptr;
    }
    rec().ScriptAnswer(PinAnswer::Value(SoftHsmToken::k_default_pin));
    const X509_Auth_Signature* signature = nullptr;
    if (Sign(record, Sha256("one"), &signature).code != 0) {
      ADD_FAILURE() << "the first signature failed\n" << rec().Dump();
      return nullptr;
    }
    return record;
  }

  // Every session of Card A ended through the loaded module, as when a card
  // is pulled and put back between two requests.
  static void EndSessionsOfCardA() {
    LoadedSoftHsm module;
    ASSERT_TRUE(module.Loaded());
    ASSERT_EQ(module.CloseAllSessions("Card A"), CKR_OK);
  }

  // Card B initialised and given its certificate through the loaded module.
  void InsertCardB() {
    LoadedSoftHsm module;
    ASSERT_TRUE(module.Loaded()) << "the library has not loaded SoftHSM2";
    ASSERT_EQ(module.InitFreeToken("Card B"), CKR_OK);
    ASSERT_EQ(module.CreateCertificate("Card B", ec_.get(), "b"), CKR_OK);
  }
};

TEST_F(HostTokenWatchTest, TokenAppearingAfterTheFirstListingIsListedWithTheWatchOn) {
  StartWithCardA(true);
  EXPECT_EQ(Names(List()), (std::vector<std::string>{"Token A"})) << rec().Dump();
  InsertCardB();
  EXPECT_EQ(Names(List()), (std::vector<std::string>{"Token A", "Token B"})) << rec().Dump();
  EXPECT_FALSE(
      rec().WithFormat("Token watch: the tokens changed; listing the slots again").empty());
}

TEST_F(HostTokenWatchTest, TokenAppearingAfterTheFirstListingIsNotListedWithTheWatchOff) {
  StartWithCardA(false);
  EXPECT_EQ(Names(List()), (std::vector<std::string>{"Token A"})) << rec().Dump();
  InsertCardB();
  EXPECT_EQ(Names(List()), (std::vector<std::string>{"Token A"})) << rec().Dump();
  EXPECT_TRUE(rec().WithFormat("Token watch: the tokens changed; listing the slots again").empty());
}

TEST_F(HostTokenWatchTest, UnchangedTokensAreNotListedAgain) {
  StartWithCardA(true);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(Names(List()), (std::vector<std::string>{"Token A"}));
  EXPECT_TRUE(rec().WithFormat("Token watch: the tokens changed; listing the slots again").empty())
      << rec().Dump();
}

TEST_F(HostTokenWatchTest, TokenThatWentAwayDisappearsWithTheWatchOn) {
  StartWithCardA(true);
  EXPECT_EQ(Names(List()), (std::vector<std::string>{"Token A"}));
  hsm_->DeleteToken("Card A");
  EXPECT_TRUE(List().empty()) << rec().Dump();
  // SoftHSM2 keeps the slot with a token it cannot describe; libp11 then
  // lists no slot at all, which the library says.
  EXPECT_TRUE(
      rec().Has(X509_Auth_LogPriority_Error, "error enumerating slots", "error enumerating slots"));
}

TEST_F(HostTokenWatchTest, HeldRecordOfATokenThatWentAwayFailsToSignAsNotFound) {
  StartWithCardA(true);
  const auto records = List();
  const X509_Auth_Certificate* held = Find(records, "Token A");
  ASSERT_NE(held, nullptr) << rec().Dump();
  rec().ScriptAnswer(PinAnswer::Value(SoftHsmToken::k_default_pin));
  const X509_Auth_Signature* signature = nullptr;
  ASSERT_EQ(Sign(held, Sha256("before"), &signature).code, X509_Auth_ResultCode_Success)
      << rec().Dump();

  hsm_->DeleteToken("Card A");
  signature = nullptr;
  const X509_Auth_Result result = Sign(held, Sha256("after"), &signature);
  EXPECT_EQ(result.code, X509_Auth_ResultCode_CertificateNotFound) << rec().Dump();
  EXPECT_EQ(signature, nullptr);
  EXPECT_FALSE(rec().WithFormat("Failed to find certificate thumbprint (error: %d)").empty());
  X509_Auth_Free(records[0]);
}

TEST_F(HostTokenWatchTest, ChangedTokensAskForThePinAgainWithTheWatchOn) {
  StartWithCardA(true);
  const auto records = List();
  const X509_Auth_Certificate* record = Find(records, "Token A");
  ASSERT_NE(record, nullptr);
  const Bytes digest = Sha256("twice");
  for (int i = 0; i < 2; ++i) {
    rec().ScriptAnswer(PinAnswer::Value(SoftHsmToken::k_default_pin));
    const X509_Auth_Signature* signature = nullptr;
    ASSERT_EQ(Sign(record, digest, &signature).code, 0) << rec().Dump();
    EXPECT_TRUE(VerifiesWithCertificate(rsa_.get(), EVP_sha256(), digest, signature->data,
                                        signature->length));
    X509_Auth_Free(signature);
  }
  // One login serves both while nothing changes.
  EXPECT_EQ(Count(rec().Prompts(), k_user_prompt), 1u);

  InsertCardB();
  rec().ScriptAnswer(PinAnswer::Value(SoftHsmToken::k_default_pin));
  const X509_Auth_Signature* signature = nullptr;
  ASSERT_EQ(Sign(record, digest, &signature).code, 0) << rec().Dump();
  EXPECT_TRUE(VerifiesWithCertificate(rsa_.get(), EVP_sha256(), digest, signature->data,
                                      signature->length));
  EXPECT_EQ(Count(rec().Prompts(), k_user_prompt), 2u);
  X509_Auth_Free(signature);
  X509_Auth_Free(records[0]);
}

TEST_F(HostTokenWatchTest, ChangedTokensKeepTheLoginWithTheWatchOff) {
  std::vector<const X509_Auth_Certificate*> records;
  const X509_Auth_Certificate* record = SignedOnceWithCardA(false, records);
  ASSERT_NE(record, nullptr);
  const X509_Auth_Signature* signature = nullptr;
  InsertCardB();
  ASSERT_EQ(Sign(record, Sha256("two"), &signature).code, 0) << rec().Dump();
  EXPECT_EQ(Count(rec().Prompts(), k_user_prompt), 1u);
  X509_Auth_Free(records[0]);
}

TEST_F(HostTokenWatchTest, SessionsEndedUnderTheLibraryAreListedAgainAndAskForThePinAgain) {
  std::vector<const X509_Auth_Certificate*> records;
  const X509_Auth_Certificate* record = SignedOnceWithCardA(true, records);
  ASSERT_NE(record, nullptr);
  const X509_Auth_Signature* signature = nullptr;

  // The same card, its sessions gone: nothing the slot list shows, as when
  // a card is pulled and put back between two requests.
  ASSERT_NO_FATAL_FAILURE(EndSessionsOfCardA());
  rec().ScriptAnswer(PinAnswer::Value(SoftHsmToken::k_default_pin));
  const Bytes digest = Sha256("two");
  ASSERT_EQ(Sign(record, digest, &signature).code, 0) << rec().Dump();
  EXPECT_TRUE(VerifiesWithCertificate(rsa_.get(), EVP_sha256(), digest, signature->data,
                                      signature->length));
  EXPECT_EQ(rec()
                .WithFormat("Token watch: listing the slots again after a token or its session "
                            "went away")
                .size(),
            1u)
      << rec().Dump();
  EXPECT_EQ(Count(rec().Prompts(), k_user_prompt), 2u);
  X509_Auth_Free(records[0]);
}

TEST_F(HostTokenWatchTest, SessionsEndedUnderTheLibraryFailTheSignatureWithTheWatchOff) {
  std::vector<const X509_Auth_Certificate*> records;
  const X509_Auth_Certificate* record = SignedOnceWithCardA(false, records);
  ASSERT_NE(record, nullptr);
  const X509_Auth_Signature* signature = nullptr;
  ASSERT_NO_FATAL_FAILURE(EndSessionsOfCardA());
  signature = nullptr;
  // libp11 reads the token through its pooled, now dead, session.
  const X509_Auth_Result result = Sign(record, Sha256("two"), &signature);
  EXPECT_EQ(result.code, X509_Auth_ResultCode_CertificateNotFound) << rec().Dump();
  EXPECT_EQ(signature, nullptr);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error,
                        "Error enumerating certificates on token [%s]. Error code: [%i]",
                        "Error enumerating certificates on token [Card A]. Error code: [-1]"));
  EXPECT_TRUE(rec().WithFormat(k_retry_line).empty());
  X509_Auth_Free(records[0]);
}

// A host whose PIN prompts for each use of an always-authenticate key end the
// token's sessions, as a card pulled while the user types would: the
// signature fails after the context-specific login on a dead session.
struct SessionKiller {
  static LoadedSoftHsm* module;
  static int kills_left;
  static bool on_user_prompt;
  static X509_Auth_PinEntryResult* PinEntry(const char* title, const char* prompt) {
    const bool user_prompt = std::strncmp(prompt, "Enter pin for token", 19) == 0;
    if (user_prompt == on_user_prompt && kills_left > 0) {
      --kills_left;
      module->CloseAllSessions("Card A");
    }
    return RecordingCallbacks::GetInstance().Callbacks().pin_entry(title, prompt);
  }
};
LoadedSoftHsm* SessionKiller::module = nullptr;
int SessionKiller::kills_left = 0;
bool SessionKiller::on_user_prompt = false;

class HostTokenWatchRetryTest : public HostTokenWatchTest {
 protected:
  // Card A with an always-authenticate key; the library started with the
  // session-ending PIN callback.
  void StartWithKiller(bool watch, int kills, bool on_user_prompt = false) {
    hsm_->ImportCert("Card A", rsa_.get(), "01", "a");
    hsm_->ImportKey("Card A", rsa_key_.get(), "01", "a", SoftHsmToken::k_default_pin,
                    !on_user_prompt);
    SessionKiller::on_user_prompt = on_user_prompt;
    X509_Auth_Callbacks callbacks = rec().Callbacks();
    callbacks.pin_entry = SessionKiller::PinEntry;
    Init({}, {}, callbacks);
    ASSERT_EQ(X509_Auth_SetTokenWatch(watch ? 1 : 0), X509_Auth_ResultCode_Success);
    const auto records = List();
    ASSERT_EQ(records.size(), 1u) << rec().Dump();
    std::memcpy(thumbprint_, records[0]->thumbprint, sizeof(thumbprint_));
    module_.emplace();
    ASSERT_TRUE(module_->Loaded());
    SessionKiller::module = &*module_;
    SessionKiller::kills_left = kills;
    for (int i = 0; i < 6; ++i) rec().ScriptAnswer(PinAnswer::Value(SoftHsmToken::k_default_pin));
  }
  X509_Auth_Result SignNow(const Bytes& digest, const X509_Auth_Signature** signature) {
    const uint32_t algorithms[] = {1, 2};
    return X509_Auth_SignHash(thumbprint_, 2, algorithms, X509_Auth_HashType_Sha256, digest.data(),
                              signature);
  }
  static std::size_t KeyPrompts() {
    return rec().Prompts().size() - Count(rec().Prompts(), k_user_prompt);
  }

  uint8_t thumbprint_[20] = {};
  std::optional<LoadedSoftHsm> module_;
};

TEST_F(HostTokenWatchRetryTest, SignatureThatLosesItsSessionIsTriedOnceMoreAndSucceeds) {
  StartWithKiller(true, 1);
  const Bytes digest = Sha256("retried");
  const X509_Auth_Signature* signature = nullptr;
  ASSERT_EQ(SignNow(digest, &signature).code, X509_Auth_ResultCode_Success) << rec().Dump();
  EXPECT_TRUE(VerifiesWithCertificate(rsa_.get(), EVP_sha256(), digest, signature->data,
                                      signature->length));
  EXPECT_EQ(rec().WithFormat(k_retry_line).size(), 1u) << rec().Dump();
  // The retry's fresh listing logged in again.
  EXPECT_EQ(Count(rec().Prompts(), k_user_prompt), 2u);
  EXPECT_EQ(KeyPrompts(), 2u);
}

TEST_F(HostTokenWatchRetryTest, SignatureThatLosesItsSessionTwiceFailsAfterOneRetry) {
  StartWithKiller(true, 100);
  const X509_Auth_Signature* signature = nullptr;
  const X509_Auth_Result result = SignNow(Sha256("lost twice"), &signature);
  EXPECT_EQ(result.code, X509_Auth_ResultCode_KeyOperationFailed) << rec().Dump();
  EXPECT_EQ(signature, nullptr);
  EXPECT_EQ(rec().WithFormat(k_retry_line).size(), 1u) << rec().Dump();
  EXPECT_EQ(KeyPrompts(), 2u);
  EXPECT_EQ(rec().Outstanding(), 0);
}

TEST_F(HostTokenWatchRetryTest, SignatureThatLosesItsSessionIsNotRetriedWithTheWatchOff) {
  StartWithKiller(false, 100);
  const X509_Auth_Signature* signature = nullptr;
  const X509_Auth_Result result = SignNow(Sha256("lost once"), &signature);
  EXPECT_EQ(result.code, X509_Auth_ResultCode_KeyOperationFailed) << rec().Dump();
  EXPECT_TRUE(rec().WithFormat(k_retry_line).empty());
  EXPECT_EQ(KeyPrompts(), 1u);
}

TEST_F(HostTokenWatchRetryTest, TokenLostDuringThePinPromptIsReportedAsRemovedNotAsAWrongPin) {
  StartWithKiller(true, 1, true);
  const Bytes digest = Sha256("pin prompt");
  const X509_Auth_Signature* signature = nullptr;
  ASSERT_EQ(SignNow(digest, &signature).code, X509_Auth_ResultCode_Success) << rec().Dump();
  EXPECT_TRUE(VerifiesWithCertificate(rsa_.get(), EVP_sha256(), digest, signature->data,
                                      signature->length));
  ASSERT_EQ(rec().Messages().size(), 1u) << rec().Dump();
  EXPECT_EQ(rec().Messages()[0].message, "The smart card was removed while logging in to: Card A");
  EXPECT_EQ(rec().Messages()[0].title, "Smartcard error");
  EXPECT_TRUE(rec().WithFormat("Login failed. Maybe the pin was incorrect.\n").empty());
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error,
                        "Login failed: the token [%s] went away (CK_RV 0x%lx)",
                        "Login failed: the token [Card A] went away (CK_RV 0xb3)"))
      << rec().Dump();
  EXPECT_EQ(rec().WithFormat(k_retry_line).size(), 1u);
  EXPECT_EQ(Count(rec().Prompts(), k_user_prompt), 2u);
}

TEST_F(HostTokenWatchRetryTest, TokenLostDuringThePinPromptIsAWrongPinWithTheWatchOff) {
  StartWithKiller(false, 1, true);
  const X509_Auth_Signature* signature = nullptr;
  EXPECT_EQ(SignNow(Sha256("pin prompt"), &signature).code, X509_Auth_ResultCode_KeyOpenFailed)
      << rec().Dump();
  ASSERT_EQ(rec().Messages().size(), 1u);
  EXPECT_EQ(rec().Messages()[0].message, "Incorrect pin entered for: Card A");
  EXPECT_TRUE(rec().WithFormat(k_retry_line).empty());
}

TEST_F(HostTokenWatchTest, ExportedTokenKeyOutlivesATokenChangeAndFailsWithoutItsLogin) {
  StartWithCardA(true);
  const auto records = List();
  const X509_Auth_Certificate* record = Find(records, "Token A");
  ASSERT_NE(record, nullptr);
  rec().ScriptAnswer(PinAnswer::Value(SoftHsmToken::k_default_pin));
  void* exported = nullptr;
  ASSERT_EQ(X509_Auth_GetPrivateKeyForCertificate(record, &exported), 0) << rec().Dump();
  const EvpPkeyPtr key(static_cast<EVP_PKEY*>(exported));
  ASSERT_NE(key, nullptr);
  const Bytes digest = Sha256("exported");
  const auto sign = [&] {
    const EvpPkeyCtxPtr context(EVP_PKEY_CTX_new(key.get(), nullptr));
    size_t length = 512;
    Bytes signature(length);
    const bool signed_ok =
        EVP_PKEY_sign_init(context.get()) > 0 &&
        EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) > 0 &&
        EVP_PKEY_CTX_set_signature_md(context.get(), EVP_sha256()) > 0 &&
        EVP_PKEY_sign(context.get(), signature.data(), &length, digest.data(), digest.size()) > 0;
    ERR_clear_error();
    return signed_ok;
  };
  ASSERT_TRUE(sign());

  // Two changes: the listing the key came from is replaced, and at the
  // second one it would be released if nothing kept it.
  InsertCardB();
  EXPECT_EQ(List().size(), 2u) << rec().Dump();
  {
    LoadedSoftHsm module;
    ASSERT_EQ(module.InitFreeToken("Card C"), CKR_OK);
  }
  EXPECT_EQ(List().size(), 2u) << rec().Dump();
  // The card's login ended with its listing: the old key is refused, safely.
  EXPECT_FALSE(sign());
  X509_Auth_Free(records[0]);
}

}  // namespace
}  // namespace x509auth_test
