#include "smartcard/TokenLoss.h"

#include <libp11.h>
#include <openssl/err.h>

#include <string>
#include <vector>

namespace quorvant::shared::x509 {

bool TokenLoss::IsLossResult(CK_RV result) {
  return result == CKR_DEVICE_REMOVED || result == CKR_TOKEN_NOT_PRESENT ||
         result == CKR_SESSION_HANDLE_INVALID || result == CKR_SESSION_CLOSED;
}

bool TokenLoss::IsLossProbe(int probe) {
  return probe < 0 && IsLossResult(static_cast<CK_RV>(-static_cast<long>(probe)));
}

namespace {

struct QueuedError {
  unsigned long code;
  const char* file;
  int line;
  const char* function;
  std::string data;
  bool has_data;
};

}  // namespace

CK_RV TokenLoss::LossInErrorQueue() {
  // OpenSSL offers no way to read past the oldest entry without taking it,
  // so the entries are taken, read, and raised again in the same order.
  const int libp11 = ERR_get_CKR_code();
  std::vector<QueuedError> queued;
  CK_RV found = CKR_OK;
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
    const auto reason = static_cast<CK_RV>(ERR_GET_REASON(code));
    if (found == CKR_OK && libp11 != 0 && ERR_GET_LIB(code) == libp11 && IsLossResult(reason))
      found = reason;
  }
  for (const QueuedError& error : queued) {
    ERR_new();
    ERR_set_debug(error.file, error.line, error.function);
    if (error.has_data)
      ERR_set_error(ERR_GET_LIB(error.code), ERR_GET_REASON(error.code), "%s", error.data.c_str());
    else
      ERR_set_error(ERR_GET_LIB(error.code), ERR_GET_REASON(error.code), nullptr);
  }
  return found;
}

}  // namespace quorvant::shared::x509
