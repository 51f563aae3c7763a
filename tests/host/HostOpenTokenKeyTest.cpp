// A token key held open by the host (X509_Auth_OpenKey on a SoftHSM2 token
// certificate): its slot, key object and login kept between operations, one
// PIN prompt for many signatures, found again once when the tokens changed
// or its session went away, and a defined result when the token is gone.
// Every signature is verified with the certificate's public key.
#include <dlfcn.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <p11-kit/pkcs11.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>

#include "ForkedChild.h"
#include "HostFixture.h"
#include "HostOpenKeyChecks.h"
#include "LoadedSoftHsm.h"
#include "SoftHsmToken.h"

namespace x509auth_test {
namespace {

constexpr const char* k_user_prompt = "Enter pin for token: Card A";
constexpr const char* k_retry_line =
    "A token or its session went away during the operation; listing the tokens again and trying "
    "once more";
constexpr const char* k_changed_line =
    "The tokens changed under an open key; finding its key again";

// Ends every session of this process on every token through the module the
// library loaded, as a reader reset does.
void EndEverySession() {
  LoadedSoftHsm module;
  ASSERT_TRUE(module.Loaded());
  ASSERT_EQ(module.CloseAllSessions(), CKR_OK);
}

std::size_t UserPrompts() {
  const std::vector<PromptEntry>& prompts = RecordingCallbacks::GetInstance().Prompts();
  return static_cast<std::size_t>(
      std::count_if(prompts.begin(), prompts.end(),
                    [](const PromptEntry& entry) { return entry.prompt == k_user_prompt; }));
}

class HostOpenTokenKeyTest : public HostTokenKeysTest {
 protected:
  HostOpenTokenKeyTest() : HostTokenKeysTest("Token RSA", "Token EC") {}

  void SetUp() override {
    HostTokenKeysTest::SetUp();
    if (IsSkipped()) return;
    hsm_->ImportCertAndKey("Card A", rsa_.get(), rsa_key_.get(), "01", "rsa");
    hsm_->ImportCertAndKey("Card A", ec_.get(), ec_key_.get(), "02", "ec");
  }

  // The library started with the watch as asked, the RSA key opened into
  // |rsa| and one signature made with it: the state each change below is
  // made in.
  void OpenAndSignOnce(bool watch, X509_Auth_KeyHandle* rsa) {
    Start(watch);
    *rsa = Open(rsa_.get());
    bool verified = false;
    ASSERT_EQ(SignVerified(*rsa, rsa_.get(), "before", &verified), 0) << rec().Dump();
  }

