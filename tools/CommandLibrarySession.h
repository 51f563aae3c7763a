#pragma once
// One use of the library, as any host makes it: callbacks installed, the
// PKCS#11 module chosen and the directories set (X509_Auth_Init), the extra
// CAs added, the certificates listed once, and X509_Auth_DeInit at the end.
#include <optional>
#include <string>
#include <vector>

#include "GlobalOptions.h"
#include "x509_auth.h"
#include "x509auth/LibraryOwned.h"

namespace x509auth_tool {

class CommandLibrarySession {
 public:
  explicit CommandLibrarySession(const GlobalOptions& options);
  ~CommandLibrarySession();
  CommandLibrarySession(const CommandLibrarySession&) = delete;
  CommandLibrarySession& operator=(const CommandLibrarySession&) = delete;

  // Initialises the library and adds the CAs; false after printing why.
  bool Start();

  // The tool's callbacks, for a layer of the library that is not started
  // through X509_Auth_Init (see OfferingReport).
  static X509_Auth_Callbacks Callbacks();
  // The directories of the command line; the default when none was given.
  // Points into this session.
  X509_Auth_Settings Settings();
  // Reads a --add-ca file; nullopt after printing why.
  static std::optional<std::vector<unsigned char>> ReadCaFile(const std::string& path);
  // Lists the offered certificates (once); false after printing why.
  bool Load();
  const std::vector<const X509_Auth_Certificate*>& Records() const { return records_; }

  // The record |argument| names (a full thumbprint or a unique prefix), or
  // null after printing why: the candidates, or why a certificate with that
  // thumbprint exists but is not offered.
  const X509_Auth_Certificate* Find(const std::string& argument);

  // Appends the unanswered prompt, if any, to a failure message.
  static std::string WithPromptNote(const std::string& message);
  // The failure line of a key operation (sign, decrypt) that returned
  // |code|: a wrong password or PIN said as such, else the code's meaning.
  static std::string KeyFailure(const std::string& what, const X509_Auth_Result& result);
  // Whether the step's library lines show a card pulled during its login.
  static bool CardRemovedDuringLogin();

 private:
  const GlobalOptions& options_;
  std::vector<const char*> dirs_, home_dirs_;
  bool started_ = false;
  bool loaded_ = false;
  x509auth_common::LibraryOwned<X509_Auth_Certificate> array_;
  std::vector<const X509_Auth_Certificate*> records_;
};

}  // namespace x509auth_tool
