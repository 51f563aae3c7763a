#pragma once
#include <p11-kit/pkcs11.h>

#include <vector>

#include "smartcard/TokenLoss.h"
#include "x509auth/OpenSslErrorQueue.h"

namespace quorvant::shared::x509 {

// Sets OpenSSL's error queue aside for the length of a scope, so that what
// the libp11 calls made inside it record can be read on its own: an old
// error left in the queue must not pass for a card pulled now. On the way
// out the earlier entries are put back in front of the new ones, so every
// error line still comes, in order.
class FreshTokenErrors {
 public:
  FreshTokenErrors();
  ~FreshTokenErrors();
  FreshTokenErrors(const FreshTokenErrors&) = delete;
  FreshTokenErrors& operator=(const FreshTokenErrors&) = delete;

  // The first removal result libp11 recorded since the scope began, or
  // CKR_OK.
  CK_RV Loss() const { return TokenLoss::LossInErrorQueue(); }
  bool Lost() const { return Loss() != CKR_OK; }
  // A removal, or a key or object handle the token no longer knows.
  bool LostOrStale() const;

 private:
  std::vector<x509auth_common::QueuedOpenSslError> set_aside_;
};

}  // namespace quorvant::shared::x509
