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
  std::string module;  // the PKCS#11 module, asked for the PIN tries left
};

class PinPrompt {
 public:
  static void Configure(const PromptSources& sources);

  // The library's PIN-entry and release callbacks. The answer lives only
  // until the library hands it back; it is wiped then. A key file's
  // password is asked for once per command: a later prompt for the same
  // file (the provider reads it for every signature) gets the same answer.
  static X509_Auth_PinEntryResult* OnPinEntry(const char* title, const char* prompt) noexcept;
  static void OnFree(X509_Auth_PinEntryResult* result) noexcept;

  // "... went unanswered" text of the last cancelled prompt; empty if none.
  static const std::string& LastUnanswered();
  // The key file or token label of the last answered prompt; empty if none.
  static const std::string& LastAnswered();
  // What the token of the last PIN prompt reports about the tries left
  // ("one try left", ...); empty when it reports nothing.
  static std::string TriesLeft();

 private:
  // OnPinEntry's work; may throw (std::bad_alloc), which OnPinEntry stops.
  static X509_Auth_PinEntryResult* Ask(const char* title, const char* prompt);
};

}  // namespace x509auth_tool
