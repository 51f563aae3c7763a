#pragma once
#include <mutex>
#include <string>

namespace quorvant::shared::x509 {

// Which PKCS#11 module the smart-card context loads: the working-directory
// lookup a host gets by default, exactly one file the host named, or none at
// all. Process-wide, like the context it steers; read at each module load,
// so a change applies from the next load on. Locked, because a host may set
// it from any thread while no request runs.
class Pkcs11ModuleChoice {
 public:
  enum class Kind { k_working_directory, k_file, k_none };

  static Pkcs11ModuleChoice& GetInstance();

  Pkcs11ModuleChoice(const Pkcs11ModuleChoice&) = delete;
  Pkcs11ModuleChoice& operator=(const Pkcs11ModuleChoice&) = delete;

  // Null: the working-directory lookup; "": no module; otherwise an
  // absolute path to a regular, readable file. Returns false after logging
  // an error when |path| is refused; the previous choice then stays.
  bool Choose(const char* path);

  Kind CurrentKind() const;
  // The chosen file; empty unless the kind is k_file.
  std::string File() const;

 private:
  Pkcs11ModuleChoice() = default;

  mutable std::mutex mutex_;
  Kind kind_ = Kind::k_working_directory;
  std::string file_;
};

}  // namespace quorvant::shared::x509
