// The UI writer through which libp11 asks the host for a PIN, driven through
// an OpenSSL UI exactly as libp11 drives the UI method it is given.
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/rsa.h>
#include <openssl/ui.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "SmartcardTest.h"
#include "SoftHsmToken.h"
#include "TestPki.h"
#include "base/OpenSslPtr.h"
#include "smartcard/Libp11Context.h"

namespace x509auth_test {
namespace {

using quorvant::shared::x509::Libp11Context;
using x509auth_openssl::UiMethodPtr;
using x509auth_openssl::UiPtr;

constexpr const char* k_libp11_prompt = "PKCS#11 token PIN";

// Every answer the writer gave, in order.
std::vector<int> g_answers;

int RecordingWriter(UI* ui, UI_STRING* uis) {
  const int answer = Libp11Context::PinEntryUiWriter(ui, uis);
  g_answers.push_back(answer);
  return answer;
}

class PinEntryUiWriterTest : public SmartcardTest {
 protected:
  void SetUp() override {
    SmartcardTest::SetUp();
    g_answers.clear();
    method_.reset(UI_create_method("PIN entry test"));
    ASSERT_EQ(UI_method_set_writer(method_.get(), RecordingWriter), 0);
    ASSERT_EQ(UI_method_set_reader(method_.get(), Libp11Context::PinEntryUiReader), 0);
    ui_.reset(UI_new_method(method_.get()));
    ASSERT_NE(ui_, nullptr);
    pin_.fill('\0');
  }
  void TearDown() override {
    ui_.reset();
    ERR_clear_error();
    SmartcardTest::TearDown();
  }

  void AddPinPrompt() {
    ASSERT_GE(UI_add_input_string(ui_.get(), k_libp11_prompt, UI_INPUT_FLAG_DEFAULT_PWD,
                                  pin_.data(), 0, static_cast<int>(pin_.size() - 1)),
              0);
  }

  // UI_process's result for a PIN prompt the host answers with |answer|.
  int ProcessAnswering(const PinAnswer& answer) {
    rec().ScriptAnswer(answer);
    AddPinPrompt();
    return UI_process(ui_.get());
  }

