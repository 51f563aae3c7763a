#include "ErrorQueueGuard.h"

#include <openssl/err.h>

namespace x509auth_provider {

ErrorQueueGuard::ErrorQueueGuard() : saved_(x509auth_common::TakeOpenSslErrors()) {}

ErrorQueueGuard::~ErrorQueueGuard() {
  ERR_clear_error();
  x509auth_common::RaiseOpenSslErrors(saved_);
}

}  // namespace x509auth_provider
