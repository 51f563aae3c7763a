#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include "RecordingCallbacks.h"
#include "base/SafeCallbacksWrapper.h"

namespace quorvant::shared::x509 {
namespace {

using x509auth_test::PinAnswer;
using x509auth_test::RecordingCallbacks;

// How many errors OpenSSL's queue still held; it is empty after.
int DrainErrorQueue() {
  int remaining = 0;
  while (ERR_get_error() != 0) ++remaining;
  return remaining;
}

class SafeCallbacksWrapperTest : public ::testing::Test {
 protected:
  void SetUp() override {
    recorder().Reset();
    ERR_clear_error();
  }
  void TearDown() override {
    SafeCallbacksWrapper::GetInstance().Replace(X509_Auth_Callbacks{});
    ERR_clear_error();
  }
  static RecordingCallbacks& recorder() { return RecordingCallbacks::GetInstance(); }
};

TEST_F(SafeCallbacksWrapperTest, GetInstanceReturnsTheSameObject) {
  EXPECT_EQ(&SafeCallbacksWrapper::GetInstance(), &SafeCallbacksWrapper::GetInstance());
}

TEST_F(SafeCallbacksWrapperTest, SlotsStartEmpty) {
  // Nothing in this process installed callbacks before this test.
  const SafeCallbacksWrapper& wrapper = SafeCallbacksWrapper::GetInstance();
  EXPECT_EQ(wrapper.LogCallback(), nullptr);
  EXPECT_EQ(wrapper.PinEntryCallback(), nullptr);
  EXPECT_EQ(wrapper.FreePinEntryResultCallback(), nullptr);
  EXPECT_EQ(wrapper.MessageCallback(), nullptr);
}

TEST_F(SafeCallbacksWrapperTest, LogHandsOverTheRawFormatAndItsArguments) {
  SafeCallbacksWrapper::GetInstance().Replace(recorder().Callbacks());
  SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Warning, "cert: [%s] %d", "Alice", 7);
  ASSERT_EQ(recorder().Logs().size(), 1u);
  EXPECT_EQ(recorder().Logs()[0].priority, X509_Auth_LogPriority_Warning);
  EXPECT_EQ(recorder().Logs()[0].format, "cert: [%s] %d");
  EXPECT_EQ(recorder().Logs()[0].text, "cert: [Alice] 7");
}

TEST_F(SafeCallbacksWrapperTest, LogDoesNotTruncateLongMessages) {
  SafeCallbacksWrapper::GetInstance().Replace(recorder().Callbacks());
  const std::string long_text(100000, 'x');
  SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Debug, "%s", long_text.c_str());
  ASSERT_EQ(recorder().Logs().size(), 1u);
  EXPECT_EQ(recorder().Logs()[0].text, long_text);
}

TEST_F(SafeCallbacksWrapperTest, AllNullCallbacksDropEveryLogCall) {
  SafeCallbacksWrapper::GetInstance().Replace(recorder().Callbacks(false, false, false, false));
  SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error, "dropped %d", 1);
  EXPECT_TRUE(recorder().Logs().empty());
  const SafeCallbacksWrapper& wrapper = SafeCallbacksWrapper::GetInstance();
  EXPECT_EQ(wrapper.PinEntryCallback(), nullptr);
  EXPECT_EQ(wrapper.FreePinEntryResultCallback(), nullptr);
  EXPECT_EQ(wrapper.MessageCallback(), nullptr);
}

TEST_F(SafeCallbacksWrapperTest, ASecondReplaceWithNullLogSilencesLogging) {
  SafeCallbacksWrapper::GetInstance().Replace(recorder().Callbacks());
  SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Info, "first");
  SafeCallbacksWrapper::GetInstance().Replace(recorder().Callbacks(false, true, true, true));
  SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Info, "second");
  ASSERT_EQ(recorder().Logs().size(), 1u);
  EXPECT_EQ(recorder().Logs()[0].text, "first");
  EXPECT_NE(SafeCallbacksWrapper::GetInstance().PinEntryCallback(), nullptr);
}

TEST_F(SafeCallbacksWrapperTest, ReplaceInstallsEachSlotFromItsOwnField) {
  const X509_Auth_Callbacks callbacks = recorder().Callbacks();
  SafeCallbacksWrapper::GetInstance().Replace(callbacks);
  const SafeCallbacksWrapper& wrapper = SafeCallbacksWrapper::GetInstance();
  EXPECT_EQ(wrapper.LogCallback(), callbacks.log);
  EXPECT_EQ(wrapper.PinEntryCallback(), callbacks.pin_entry);
  EXPECT_EQ(wrapper.FreePinEntryResultCallback(), callbacks.free_pin_entry_result);
  EXPECT_EQ(wrapper.MessageCallback(), callbacks.message);
}

