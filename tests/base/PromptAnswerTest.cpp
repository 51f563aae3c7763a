// One question to the host: asked only when the host can answer, the host's
// record handed back exactly once when the answer goes (an exception
// included), and the library's copy of the text wiped.
#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "RecordingCallbacks.h"
#include "WipedBuffers.h"
#include "base/PromptAnswer.h"
#include "base/SafeCallbacksWrapper.h"
#include "base/SecretWipe.h"

namespace quorvant::shared::x509 {
namespace {

using x509auth_test::PinAnswer;
using x509auth_test::RecordingCallbacks;

class PromptAnswerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    recorder().Reset();
    x509auth_test::WipedBuffers().clear();
    Install();
  }
  void TearDown() override {
    SecretWipe::SetObserverForTesting(nullptr);
    SafeCallbacksWrapper::GetInstance().Replace(X509_Auth_Callbacks{});
  }
  static void Install(bool pin_entry = true, bool free_result = true) {
    SafeCallbacksWrapper::GetInstance().Replace(
        recorder().Callbacks(true, pin_entry, free_result, true));
  }
  static RecordingCallbacks& recorder() { return RecordingCallbacks::GetInstance(); }
};

TEST_F(PromptAnswerTest, NothingIsAskedWhenTheHostHasNoPinEntryCallback) {
  Install(false);
  const PromptAnswer answer("Enter pin", "Enter pin for token: t");
  EXPECT_FALSE(answer.Asked());
  EXPECT_FALSE(answer.Received());
  EXPECT_EQ(answer.Text(), nullptr);
  EXPECT_TRUE(recorder().Prompts().empty());
}

TEST_F(PromptAnswerTest, TheHostIsAskedWithTitleThenPrompt) {
  recorder().ScriptAnswer(PinAnswer::Value("1234"));
  const PromptAnswer answer("Enter password", "Enter password for: /k.pem");
  ASSERT_EQ(recorder().Prompts().size(), 1u);
  EXPECT_EQ(recorder().Prompts()[0].title, "Enter password");
  EXPECT_EQ(recorder().Prompts()[0].prompt, "Enter password for: /k.pem");
  EXPECT_TRUE(answer.Asked());
  EXPECT_TRUE(answer.Received());
  EXPECT_EQ(answer.Status(), 0);
  EXPECT_STREQ(answer.Text(), "1234");
  EXPECT_EQ(answer.Length(), 4u);
}

TEST_F(PromptAnswerTest, TheHostsRecordIsHeldUntilTheAnswerGoesThenReleasedOnce) {
  recorder().ScriptAnswer(PinAnswer::Value("1234"));
  {
    const PromptAnswer answer("Enter pin", "p");
    EXPECT_EQ(recorder().Outstanding(), 1);
    EXPECT_EQ(recorder().Releases(), 0);
  }
  EXPECT_EQ(recorder().Outstanding(), 0);
  EXPECT_EQ(recorder().Releases(), 1);
}

TEST_F(PromptAnswerTest, AnExceptionLeavingTheCallerStillReleasesTheRecord) {
  recorder().ScriptAnswer(PinAnswer::Value("1234"));
  EXPECT_THROW(
      {
        const PromptAnswer answer("Enter pin", "p");
        throw std::runtime_error("caller failed while holding the answer");
      },
      std::runtime_error);
  EXPECT_EQ(recorder().Releases(), 1);
  EXPECT_EQ(recorder().Outstanding(), 0);
}

TEST_F(PromptAnswerTest, ANonZeroStatusIsReportedAndTheRecordReleased) {
  recorder().ScriptAnswer(PinAnswer::Status(7));
  {
    const PromptAnswer answer("Enter pin", "p");
    EXPECT_TRUE(answer.Received());
    EXPECT_EQ(answer.Status(), 7);
  }
  EXPECT_EQ(recorder().Releases(), 1);
}

TEST_F(PromptAnswerTest, ANullResultIsNotReceivedAndNothingIsReleased) {
  recorder().ScriptAnswer(PinAnswer::NullResult());
  {
    const PromptAnswer answer("Enter pin", "p");
    EXPECT_TRUE(answer.Asked());
    EXPECT_FALSE(answer.Received());
    EXPECT_EQ(answer.Text(), nullptr);
  }
  EXPECT_EQ(recorder().Releases(), 0);
}

TEST_F(PromptAnswerTest, ARecordWithoutTextGivesNoTextAndIsReleased) {
  recorder().ScriptAnswer(PinAnswer::NullValue());
  {
    const PromptAnswer answer("Enter pin", "p");
    EXPECT_TRUE(answer.Received());
    EXPECT_EQ(answer.Text(), nullptr);
    EXPECT_EQ(answer.Length(), 0u);
  }
  EXPECT_EQ(recorder().Releases(), 1);
}

TEST_F(PromptAnswerTest, WithoutAReleaseCallbackTheRecordIsAbandoned) {
  Install(true, false);
  recorder().ScriptAnswer(PinAnswer::Value("1234"));
  { const PromptAnswer answer("Enter pin", "p"); }
  EXPECT_EQ(recorder().Releases(), 0);
  EXPECT_EQ(recorder().Outstanding(), 1);
}

TEST_F(PromptAnswerTest, TheTextIsReadFromACopyThatIsWipedWhenTheAnswerGoes) {
  recorder().ScriptAnswer(PinAnswer::Value("secret-pin"));
  SecretWipe::SetObserverForTesting(x509auth_test::RecordWipedBuffer);
  {
    const PromptAnswer answer("Enter pin", "p");
    ASSERT_STREQ(answer.Text(), "secret-pin");
    EXPECT_TRUE(x509auth_test::WipedBuffers().empty());
  }
  const std::vector<x509auth_test::WipedBuffer>& wiped = x509auth_test::WipedBuffers();
  ASSERT_EQ(wiped.size(), 1u);
  EXPECT_GE(wiped[0].size, std::strlen("secret-pin") + 1);
  EXPECT_TRUE(wiped[0].wiped);
}

}  // namespace
}  // namespace quorvant::shared::x509
