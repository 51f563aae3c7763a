#pragma once
// The library loads its PKCS#11 module as "./opensc-pkcs11.so" from the
// working directory. The tool makes the chosen module visible there through
// a private temporary directory holding only that link, enters it, and
// removes both when it ends (normally, on failure or when interrupted).
#include <string>

namespace x509auth_tool {

class ModuleDirectory {
 public:
  // |module| absolute; empty: "./opensc-pkcs11.so" of the working directory
  // when it exists, else the system's OpenSC module. Throws
  // std::runtime_error when the directory cannot be made or entered.
  explicit ModuleDirectory(const std::string& module);
  ~ModuleDirectory();
  ModuleDirectory(const ModuleDirectory&) = delete;
  ModuleDirectory& operator=(const ModuleDirectory&) = delete;

  // The module the link points to.
  const std::string& Module() const { return module_; }

  // The module used when none is given, seen from the working directory.
  static std::string DefaultModule();

 private:
  std::string previous_;
  std::string directory_;
  std::string link_;
  std::string module_;
};

}  // namespace x509auth_tool