TEST_F(SafeCallbacksWrapperTest, LogAllOpenSslErrorsLogsOneLineAndLeavesTheRestQueued) {
  SafeCallbacksWrapper::GetInstance().Replace(recorder().Callbacks());
  ERR_put_error(ERR_LIB_X509, 0, X509_R_CERT_ALREADY_IN_HASH_TABLE, "first.c", 1);
  ERR_put_error(ERR_LIB_PEM, 0, PEM_R_NO_START_LINE, "second.c", 2);
  ERR_put_error(ERR_LIB_EVP, 0, EVP_R_BAD_DECRYPT, "third.c", 3);

  LogAllOpenSslErrors();

  ASSERT_EQ(recorder().Logs().size(), 1u);
  EXPECT_EQ(recorder().Logs()[0].priority, X509_Auth_LogPriority_Info);
  EXPECT_EQ(recorder().Logs()[0].format, "%s");
  // The oldest error is the one handed over; its text names its reason.
  EXPECT_NE(recorder().Logs()[0].text.find("cert already in hash table"), std::string::npos)
      << recorder().Logs()[0].text;
  EXPECT_EQ(DrainErrorQueue(), 2);
}

TEST_F(SafeCallbacksWrapperTest, LogAllOpenSslErrorsWithAnEmptyQueueLogsNothing) {
  SafeCallbacksWrapper::GetInstance().Replace(recorder().Callbacks());
  LogAllOpenSslErrors();
  EXPECT_TRUE(recorder().Logs().empty());
}

TEST_F(SafeCallbacksWrapperTest, LogAllOpenSslErrorsWithoutALogCallbackStillStopsAfterOneLine) {
  SafeCallbacksWrapper::GetInstance().Replace(recorder().Callbacks(false));
  ERR_put_error(ERR_LIB_X509, 0, X509_R_CERT_ALREADY_IN_HASH_TABLE, "first.c", 1);
  ERR_put_error(ERR_LIB_PEM, 0, PEM_R_NO_START_LINE, "second.c", 2);
  LogAllOpenSslErrors();
  EXPECT_EQ(DrainErrorQueue(), 1);
}

TEST_F(SafeCallbacksWrapperTest, LogWithOpenSslErrorsLogsItsLineThenTheFirstQueuedError) {
  SafeCallbacksWrapper::GetInstance().Replace(recorder().Callbacks());
  ERR_put_error(ERR_LIB_X509, 0, X509_R_CERT_ALREADY_IN_HASH_TABLE, "first.c", 1);
  ERR_put_error(ERR_LIB_PEM, 0, PEM_R_NO_START_LINE, "second.c", 2);

  LogWithOpenSslErrors(X509_Auth_LogPriority_Error, "Failed to parse [%s] (%i)", "k.pem", 7);

  ASSERT_EQ(recorder().Logs().size(), 2u) << recorder().Dump();
  EXPECT_EQ(recorder().Logs()[0].priority, X509_Auth_LogPriority_Error);
  EXPECT_EQ(recorder().Logs()[0].format, "Failed to parse [%s] (%i)");
  EXPECT_EQ(recorder().Logs()[0].text, "Failed to parse [k.pem] (7)");
  EXPECT_EQ(recorder().Logs()[1].priority, X509_Auth_LogPriority_Info);
  EXPECT_NE(recorder().Logs()[1].text.find("cert already in hash table"), std::string::npos)
      << recorder().Logs()[1].text;
  EXPECT_EQ(DrainErrorQueue(), 1);
}

TEST_F(SafeCallbacksWrapperTest, LogWithOpenSslErrorsWithAnEmptyQueueLogsOnlyItsLine) {
  SafeCallbacksWrapper::GetInstance().Replace(recorder().Callbacks());
  LogWithOpenSslErrors(X509_Auth_LogPriority_Warning, "no context");
  ASSERT_EQ(recorder().Logs().size(), 1u) << recorder().Dump();
  EXPECT_TRUE(recorder().Has(X509_Auth_LogPriority_Warning, "no context", "no context"));
}

}  // namespace
}  // namespace quorvant::shared::x509
