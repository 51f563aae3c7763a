#include "smartcard/FreshTokenErrors.h"

namespace quorvant::shared::x509 {

FreshTokenErrors::FreshTokenErrors() : set_aside_(x509auth_common::TakeOpenSslErrors()) {}

FreshTokenErrors::~FreshTokenErrors() {
  const std::vector<x509auth_common::QueuedOpenSslError> fresh =
      x509auth_common::TakeOpenSslErrors();
  x509auth_common::RaiseOpenSslErrors(set_aside_);
  x509auth_common::RaiseOpenSslErrors(fresh);
}

bool FreshTokenErrors::LostOrStale() const {
  return Lost() || TokenLoss::FirstInErrorQueue(TokenLoss::IsStaleHandleResult) != CKR_OK;
}

}  // namespace quorvant::shared::x509
