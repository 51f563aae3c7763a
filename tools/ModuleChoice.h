#pragma once
// Which PKCS#11 module the tool has the library load: --module PATH, else
// $X509AUTH_MODULE, else Debian's OpenSC module when it is installed, else
// none (file certificates only). The same default and the same two forms as
// the provider's pkcs11_module: an absolute path, or the word "none". The
// working directory is never looked at, and a relative value is never
// resolved: it is refused before anything is loaded.
#include <optional>
#include <string>

namespace x509auth_tool {

class ModuleChoice {
 public:
  static constexpr const char* k_debian_opensc =
      "/usr/lib/x86_64-linux-gnu/pkcs11/opensc-pkcs11.so";
  static constexpr const char* k_no_module = "none";

  struct Outcome {
    std::optional<std::string> path;  // the module, "" for none; nullopt: refused
    int exit_status = 0;              // when refused: usage or failure
  };

  // |option| is --module's value when it was given. A refusal has been
  // printed (one line): a relative or empty value (usage), or a module that
  // cannot be loaded or has no C_GetFunctionList (failure).
  static Outcome Resolve(const std::optional<std::string>& option);
};

}  // namespace x509auth_tool
