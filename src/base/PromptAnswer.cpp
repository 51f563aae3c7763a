#include "base/PromptAnswer.h"

#include <cstring>

#include "base/SafeCallbacksWrapper.h"
#include "base/SecretWipe.h"

namespace quorvant::shared::x509 {

PromptAnswer::PromptAnswer(const char* title, const char* prompt) {
  const SafeCallbacksWrapper& callbacks = SafeCallbacksWrapper::GetInstance();
  const X509_Auth_PinEntryCallback pin_entry = callbacks.PinEntryCallback();
  if (pin_entry == nullptr) return;
  asked_ = true;
  // Copied before the prompt so the record goes back to the release
  // function that belongs to the prompt that made it.
  release_ = callbacks.FreePinEntryResultCallback();
  result_ = pin_entry(title, prompt);
  if (result_ == nullptr) return;
  status_ = result_->status;
  try {
    CopyText(result_->value);
  } catch (...) {
    // The destructor does not run for a constructor that throws.
    Release();
    throw;
  }
}

PromptAnswer::~PromptAnswer() {
  Release();
  SecretWipe::Wipe(text_);
}

const char* PromptAnswer::Text() const {
  return has_text_ ? reinterpret_cast<const char*>(text_.data()) : nullptr;
}

void PromptAnswer::CopyText(const char* value) {
  if (value == nullptr) return;
  const std::size_t length = std::strlen(value);
  // Sized once: a reallocation would leave an unwiped copy behind.
  text_.resize(length + 1);
  std::memcpy(text_.data(), value, length + 1);
  has_text_ = true;
}

void PromptAnswer::Release() {
  if (result_ != nullptr && release_ != nullptr) release_(result_);
  result_ = nullptr;
}

}  // namespace quorvant::shared::x509
