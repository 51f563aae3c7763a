#include "smartcard/TokenLoss.h"

#include <libp11.h>
#include <openssl/err.h>

#include "x509auth/OpenSslErrorQueue.h"

namespace quorvant::shared::x509 {

using x509auth_common::QueuedOpenSslError;
using x509auth_common::RaiseOpenSslErrors;
using x509auth_common::TakeOpenSslErrors;

bool TokenLoss::IsLossResult(CK_RV result) {
  return result == CKR_DEVICE_REMOVED || result == CKR_TOKEN_NOT_PRESENT ||
         result == CKR_SESSION_HANDLE_INVALID || result == CKR_SESSION_CLOSED;
}

bool TokenLoss::IsStaleHandleResult(CK_RV result) {
  return result == CKR_KEY_HANDLE_INVALID || result == CKR_OBJECT_HANDLE_INVALID;
}

bool TokenLoss::IsLossProbe(int probe) {
  return probe < 0 && IsLossResult(static_cast<CK_RV>(-static_cast<long>(probe)));
}

CK_RV TokenLoss::LossInErrorQueue() { return FirstInErrorQueue(IsLossResult); }

CK_RV TokenLoss::FirstInErrorQueue(bool (*matches)(CK_RV)) {
  const int libp11 = ERR_get_CKR_code();
  // The queue is taken whole to be read, and raised again in its order.
  const std::vector<QueuedOpenSslError> queued = TakeOpenSslErrors();
  CK_RV found = CKR_OK;
  for (const QueuedOpenSslError& error : queued) {
    const auto reason = static_cast<CK_RV>(ERR_GET_REASON(error.code));
    if (libp11 != 0 && ERR_GET_LIB(error.code) == libp11 && matches(reason)) {
      found = reason;
      break;
    }
  }
  RaiseOpenSslErrors(queued);
  return found;
}

}  // namespace quorvant::shared::x509
