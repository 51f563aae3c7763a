#pragma once
// OpenSSL offers no way to read past the oldest entry of a thread's error
// queue without taking it off. The library (to tell a card pulled now from
// an old error), the provider and the PKCS#11 module (to give the
// application its queue back as it was) set a queue aside and raise it
// again; this is the one copy of how. Header-only: each component keeps its
// own, hidden, as with every common header.
#include <openssl/err.h>

#include <string>
#include <vector>

namespace x509auth_common {

// One entry of the queue, enough to raise it again as it was.
struct QueuedOpenSslError {
  unsigned long code = 0;
  std::string file, function, data;
  int line = 0;
  bool has_data = false;
};

// Takes every entry off the calling thread's queue, oldest first. Room for
// a full queue is made first, so that running out of memory later costs an
// entry its place or data, never the entry.
inline std::vector<QueuedOpenSslError> TakeOpenSslErrors() noexcept {
  // More than the queue can hold (ERR_NUM_ERRORS); only a guard against a
  // loop without end.
  constexpr int k_most = 1024;
  std::vector<QueuedOpenSslError> queued;
  try {
    queued.reserve(ERR_NUM_ERRORS);
  } catch (...) {
  }
  for (int taken = 0; taken < k_most; ++taken) {
    const char* file = nullptr;
    const char* function = nullptr;
    const char* data = nullptr;
    int line = 0;
    int flags = 0;
    const unsigned long code = ERR_get_error_all(&file, &line, &function, &data, &flags);
    if (code == 0) break;
    try {
      queued.emplace_back();
    } catch (...) {
      continue;  // Only past a full queue's room, with no memory left.
    }
    QueuedOpenSslError& error = queued.back();
    error.code = code;
    error.line = line;
    try {
      error.file = file != nullptr ? file : "";
      error.function = function != nullptr ? function : "";
      error.has_data = data != nullptr && (flags & ERR_TXT_STRING) != 0;
      if (error.has_data) error.data = data;
    } catch (...) {
      error.has_data = false;
    }
  }
  return queued;
}

// Queues |errors| again, oldest first, after whatever the queue holds.
inline void RaiseOpenSslErrors(const std::vector<QueuedOpenSslError>& errors) noexcept {
  for (const QueuedOpenSslError& error : errors) {
    ERR_new();
    ERR_set_debug(error.file.empty() ? nullptr : error.file.c_str(), error.line,
                  error.function.empty() ? nullptr : error.function.c_str());
    if (error.has_data)
      ERR_set_error(ERR_GET_LIB(error.code), ERR_GET_REASON(error.code), "%s", error.data.c_str());
    else
      ERR_set_error(ERR_GET_LIB(error.code), ERR_GET_REASON(error.code), nullptr);
  }
}

}  // namespace x509auth_common