  // Opens |cert|'s key with the PIN scripted for it.
  static X509_Auth_KeyHandle Open(X509* cert) {
    rec().ScriptAnswer(PinAnswer::Value(SoftHsmToken::k_default_pin));
    const Bytes thumbprint = Sha1Thumbprint(cert);
    X509_Auth_KeyHandle handle = 0;
    EXPECT_EQ(X509_Auth_OpenKey(thumbprint.data(), &handle).code, 0) << rec().Dump();
    EXPECT_NE(handle, 0u);
    return handle;
  }
};

TEST_F(HostOpenTokenKeyTest, ManySignaturesOnOneOpenTokenKeyAskForThePinOnceAndAllVerify) {
  Start(true);
  const X509_Auth_KeyHandle rsa = Open(rsa_.get());
  // The PIN is asked at the open, not at the first signature.
  EXPECT_EQ(UserPrompts(), 1u);
  const X509_Auth_KeyHandle ec = Open(ec_.get());
  for (int i = 0; i < 20; ++i) {
    bool verified = false;
    EXPECT_EQ(SignVerified(rsa, rsa_.get(), "rsa " + std::to_string(i), &verified), 0)
        << rec().Dump();
    EXPECT_TRUE(verified);
    EXPECT_EQ(SignVerified(ec, ec_.get(), "ec " + std::to_string(i), &verified), 0) << rec().Dump();
    EXPECT_TRUE(verified);
  }
  EXPECT_EQ(UserPrompts(), 1u) << rec().Dump();
  EXPECT_TRUE(rec().WithFormat(k_changed_line).empty());
  EXPECT_EQ(X509_Auth_CloseKey(rsa), 0);
  EXPECT_EQ(X509_Auth_CloseKey(ec), 0);
  EXPECT_TRUE(rec().WithFormat("Failed to sign hash (error: %d, %lu)").empty());
  EXPECT_TRUE(rec().WithFormat(k_retry_line).empty());
}

TEST_F(HostOpenTokenKeyTest, OpenTokenKeySignsWithPssAndDecryptsWithBothPaddings) {
  Start(true);
  const X509_Auth_KeyHandle rsa = Open(rsa_.get());
  const Bytes digest = DigestOf(X509_Auth_HashType_Sha256, "pss");
  for (int i = 0; i < 3; ++i) {
    ASSERT_NO_FATAL_FAILURE(
        ExpectPssSignatureVerifies(rsa, rsa_.get(), X509_Auth_HashType_Sha256, digest));
  }
  ASSERT_NO_FATAL_FAILURE(ExpectDecryptsWithBothPaddings(rsa, rsa_.get(), {9, 8, 7, 6, 5}));
  EXPECT_EQ(UserPrompts(), 1u);
}

TEST_F(HostOpenTokenKeyTest, EcOpenTokenKeyRefusesPssAndDecryptionWithAlgorithmNotSupported) {
  Start(true);
  const X509_Auth_KeyHandle ec = Open(ec_.get());
  const Bytes digest = DigestOf(X509_Auth_HashType_Sha256, "ec");
  const X509_Auth_Signature* signature = nullptr;
  EXPECT_EQ(X509_Auth_OpenKeySignHashPss(ec, X509_Auth_HashType_Sha256, digest.data(),
                                         X509_AUTH_PSS_SALT_DIGEST, &signature)
                .code,
            X509_Auth_ResultCode_AlgorithmNotSupported);
  EXPECT_EQ(signature, nullptr);
  EXPECT_FALSE(rec().WithFormat("Certificate does not support RSA-PSS signatures").empty());
  const X509_Auth_ASN_1* plaintext = nullptr;
  const Bytes data(64, 1);
  EXPECT_EQ(X509_Auth_OpenKeyDecrypt(ec, X509_Auth_DecryptAlgorithm_RsaPkcs1, data.size(),
                                     data.data(), &plaintext)
                .code,
            X509_Auth_ResultCode_AlgorithmNotSupported);
  const uint32_t rsa_only[] = {X509_Auth_Algorithm_Rsa};
  EXPECT_EQ(X509_Auth_OpenKeySignHash(ec, 1, rsa_only, X509_Auth_HashType_Sha256, digest.data(),
                                      &signature)
                .code,
            X509_Auth_ResultCode_AlgorithmNotSupported);
}

TEST_F(HostOpenTokenKeyTest, WrongPinAtOpenGivesKeyOpenFailedAndNoHandle) {
  Start(true);
  rec().ScriptAnswer(PinAnswer::Value("wrong"));
  const Bytes thumbprint = Sha1Thumbprint(rsa_.get());
  X509_Auth_KeyHandle handle = 99;
  EXPECT_EQ(X509_Auth_OpenKey(thumbprint.data(), &handle).code, X509_Auth_ResultCode_KeyOpenFailed)
      << rec().Dump();
  EXPECT_EQ(handle, 0u);
  ASSERT_EQ(rec().Messages().size(), 1u);
  EXPECT_EQ(rec().Messages()[0].message, "Incorrect pin entered for: Card A");
}

TEST_F(HostOpenTokenKeyTest, TokensChangedUnderAnOpenKeyFindItAgainAndAskForThePinAgain) {
  X509_Auth_KeyHandle rsa = 0;
  ASSERT_NO_FATAL_FAILURE(OpenAndSignOnce(true, &rsa));
  bool verified = false;
  {
    LoadedSoftHsm module;
    ASSERT_TRUE(module.Loaded());
    ASSERT_EQ(module.InitFreeToken("Card B"), CKR_OK);
  }
  rec().ScriptAnswer(PinAnswer::Value(SoftHsmToken::k_default_pin));
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(SignVerified(rsa, rsa_.get(), "after " + std::to_string(i), &verified), 0)
        << rec().Dump();
    EXPECT_TRUE(verified);
  }
  EXPECT_EQ(rec().WithFormat(k_changed_line).size(), 1u) << rec().Dump();
  EXPECT_EQ(UserPrompts(), 2u);
}

TEST_F(HostOpenTokenKeyTest, SessionEndedUnderAnOpenKeyIsFoundAgainOnceAndTheSignatureSucceeds) {
  X509_Auth_KeyHandle rsa = 0;
  ASSERT_NO_FATAL_FAILURE(OpenAndSignOnce(true, &rsa));
  bool verified = false;
  ASSERT_NO_FATAL_FAILURE(EndEverySession());
  rec().ScriptAnswer(PinAnswer::Value(SoftHsmToken::k_default_pin));
  EXPECT_EQ(SignVerified(rsa, rsa_.get(), "after", &verified), 0) << rec().Dump();
  EXPECT_TRUE(verified);
  EXPECT_EQ(rec().WithFormat(k_retry_line).size(), 1u) << rec().Dump();
  EXPECT_EQ(UserPrompts(), 2u);
  // Found again, it is kept again: no further lookup or prompt.
  EXPECT_EQ(SignVerified(rsa, rsa_.get(), "later", &verified), 0) << rec().Dump();
  EXPECT_TRUE(verified);
  EXPECT_EQ(rec().WithFormat(k_retry_line).size(), 1u);
  EXPECT_EQ(UserPrompts(), 2u);
}

TEST_F(HostOpenTokenKeyTest, SessionEndedUnderAnOpenKeyFailsWithoutRetryWithTheWatchOff) {
  X509_Auth_KeyHandle rsa = 0;
  ASSERT_NO_FATAL_FAILURE(OpenAndSignOnce(false, &rsa));
  bool verified = false;
  ASSERT_NO_FATAL_FAILURE(EndEverySession());
  EXPECT_EQ(SignVerified(rsa, rsa_.get(), "after", &verified),
            X509_Auth_ResultCode_KeyOperationFailed)
      << rec().Dump();
  EXPECT_TRUE(rec().WithFormat(k_retry_line).empty());
  EXPECT_EQ(rec().WithFormat("Failed to sign hash (error: %d, %lu)").size(), 1u);
  EXPECT_EQ(UserPrompts(), 1u);
}

TEST_F(HostOpenTokenKeyTest, TokenDeletedUnderAnOpenKeyFailsAsNotFoundAfterOneLookup) {
  X509_Auth_KeyHandle rsa = 0;
  ASSERT_NO_FATAL_FAILURE(OpenAndSignOnce(true, &rsa));
  bool verified = false;
  hsm_->DeleteToken("Card A");
  rec().Reset();
  EXPECT_EQ(SignVerified(rsa, rsa_.get(), "after", &verified),
            X509_Auth_ResultCode_CertificateNotFound)
      << rec().Dump();
  EXPECT_EQ(rec().WithFormat(k_changed_line).size(), 1u) << rec().Dump();
  EXPECT_EQ(rec().WithFormat("Failed to find certificate thumbprint (error: %d)").size(), 1u);
  // Each later use looks once more, and gives the same result while the
  // token stays gone.
  EXPECT_EQ(SignVerified(rsa, rsa_.get(), "again", &verified),
            X509_Auth_ResultCode_CertificateNotFound);
  EXPECT_EQ(rec().WithFormat("Failed to find certificate thumbprint (error: %d)").size(), 2u);
  EXPECT_EQ(X509_Auth_CloseKey(rsa), 0);
}

TEST_F(HostOpenTokenKeyTest, DeInitWithAnOpenTokenKeyLeavesItsHandleInvalid) {
  X509_Auth_KeyHandle rsa = 0;
  ASSERT_NO_FATAL_FAILURE(OpenAndSignOnce(true, &rsa));
  bool verified = false;
  X509_Auth_DeInit();
  Start(true);
  EXPECT_EQ(SignVerified(rsa, rsa_.get(), "after", &verified),
            X509_Auth_ResultCode_InvalidArgument);
  EXPECT_EQ(X509_Auth_CloseKey(rsa), X509_Auth_ResultCode_InvalidArgument);
  // Opened again in the new library, it asks for the PIN again: the login
  // ended with the library.
  const X509_Auth_KeyHandle again = Open(rsa_.get());
  EXPECT_NE(again, rsa);
  EXPECT_EQ(SignVerified(again, rsa_.get(), "again", &verified), 0) << rec().Dump();
  EXPECT_TRUE(verified);
  EXPECT_EQ(UserPrompts(), 2u);
}

TEST_F(HostOpenTokenKeyTest, TokenKeyLeftOpenAtExitIsFreedWithTheProcessWithoutACrash) {
  // The host exits without closing the key or ending the library: the
  // module's own static objects go before the library's.
  const std::string report = HostProcessEnd([this] {
    Start(true);
    const X509_Auth_KeyHandle rsa = Open(rsa_.get());
    bool verified = false;
    const bool signed_ok = SignVerified(rsa, rsa_.get(), "exit", &verified) == 0 && verified;
    return signed_ok ? 0 : 3;
  });
  EXPECT_EQ(report, "exit 0");
}

}  // namespace
}  // namespace x509auth_test
