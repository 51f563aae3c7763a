#pragma once
// Which PKCS#11 module the tool has the library load: --module PATH, else
// $X509AUTH_MODULE, else Debian's OpenSC module when it is installed, else
// none (file certificates only). The same default as the provider's. The
// working directory is never looked at.
#include <optional>
#include <string>

namespace x509auth_tool {

class ModuleChoice {
 public:
  static constexpr const char* k_debian_opensc =
      "/usr/lib/x86_64-linux-gnu/pkcs11/opensc-pkcs11.so";

  // The absolute path of the module, or "" for none; nullopt after printing
  // why the module the user named cannot be one (not loadable, or no
  // C_GetFunctionList).
  static std::optional<std::string> Resolve(const std::string& option);
};

}  // namespace x509auth_tool
