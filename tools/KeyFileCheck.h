#pragma once
// What `doctor` says about a certificate file's private-key file, read with
// the library's own key readers and matched with its own rule.
#include <openssl/x509.h>

#include <filesystem>
#include <string>

namespace x509auth_tool {

struct KeyFileStatus {
  // "missing", "plain", "encrypted", "unreadable" or "does-not-match".
  std::string status;
  std::string detail;  // why, for unreadable
};

// Encrypted keys are recognised without asking for their password, so the
// check never prompts.
KeyFileStatus CheckKeyFile(X509* cert, const std::filesystem::path& cert_path,
                           const std::filesystem::path& key_path);

}  // namespace x509auth_tool
