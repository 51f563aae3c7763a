#include "smartcard/TokenLoss.h"

#include <libp11.h>
#include <openssl/err.h>

namespace quorvant::shared::x509 {

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

std::vector<TokenLoss::QueuedError> TokenLoss::TakeErrorQueue() {
  std::vector<QueuedError> queued;
  for (;;) {
    const char* file = nullptr;
    const char* function = nullptr;
    const char* data = nullptr;
    int line = 0;
    int flags = 0;
    const unsigned long code = ERR_get_error_all(&file, &line, &function, &data, &flags);
    if (code == 0) break;
    const bool has_data = data != nullptr && (flags & ERR_TXT_STRING) != 0;
    queued.push_back({code, file, line, function, has_data ? data : "", has_data});
  }
  return queued;
}

void TokenLoss::RaiseAgain(const std::vector<QueuedError>& errors) {
  for (const QueuedError& error : errors) {
    ERR_new();
    ERR_set_debug(error.file, error.line, error.function);
    if (error.has_data)
      ERR_set_error(ERR_GET_LIB(error.code), ERR_GET_REASON(error.code), "%s", error.data.c_str());
    else
      ERR_set_error(ERR_GET_LIB(error.code), ERR_GET_REASON(error.code), nullptr);
  }
}

CK_RV TokenLoss::LossInErrorQueue() { return FirstInErrorQueue(IsLossResult); }

CK_RV TokenLoss::FirstInErrorQueue(bool (*matches)(CK_RV)) {
  const int libp11 = ERR_get_CKR_code();
  const std::vector<QueuedError> queued = TakeErrorQueue();
  CK_RV found = CKR_OK;
  for (const QueuedError& error : queued) {
    const auto reason = static_cast<CK_RV>(ERR_GET_REASON(error.code));
    if (libp11 != 0 && ERR_GET_LIB(error.code) == libp11 && matches(reason)) {
      found = reason;
      break;
    }
  }
  RaiseAgain(queued);
  return found;
}

}  // namespace quorvant::shared::x509
