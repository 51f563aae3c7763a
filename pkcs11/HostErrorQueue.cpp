#include "HostErrorQueue.h"

#include <openssl/err.h>

namespace x509auth_pkcs11 {
namespace {

// More than the queue can hold (ERR_NUM_ERRORS); only a guard against a
// loop without end.
constexpr int k_most = 1024;

}  // namespace

HostErrorQueue::HostErrorQueue() noexcept {
  while (marks_ < k_most && ERR_clear_last_mark() == 1) ++marks_;
  try {
    for (int taken = 0; taken < k_most; ++taken) {
      const char* file = nullptr;
      const char* function = nullptr;
      const char* data = nullptr;
      int line = 0;
      int flags = 0;
      const unsigned long code = ERR_get_error_all(&file, &line, &function, &data, &flags);
      if (code == 0) break;
      Error error;
      error.code = code;
      error.file = file != nullptr ? file : "";
      error.line = line;
      error.function = function != nullptr ? function : "";
      error.has_text = (flags & ERR_TXT_STRING) != 0 && data != nullptr;
      if (error.has_text) error.data = data;
      saved_.push_back(std::move(error));
    }
  } catch (...) {
    // Out of memory: what was not saved is lost, the call goes on.
  }
}

HostErrorQueue::~HostErrorQueue() {
  ERR_clear_error();
  for (const Error& error : saved_) {
    ERR_new();
    ERR_set_debug(error.file.empty() ? nullptr : error.file.c_str(), error.line,
                  error.function.empty() ? nullptr : error.function.c_str());
    if (error.has_text)
      ERR_set_error(ERR_GET_LIB(error.code), ERR_GET_REASON(error.code), "%s", error.data.c_str());
    else
      ERR_set_error(ERR_GET_LIB(error.code), ERR_GET_REASON(error.code), nullptr);
  }
  for (int i = 0; i < marks_; ++i) ERR_set_mark();
}

}  // namespace x509auth_pkcs11
