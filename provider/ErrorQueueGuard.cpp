#include "ErrorQueueGuard.h"

#include <openssl/err.h>

#include <new>

namespace x509auth_provider {

ErrorQueueGuard::ErrorQueueGuard() {
  const char* file = nullptr;
  const char* function = nullptr;
  const char* data = nullptr;
  int line = 0;
  int flags = 0;
  unsigned long code = 0;
  // Room for a full queue before anything is taken off it: running out of
  // memory below costs an error its place or data, never the error.
  saved_.reserve(ERR_NUM_ERRORS);
  while ((code = ERR_get_error_all(&file, &line, &function, &data, &flags)) != 0) {
    SavedError saved;
    saved.code = code;
    saved.line = line;
    try {
      saved.file = file != nullptr ? file : "";
      saved.function = function != nullptr ? function : "";
      saved.has_data = data != nullptr && (flags & ERR_TXT_STRING) != 0;
      if (saved.has_data) saved.data = data;
    } catch (const std::bad_alloc&) {
      saved.has_data = false;
    }
    saved_.push_back(std::move(saved));
  }
}

ErrorQueueGuard::~ErrorQueueGuard() {
  ERR_clear_error();
  for (const SavedError& saved : saved_) {
    ERR_new();
    ERR_set_debug(saved.file.empty() ? nullptr : saved.file.c_str(), saved.line,
                  saved.function.empty() ? nullptr : saved.function.c_str());
    if (saved.has_data)
      ERR_set_error(ERR_GET_LIB(saved.code), ERR_GET_REASON(saved.code), "%s", saved.data.c_str());
    else
      ERR_set_error(ERR_GET_LIB(saved.code), ERR_GET_REASON(saved.code), nullptr);
  }
}

}  // namespace x509auth_provider
