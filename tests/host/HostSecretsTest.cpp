// No PIN or password ever reaches the host's log, whatever path the prompt
// took: file key passwords (right, wrong, cancelled, over-long) and token
// PINs (right, wrong, and the PIN a key asks for on every use).
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "HostFixture.h"
#include "SoftHsmToken.h"

namespace x509auth_test {
namespace {

// Recognisable values that no message of the library could contain by chance.
const std::string k_password = "PwCanary-7f3a9d";
const std::string k_wrong_password = "WrongPwCanary-51c2";
const std::string k_cancelled_password = "CancelledPwCanary-88e0";
const std::string k_long_password = std::string("LongPwCanary-") + std::string(1100, 'q');
const std::string k_pin = "PinCanary-4711";
const std::string k_wrong_pin = "WrongPinCanary-0815";

Bytes Digest() { return Bytes(32, 0x5a); }

class HostSecretsTest : public HostTest {
 protected:
  void SetUp() override {
    X509AUTH_SKIP_WITHOUT_SOFTHSM2();
    HostTest::SetUp();
    hsm_.emplace();
    hsm_->InitToken("Card S", k_pin);
    token_key_ = SharedKey(KeyKind::k_rsa, 1);
    per_use_key_ = SharedKey(KeyKind::k_ec, 1);
    token_cert_ = MakeClientCert("Token Login", token_key_.get());
    per_use_cert_ = MakeClientCert("Token Per Use", per_use_key_.get());
    hsm_->ImportCertAndKey("Card S", token_cert_.get(), token_key_.get(), "01", "login", k_pin);
    hsm_->ImportCert("Card S", per_use_cert_.get(), "02", "peruse", k_pin);
    hsm_->ImportKey("Card S", per_use_key_.get(), "02", "peruse", k_pin, true);

    file_key_ = SharedKey(KeyKind::k_ec, 2);
    file_cert_ = MakeClientCert("File Encrypted", file_key_.get());
    InstallFileCert(Base("base"), "enc.pem", file_cert_.get());
    WriteFile(Base("base") / "keys" / "enc.pem.key", KeyToPem(file_key_.get(), k_password.c_str()));
  }
  void TearDown() override {
    HostTest::TearDown();
    hsm_.reset();
  }

  static int Sign(X509* cert) {
    const Bytes thumbprint = Sha1Thumbprint(cert);
    const uint32_t algorithms[] = {1, 2};
    const Bytes digest = Digest();
    const X509_Auth_Signature* signature = nullptr;
    const X509_Auth_Result result = X509_Auth_SignHash(
        thumbprint.data(), 2, algorithms, X509_Auth_HashType_Sha256, digest.data(), &signature);
    if (signature != nullptr) X509_Auth_Free(signature);
    return result.code;
  }

  // Every text the host was handed: raw formats, formatted lines, prompts
  // and messages.
  static std::vector<std::string> EverythingTheHostSaw() {
    std::vector<std::string> texts;
    for (const LogEntry& entry : rec().Logs()) {
      texts.push_back(entry.format);
      texts.push_back(entry.text);
    }
    for (const PromptEntry& prompt : rec().Prompts()) {
      texts.push_back(prompt.title);
      texts.push_back(prompt.prompt);
    }
    for (const MessageEntry& message : rec().Messages()) {
      texts.push_back(message.message);
      texts.push_back(message.title);
    }
    return texts;
  }

  std::optional<SoftHsmToken> hsm_;
  TestKey token_key_, per_use_key_, file_key_;
  TestX509 token_cert_, per_use_cert_, file_cert_;
};

TEST_F(HostSecretsTest, NoPinOrPasswordAppearsInAnyLogLinePromptOrMessage) {
  Init({Base("base").string()});
  const auto records = List();
  ASSERT_EQ(records.size(), 3u) << rec().Dump();

  // File key: wrong, cancelled (a refusal that still carries text),
  // over-long, then right.
  rec().ScriptAnswer(PinAnswer::Value(k_wrong_password));
  EXPECT_NE(Sign(file_cert_.get()), 0);
  rec().ScriptAnswer(PinAnswer::Status(1, k_cancelled_password));
  EXPECT_NE(Sign(file_cert_.get()), 0);
  rec().ScriptAnswer(PinAnswer::Value(k_long_password));
  EXPECT_NE(Sign(file_cert_.get()), 0);
  ASSERT_TRUE(rec().Has(X509_Auth_LogPriority_Error,
                        "Password for [%s] is too long. Max length is [%i]",
                        "Password for [" + (Base("base") / "keys" / "enc.pem.key").string() +
                            "] is too long. Max length is [1024]"))
      << rec().Dump();
  rec().ScriptAnswer(PinAnswer::Value(k_password));
  EXPECT_EQ(Sign(file_cert_.get()), 0) << rec().Dump();

  // Token login: wrong, then right.
  rec().ScriptAnswer(PinAnswer::Value(k_wrong_pin));
  EXPECT_NE(Sign(token_cert_.get()), 0);
  ASSERT_EQ(rec().Messages().size(), 1u);
  rec().ScriptAnswer(PinAnswer::Value(k_pin));
  EXPECT_EQ(Sign(token_cert_.get()), 0) << rec().Dump();

  // A key that wants the PIN on every use: libp11 asks through the UI method.
  const std::size_t prompts_before = rec().Prompts().size();
  rec().ScriptAnswer(PinAnswer::Value(k_pin));
  rec().ScriptAnswer(PinAnswer::Value(k_pin));
  Sign(per_use_cert_.get());
  EXPECT_GT(rec().Prompts().size(), prompts_before) << rec().Dump();
  X509_Auth_Free(records[0]);
  X509_Auth_DeInit();

  EXPECT_EQ(rec().Outstanding(), 0);
  ASSERT_GT(rec().Logs().size(), 20u);
  for (const std::string& text : EverythingTheHostSaw())
    for (const std::string& secret :
         {k_password, k_wrong_password, k_cancelled_password, k_long_password.substr(0, 20), k_pin,
          k_wrong_pin, std::string("Canary")})
      EXPECT_EQ(text.find(secret), std::string::npos) << "'" << secret << "' in: " << text;
}

}  // namespace
}  // namespace x509auth_test
