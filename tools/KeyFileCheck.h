#pragma once
// What `doctor` says about a certificate file's private-key file, read with
// the library's own key readers and matched with its own rule.
#include <openssl/x509.h>

#include <filesystem>
#include <optional>
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

// "the key file K is open to its group or others (mode 0644); ssh refuses
// such a key: chmod 600 K" when the key file (links followed) has any group
// or other permission bit; nullopt otherwise, or when there is no such file.
std::optional<std::string> KeyFileExposure(const std::filesystem::path& key_path);

// "D can be written by its group or others (mode 0777): ..." for a folder
// (links followed) with a group or other write bit; nullopt otherwise.
// |holds| says what may be planted there ("certificates", "keys").
std::optional<std::string> WritableFolder(const std::filesystem::path& folder,
                                          const std::string& holds);

}  // namespace x509auth_tool