  UiMethodPtr method_;
  UiPtr ui_;
  std::array<char, 33> pin_{};
};

TEST_F(PinEntryUiWriterTest, InformationAndErrorStringsAreAnsweredWithZeroWithoutPrompt) {
  ASSERT_GE(UI_add_info_string(ui_.get(), "Insert your card"), 0);

  EXPECT_LT(UI_process(ui_.get()), 0);

  UiPtr error_ui(UI_new_method(method_.get()));
  ASSERT_GE(UI_add_error_string(error_ui.get(), "Card error"), 0);
  EXPECT_LT(UI_process(error_ui.get()), 0);

  EXPECT_EQ(g_answers, (std::vector<int>{0, 0}));
  EXPECT_TRUE(rec().Prompts().empty());
}

TEST_F(PinEntryUiWriterTest, MissingPinCallbackAnswersMinusOne) {
  InstallCallbacks(true, false, true, true);
  AddPinPrompt();

  EXPECT_LT(UI_process(ui_.get()), 0);

  EXPECT_EQ(g_answers, (std::vector<int>{-1}));
  EXPECT_TRUE(rec().Prompts().empty());
}

TEST_F(PinEntryUiWriterTest, HostReturningNoResultAnswersMinusOne) {
  EXPECT_LT(ProcessAnswering(PinAnswer::NullResult()), 0);

  EXPECT_EQ(g_answers, (std::vector<int>{-1}));
  ASSERT_EQ(rec().Prompts().size(), 1u);
  EXPECT_EQ(rec().Releases(), 0);
}

TEST_F(PinEntryUiWriterTest, HostDecliningAnswersMinusOneAndReleasesItsResult) {
  EXPECT_LT(ProcessAnswering(PinAnswer::Status(2, "1234")), 0);

  EXPECT_EQ(g_answers, (std::vector<int>{-1}));
  EXPECT_EQ(rec().Releases(), 1);
  EXPECT_STREQ(pin_.data(), "");
}

TEST_F(PinEntryUiWriterTest, EmptyPinAnswersZeroAndReleasesItsResult) {
  EXPECT_LT(ProcessAnswering(PinAnswer::Value("")), 0);

  EXPECT_EQ(g_answers, (std::vector<int>{0}));
  EXPECT_EQ(rec().Releases(), 1);
}

TEST_F(PinEntryUiWriterTest, NullPinTextAnswersZeroAndReleasesItsResult) {
  EXPECT_LT(ProcessAnswering(PinAnswer::NullValue()), 0);

  EXPECT_EQ(g_answers, (std::vector<int>{0}));
  EXPECT_EQ(rec().Releases(), 1);
}

TEST_F(PinEntryUiWriterTest, PinIsHandedToTheUiWithAnswerOne) {
  EXPECT_EQ(ProcessAnswering(PinAnswer::Value("1234")), 0);

  EXPECT_EQ(g_answers, (std::vector<int>{1}));
  EXPECT_STREQ(UI_get0_result(ui_.get(), 0), "1234");
  EXPECT_STREQ(pin_.data(), "1234");
  ASSERT_EQ(rec().Prompts().size(), 1u);
  EXPECT_EQ(rec().Prompts()[0].title, "Enter pin");
  EXPECT_EQ(rec().Prompts()[0].prompt, k_libp11_prompt);
  EXPECT_EQ(rec().Releases(), 1);
  EXPECT_EQ(rec().Outstanding(), 0);
}

TEST_F(PinEntryUiWriterTest, VerifyPromptIsAnsweredLikeAPinPrompt) {
  rec().ScriptAnswer(PinAnswer::Value("1234"));
  rec().ScriptAnswer(PinAnswer::Value("1234"));
  AddPinPrompt();
  std::array<char, 33> verify{};
  ASSERT_GE(UI_add_verify_string(ui_.get(), "Verify PIN", UI_INPUT_FLAG_DEFAULT_PWD, verify.data(),
                                 0, 32, pin_.data()),
            0);

  EXPECT_EQ(UI_process(ui_.get()), 0);

  EXPECT_EQ(g_answers, (std::vector<int>{1, 1}));
  EXPECT_EQ(rec().Prompts().size(), 2u);
  EXPECT_EQ(rec().Releases(), 2);
}

TEST_F(PinEntryUiWriterTest, PinWithoutReleaseCallbackStaysWithTheHost) {
  InstallCallbacks(true, true, false, true);
  EXPECT_EQ(ProcessAnswering(PinAnswer::Value("1234")), 0);

  EXPECT_EQ(g_answers, (std::vector<int>{1}));
  EXPECT_EQ(rec().Outstanding(), 1);
}

TEST_F(PinEntryUiWriterTest, ContextHandsLibp11AUiMethodThatPromptsTheHost) {
  X509AUTH_SKIP_WITHOUT_SOFTHSM2();
  SoftHsmToken hsm;
  hsm.InitToken("Card A");
  std::shared_ptr<Libp11Context> context = Libp11Context::GetInstance();
  EXPECT_EQ(context->UiMethod(), nullptr);
  std::vector<Libp11Context::Libp11CertAndSlot> certs;
  ASSERT_EQ(context->GetCerts(certs), 0);
  ASSERT_NE(context->UiMethod(), nullptr);
  UiPtr ui(UI_new_method(context->UiMethod()));
  ASSERT_GE(UI_add_input_string(ui.get(), k_libp11_prompt, UI_INPUT_FLAG_DEFAULT_PWD, pin_.data(),
                                0, static_cast<int>(pin_.size() - 1)),
            0);
  rec().ScriptAnswer(PinAnswer::Value("1234"));

  EXPECT_EQ(UI_process(ui.get()), 0);

  EXPECT_STREQ(pin_.data(), "1234");
  ASSERT_EQ(rec().Prompts().size(), 1u);
  EXPECT_EQ(rec().Prompts()[0].title, "Enter pin");
  EXPECT_EQ(rec().Releases(), 1);
}

TEST_F(PinEntryUiWriterTest, Libp11AsksTheHostThroughTheContextWhenAKeyNeedsThePinPerUse) {
  X509AUTH_SKIP_WITHOUT_SOFTHSM2();
  SoftHsmToken hsm;
  hsm.InitToken("Card A");
  TestKey key = SharedKey(KeyKind::k_rsa);
  TestX509 cert = MakeCert(Named("Always Auth"), key.get());
  hsm.ImportCert("Card A", cert.get(), "01", "signer");
  hsm.ImportKey("Card A", key.get(), "01", "signer", SoftHsmToken::k_default_pin, true);
  std::shared_ptr<Libp11Context> context = Libp11Context::GetInstance();
  std::vector<Libp11Context::Libp11CertAndSlot> certs;
  ASSERT_EQ(context->GetCerts(certs), 0);
  ASSERT_EQ(certs.size(), 1u);
  rec().ScriptAnswer(PinAnswer::Value("1234"));  // the login
  rec().ScriptAnswer(PinAnswer::Value("1234"));  // libp11's own prompt for the key
  ASSERT_EQ(context->LogInToSlotIfRequired(certs[0].slot), 0);
  ASSERT_TRUE(context->CanOpenSession(certs[0].slot));
  PKCS11_KEY* token_key = PKCS11_find_key(certs[0].cert);
  ASSERT_NE(token_key, nullptr);
  // libp11 0.4.12 hands out a reference of its own to the key's EVP_PKEY.
  quorvant::shared::x509::EvpPkeyPtr owned_key(PKCS11_get_private_key(token_key));
  ASSERT_NE(owned_key, nullptr);
  EVP_PKEY* private_key = owned_key.get();

  const std::array<unsigned char, 32> digest{1, 2, 3, 4};
  std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> sign(
      EVP_PKEY_CTX_new(private_key, nullptr), EVP_PKEY_CTX_free);
  ASSERT_EQ(EVP_PKEY_sign_init(sign.get()), 1);
  ASSERT_EQ(EVP_PKEY_CTX_set_rsa_padding(sign.get(), RSA_PKCS1_PADDING), 1);
  ASSERT_EQ(EVP_PKEY_CTX_set_signature_md(sign.get(), EVP_sha256()), 1);
  std::vector<unsigned char> signature(EVP_PKEY_size(private_key));
  size_t length = signature.size();
  ASSERT_EQ(EVP_PKEY_sign(sign.get(), signature.data(), &length, digest.data(), digest.size()), 1);

  std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> verify(
      EVP_PKEY_CTX_new(X509_get0_pubkey(cert.get()), nullptr), EVP_PKEY_CTX_free);
  ASSERT_EQ(EVP_PKEY_verify_init(verify.get()), 1);
  ASSERT_EQ(EVP_PKEY_CTX_set_rsa_padding(verify.get(), RSA_PKCS1_PADDING), 1);
  ASSERT_EQ(EVP_PKEY_CTX_set_signature_md(verify.get(), EVP_sha256()), 1);
  EXPECT_EQ(EVP_PKEY_verify(verify.get(), signature.data(), length, digest.data(), digest.size()),
            1);
  ASSERT_EQ(rec().Prompts().size(), 2u);
  EXPECT_EQ(rec().Prompts()[1].title, "Enter pin");
  EXPECT_EQ(rec().Outstanding(), 0);
}

}  // namespace
}  // namespace x509auth_test
