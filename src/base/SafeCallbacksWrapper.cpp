#include "SafeCallbacksWrapper.h"

#include <openssl/err.h>

#include <cstdarg>

namespace quorvant::shared::x509 {

SafeCallbacksWrapper& SafeCallbacksWrapper::GetInstance() {
  static SafeCallbacksWrapper instance;
  return instance;
}

void SafeCallbacksWrapper::Replace(const X509_Auth_Callbacks& callbacks) {
  log_ = callbacks.log;
  pin_entry_ = callbacks.pin_entry;
  message_ = callbacks.message;
  free_pin_entry_result_ = callbacks.free_pin_entry_result;
}

void SafeCallbacksWrapper::Log(X509_Auth_LogPriority priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  LogV(priority, format, arguments);
  va_end(arguments);
}

void SafeCallbacksWrapper::LogV(X509_Auth_LogPriority priority, const char* format,
                                va_list arguments) {
  const X509_Auth_LogCallback log = GetInstance().log_;
  if (log != nullptr) log(priority, format, arguments);
}

namespace {

int LogOpenSslErrorLine(const char* text, size_t /*length*/, void* /*user*/) {
  SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Info, "%s", text);
  // Returning 0 makes OpenSSL stop after this line; the others stay queued.
  return 0;
}

}  // namespace

void LogAllOpenSslErrors() {
  if (ERR_peek_last_error() != 0) ERR_print_errors_cb(LogOpenSslErrorLine, nullptr);
}

void LogWithOpenSslErrors(X509_Auth_LogPriority priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  SafeCallbacksWrapper::LogV(priority, format, arguments);
  va_end(arguments);
  LogAllOpenSslErrors();
}

}  // namespace quorvant::shared::x509
