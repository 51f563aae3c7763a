#pragma once
// Answers the library's PIN and password prompts: from an environment
// variable or a file descriptor when the user named one, else from the
// controlling terminal without echo, else not at all (the prompt is
// cancelled and remembered, so the failure can say which one went
// unanswered). A PIN prompt is told from a password prompt by its title.
#include <string>

#include "x509_auth.h"

namespace x509auth_tool {

struct PromptSources {
  std::string pin_env, password_env;
  int pin_fd = -1, password_fd = -1;
};

class PinPrompt {
 public:
  static void Configure(const PromptSources& sources);

  // The library's PIN-entry and release callbacks. The answer lives only
  // until the library hands it back; it is wiped then.
  static X509_Auth_PinEntryResult* OnPinEntry(const char* title, const char* prompt);
  static void OnFree(X509_Auth_PinEntryResult* result);

  // "... went unanswered" text of the last cancelled prompt; empty if none.
  static const std::string& LastUnanswered();
};

}  // namespace x509auth_tool
