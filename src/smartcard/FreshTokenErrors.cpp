#include "smartcard/FreshTokenErrors.h"

namespace quorvant::shared::x509 {

FreshTokenErrors::FreshTokenErrors() : set_aside_(TokenLoss::TakeErrorQueue()) {}

FreshTokenErrors::~FreshTokenErrors() {
  const std::vector<TokenLoss::QueuedError> fresh = TokenLoss::TakeErrorQueue();
  TokenLoss::RaiseAgain(set_aside_);
  TokenLoss::RaiseAgain(fresh);
}

bool FreshTokenErrors::LostOrStale() const {
  return Lost() || TokenLoss::FirstInErrorQueue(TokenLoss::IsStaleHandleResult) != CKR_OK;
}

}  // namespace quorvant::shared::x509
