#pragma once
#include <cstdarg>

#include "x509_auth.h"

namespace quorvant::shared::x509 {

// Holds the host's four callbacks for the whole process and makes every call
// safe when the host left one out. The slots are not locked: only
// X509_Auth_Init writes them, and the host must not overlap it with any other
// call.
class SafeCallbacksWrapper {
 public:
  static SafeCallbacksWrapper& GetInstance();

  SafeCallbacksWrapper(const SafeCallbacksWrapper&) = delete;
  SafeCallbacksWrapper& operator=(const SafeCallbacksWrapper&) = delete;

  // Replaces the slots in the order log, PIN entry, message, free PIN entry
  // result; a null pointer empties its slot.
  void Replace(const X509_Auth_Callbacks& callbacks);

  // Hands |format| and its arguments to the host's log callback unformatted:
  // the host formats, so there is no buffer and no truncation here.
  static void Log(X509_Auth_LogPriority priority, const char* format, ...)
      __attribute__((format(printf, 2, 3)));
  static void LogV(X509_Auth_LogPriority priority, const char* format, va_list arguments);

  X509_Auth_LogCallback LogCallback() const { return log_; }
  X509_Auth_PinEntryCallback PinEntryCallback() const { return pin_entry_; }
  X509_Auth_FreePinEntryResultCallback FreePinEntryResultCallback() const {
    return free_pin_entry_result_;
  }
  X509_Auth_MessageCallback MessageCallback() const { return message_; }

 private:
  SafeCallbacksWrapper() = default;

  X509_Auth_LogCallback log_ = nullptr;
  X509_Auth_PinEntryCallback pin_entry_ = nullptr;
  X509_Auth_FreePinEntryResultCallback free_pin_entry_result_ = nullptr;
  X509_Auth_MessageCallback message_ = nullptr;
};

// Logs the first queued OpenSSL error line at priority 1, if any is queued.
// The print callback stops OpenSSL after one line, so the rest stay queued.
void LogAllOpenSslErrors();

// Logs one line, then the first queued OpenSSL error line if any: how a
// failed OpenSSL call is reported, the line first so the host reads why.
void LogWithOpenSslErrors(X509_Auth_LogPriority priority, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

}  // namespace quorvant::shared::x509
