#pragma once
// A test whose library calls log and prompt into the recorder, emptied first,
// with OpenSSL's error queue empty when it starts and when it ends. Header
// only: the shared support library links no internal layer.
#include <gtest/gtest.h>
#include <openssl/err.h>

#include "RecordingCallbacks.h"
#include "base/SafeCallbacksWrapper.h"

namespace x509auth_test {

class RecordedCallbacksTest : public ::testing::Test {
 protected:
  // Done at construction and destruction, so that a suite's own SetUp and
  // TearDown need not call back here.
  RecordedCallbacksTest() {
    rec().Reset();
    quorvant::shared::x509::SafeCallbacksWrapper::GetInstance().Replace(rec().Callbacks());
    ERR_clear_error();
  }
  ~RecordedCallbacksTest() override {
    quorvant::shared::x509::SafeCallbacksWrapper::GetInstance().Replace(X509_Auth_Callbacks{});
    rec().Reset();
    ERR_clear_error();
  }
  static RecordingCallbacks& rec() { return RecordingCallbacks::GetInstance(); }
};

}  // namespace x509auth_test
