#pragma once
// What the module hands the library, read once per C_Initialize: a small
// "key = value" file (X509AUTH_PKCS11_CONF, else
// $XDG_CONFIG_HOME/x509auth/pkcs11.conf or ~/.config/x509auth/pkcs11.conf,
// else /etc/x509auth/pkcs11.conf), each value overridden by its environment
// variable (X509AUTH_DIRS, X509AUTH_HOME_DIRS, X509AUTH_CA_FILES,
// X509AUTH_MODULE, X509AUTH_LOG).
#include <string>
#include <vector>

#include "x509auth/LogLevel.h"

namespace x509auth_pkcs11 {

struct ModuleSettings {
  std::vector<std::string> dirs;
  std::vector<std::string> home_dirs{".x509-auth"};
  std::vector<std::string> ca_files;
  // The PKCS#11 module the library loads for token certificates; empty for
  // none. Only used when token_certificates is on.
  std::string module;
  bool token_certificates = false;
  // Lowest priority written to stderr (0 debug .. 3 error); 4: nothing.
  int log_threshold = 4;
  // The settings file that was read, or empty.
  std::string config_file;
  // Why the settings file was not read (it is not a regular file, is too
  // large or cannot be opened), or empty; a file that is not there is no
  // refusal.
  std::string file_refusal;
  // Lines about the settings themselves (an unknown key, a bad value), logged
  // once the threshold is known.
  std::vector<std::string> problems;

  // Reads the file and the environment. Never fails: what cannot be used is
  // reported in |problems| and left at its default.
  static ModuleSettings Load();
  // Parses settings text as a file holds it, on top of |settings|.
  static void ParseText(const std::string& text, ModuleSettings& settings);

  // A short text naming these settings; the token's serial number is
  // derived from it, so it stays the same across runs with the same settings.
  std::string Fingerprint() const;
};

// The log threshold words, shared with the provider.
using x509auth_common::ParseLogLevel;

}  // namespace x509auth_pkcs11
