#pragma once
#include <cstddef>
#include <vector>

#include "x509_auth.h"

namespace quorvant::shared::x509 {

// The host's answer to one PIN or password prompt, and the only place that
// asks. The host's record is held until this goes, then handed back through
// the release callback copied before the prompt, on every way out (an
// exception included), so releases keep their place among the caller's steps.
// The entered text is read from a copy, wiped when this goes.
class PromptAnswer {
 public:
  // Asks through the host's PIN-entry callback; nothing is asked when the
  // host installed none.
  PromptAnswer(const char* title, const char* prompt);
  ~PromptAnswer();
  PromptAnswer(const PromptAnswer&) = delete;
  PromptAnswer& operator=(const PromptAnswer&) = delete;

  // False when the host installed no PIN-entry callback.
  bool Asked() const { return asked_; }
  // False when nothing was asked or the host's callback returned null.
  bool Received() const { return result_ != nullptr; }
  // The host's status, 0 meaning a value was supplied; only when Received().
  int Status() const { return status_; }
  // The copy of the entered text, or null when the host gave none.
  const char* Text() const;
  std::size_t Length() const { return has_text_ ? text_.size() - 1 : 0; }

 private:
  void CopyText(const char* value);
  void Release();

  bool asked_ = false;
  X509_Auth_FreePinEntryResultCallback release_ = nullptr;
  X509_Auth_PinEntryResult* result_ = nullptr;
  int status_ = 0;
  bool has_text_ = false;
  std::vector<unsigned char> text_;
};

}  // namespace quorvant::shared::x509
