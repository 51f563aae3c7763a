#pragma once
// Keeps the application's OpenSSL error queue out of a call into the
// library and gives it back unchanged afterwards. A mark alone is not
// enough: the library reports OpenSSL failures by taking the oldest queued
// error off the queue, which would be the application's. So the queued
// errors are set aside first (code, place and data), everything the call
// queues is dropped, and the application's are queued again as they were.
#include <vector>

#include "x509auth/OpenSslErrorQueue.h"

namespace x509auth_provider {

class ErrorQueueGuard {
 public:
  ErrorQueueGuard();
  ~ErrorQueueGuard();
  ErrorQueueGuard(const ErrorQueueGuard&) = delete;
  ErrorQueueGuard& operator=(const ErrorQueueGuard&) = delete;

 private:
  std::vector<x509auth_common::QueuedOpenSslError> saved_;
};

}  // namespace x509auth_provider
