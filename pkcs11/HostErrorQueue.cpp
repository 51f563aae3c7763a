#include "HostErrorQueue.h"

#include <openssl/err.h>

namespace x509auth_pkcs11 {
namespace {

// More marks than the queue can hold (ERR_NUM_ERRORS); only a guard
// against a loop without end.
constexpr int k_most_marks = 1024;

}  // namespace

HostErrorQueue::HostErrorQueue() noexcept {
  while (marks_ < k_most_marks && ERR_clear_last_mark() == 1) ++marks_;
  saved_ = x509auth_common::TakeOpenSslErrors();
}

HostErrorQueue::~HostErrorQueue() {
  ERR_clear_error();
  x509auth_common::RaiseOpenSslErrors(saved_);
  for (int i = 0; i < marks_; ++i) ERR_set_mark();
}

}  // namespace x509auth_pkcs11
