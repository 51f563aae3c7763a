// Recognising a token or session that went away, from a CK_RV, a session
// probe's code, or the error libp11 leaves in OpenSSL's queue.
#include <gtest/gtest.h>
#include <libp11.h>
#include <openssl/err.h>

#include "smartcard/TokenLoss.h"

namespace x509auth_test {
namespace {

using quorvant::shared::x509::TokenLoss;

// libp11 records a failing CK_RV as an error of its own library (the code
// ERR_get_CKR_code gives) with the CK_RV as the reason.
void RaiseAsLibp11(CK_RV rv) { ERR_raise(ERR_get_CKR_code(), static_cast<int>(rv)); }

TEST(TokenLossTest, OnlyTheFourRemovalResultsCount) {
  for (CK_RV rv :
       {CKR_DEVICE_REMOVED, CKR_TOKEN_NOT_PRESENT, CKR_SESSION_HANDLE_INVALID, CKR_SESSION_CLOSED})
    EXPECT_TRUE(TokenLoss::IsLossResult(rv)) << rv;
  for (CK_RV rv :
       {CKR_OK, CKR_PIN_INCORRECT, CKR_FUNCTION_FAILED, CKR_DEVICE_ERROR, CKR_USER_NOT_LOGGED_IN})
    EXPECT_FALSE(TokenLoss::IsLossResult(rv)) << rv;
}

TEST(TokenLossTest, ProbeCodesAreTheResultNegated) {
  EXPECT_TRUE(TokenLoss::IsLossProbe(-static_cast<int>(CKR_DEVICE_REMOVED)));
  EXPECT_TRUE(TokenLoss::IsLossProbe(-static_cast<int>(CKR_TOKEN_NOT_PRESENT)));
  EXPECT_FALSE(TokenLoss::IsLossProbe(0));
  // The probe's own "token unusable" code is no removal.
  EXPECT_FALSE(TokenLoss::IsLossProbe(-1));
  EXPECT_FALSE(TokenLoss::IsLossProbe(static_cast<int>(CKR_DEVICE_REMOVED)));
}

TEST(TokenLossTest, Libp11ErrorInTheQueueIsFoundAndTheQueueKeptInOrder) {
  ERR_clear_error();
  ERR_raise(ERR_LIB_EVP, EVP_R_BAD_DECRYPT);
  RaiseAsLibp11(CKR_SESSION_HANDLE_INVALID);
  ERR_raise_data(ERR_LIB_RSA, RSA_R_DATA_TOO_LARGE, "detail %d", 3);
  const unsigned long first = ERR_peek_error();
  const unsigned long last = ERR_peek_last_error();

  EXPECT_EQ(TokenLoss::LossInErrorQueue(), CKR_SESSION_HANDLE_INVALID);
  EXPECT_TRUE(TokenLoss::InErrorQueue());

  EXPECT_EQ(ERR_get_error(), first);
  const char* data = nullptr;
  int flags = 0;
  const unsigned long middle = ERR_get_error_all(nullptr, nullptr, nullptr, &data, &flags);
  EXPECT_EQ(ERR_GET_LIB(middle), ERR_get_CKR_code());
  EXPECT_EQ(static_cast<CK_RV>(ERR_GET_REASON(middle)), CKR_SESSION_HANDLE_INVALID);
  EXPECT_EQ(ERR_get_error_all(nullptr, nullptr, nullptr, &data, &flags), last);
  ASSERT_NE(data, nullptr);
  EXPECT_STREQ(data, "detail 3");
  EXPECT_EQ(ERR_get_error(), 0u);
}

TEST(TokenLossTest, SameReasonFromAnotherLibraryOrAnotherResultIsNoLoss) {
  ERR_clear_error();
  EXPECT_FALSE(TokenLoss::InErrorQueue());
  // CKR_DEVICE_REMOVED's number as an OpenSSL library's reason.
  ERR_raise(ERR_LIB_EVP, static_cast<int>(CKR_DEVICE_REMOVED));
  RaiseAsLibp11(CKR_PIN_INCORRECT);
  EXPECT_FALSE(TokenLoss::InErrorQueue());
  EXPECT_NE(ERR_peek_error(), 0u);
  ERR_clear_error();
}

}  // namespace
}  // namespace x509auth_test
