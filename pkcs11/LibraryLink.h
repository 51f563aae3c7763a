#pragma once
// The module's link to its own private copy of the library, used only
// through x509_auth.h as any host uses it. The module initialises that copy
// at C_Initialize and ends it at C_Finalize; no other component of the
// process sees it. Every call through here runs under the module's lock
// (Module), which is also what makes the prompt routing below safe.
#include <string>

#include "ModuleSettings.h"
#include "Pin.h"
#include "x509_auth.h"

namespace x509auth_pkcs11 {

// What the library's PIN and password prompts met during one call.
struct PromptRecord {
  int asked = 0;     // prompts the library made
  int answered = 0;  // of which answered with the login PIN
  int withheld = 0;  // token PIN prompts refused: the login PIN was a key file's
};

using SignHashPssFunction = X509_Auth_Result (*)(const uint8_t*, X509_Auth_HashType,
                                                 const unsigned char*, int32_t,
                                                 const X509_Auth_Signature**);

class LibraryLink {
 public:
  // X509_Auth_Init with the module's callbacks, then the PKCS#11 module
  // choice (never the working-directory lookup) and the CA files. False,
  // with |failure| set, when the library cannot be started.
  bool Start(const ModuleSettings& settings, std::string& failure);
  // X509_Auth_DeInit, when started.
  void Stop();
  bool Started() const { return started_; }

  // Routes the prompts made while it lives and counts them in |record|. A
  // key file's password prompt gets |pin|; a token's PIN prompt gets it only
  // when |pin_for_tokens| (the login PIN was the card's), so that a key
  // file's password never reaches a card or its module. Without |pin| every
  // prompt is cancelled. One at a time, under the lock.
  class PromptScope {
   public:
    PromptScope(const Pin* pin, bool pin_for_tokens, PromptRecord& record);
    ~PromptScope();
    PromptScope(const PromptScope&) = delete;
    PromptScope& operator=(const PromptScope&) = delete;
  };

  // X509_Auth_SignHashPss of the library (null before Start).
  SignHashPssFunction SignHashPss() const { return sign_hash_pss_; }

  // The module path to give the library: the configured one, or "" when it
  // is this module itself, a p11-kit proxy (which could lead back here), not
  // absolute, or not wanted (token certificates off). Logs why it refused.
  static std::string ChooseTokenModule(const ModuleSettings& settings);

 private:
  bool started_ = false;
  SignHashPssFunction sign_hash_pss_ = nullptr;
};

}  // namespace x509auth_pkcs11
