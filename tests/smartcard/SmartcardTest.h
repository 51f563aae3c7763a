#pragma once
// Shared setup for the smart-card tests: recording host callbacks and a
// watchdog. The library must never hang a host, so a test that blocks is
// killed by SIGALRM and fails instead of stalling the run.
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "RecordingCallbacks.h"
#include "SoftHsmToken.h"
#include "TestPki.h"
#include "base/SafeCallbacksWrapper.h"
#include "smartcard/Libp11Context.h"

namespace x509auth_test {

class SmartcardTest : public ::testing::Test {
 protected:
  static constexpr unsigned k_watchdog_seconds = 60;

  void SetUp() override {
    alarm(k_watchdog_seconds);
    rec().Reset();
    InstallCallbacks();
  }
  void TearDown() override { alarm(0); }

  static RecordingCallbacks& rec() { return RecordingCallbacks::GetInstance(); }
  static void InstallCallbacks(bool log = true, bool pin_entry = true, bool free_result = true,
                               bool message = true) {
    quorvant::shared::x509::SafeCallbacksWrapper::GetInstance().Replace(
        rec().Callbacks(log, pin_entry, free_result, message));
  }

  // The log lines in order as (priority, format, text), leaving out OpenSSL
  // error lines drained by the library, whose wording belongs to OpenSSL.
  static std::vector<std::tuple<int, std::string, std::string>> OwnLogLines() {
    std::vector<std::tuple<int, std::string, std::string>> lines;
    for (const LogEntry& entry : rec().Logs())
      if (entry.format != "%s") lines.emplace_back(entry.priority, entry.format, entry.text);
    return lines;
  }
};

using LogLines = std::vector<std::tuple<int, std::string, std::string>>;

inline CertOptions Named(const std::string& common_name) {
  CertOptions options;
  options.common_name = common_name;
  return options;
}

// The context's slot whose token carries |label|, or null.
inline PKCS11_SLOT* FindSlot(const quorvant::shared::x509::Libp11Context& context,
                             const std::string& label) {
  for (unsigned int i = 0; i < context.SlotCount(); ++i) {
    PKCS11_SLOT* slot = &context.Slots()[i];
    if (slot->token != nullptr && slot->token->label != nullptr && label == slot->token->label)
      return slot;
  }
  return nullptr;
}

// A smart-card test on SoftHSM2 tokens listed by the process's context;
// skipped, saying why, where SoftHSM2 is not installed.
class ListedTokenTest : public SmartcardTest {
 protected:
  void SetUp() override {
    X509AUTH_SKIP_WITHOUT_SOFTHSM2();
    SmartcardTest::SetUp();
  }
  void TearDown() override {
    certs_.clear();
    context_.reset();
    SmartcardTest::TearDown();
  }

  // A token "Card A" holding |cert| and its |key| (ID 01, label "leaf").
  void MakeCardA(X509* cert, EVP_PKEY* key) {
    hsm_.InitToken("Card A");
    hsm_.ImportCertAndKey("Card A", cert, key, "01", "leaf");
  }
  // Lists the tokens' certificates and finds the slot of "Card A".
  void ListTokens() {
    context_ = quorvant::shared::x509::Libp11Context::GetInstance();
    ASSERT_EQ(context_->GetCerts(certs_), 0);
    slot_a_ = FindSlot(*context_, "Card A");
    ASSERT_NE(slot_a_, nullptr);
  }

  SoftHsmToken hsm_;
  std::shared_ptr<quorvant::shared::x509::Libp11Context> context_;
  std::vector<quorvant::shared::x509::Libp11Context::Libp11CertAndSlot> certs_;
  PKCS11_SLOT* slot_a_ = nullptr;
};

}  // namespace x509auth_test
