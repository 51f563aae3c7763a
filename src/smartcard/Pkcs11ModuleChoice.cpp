#include "smartcard/Pkcs11ModuleChoice.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/SafeCallbacksWrapper.h"

namespace quorvant::shared::x509 {

namespace {

constexpr auto k_error = X509_Auth_LogPriority_Error;

// Why |path| cannot be the module, or null when it can.
const char* RefusalReason(const char* path, int* error) {
  *error = 0;
  if (path[0] != '/') return "not an absolute path";
  struct stat status {};
  if (stat(path, &status) != 0) {
    *error = errno;
    return "cannot be found";
  }
  if (!S_ISREG(status.st_mode)) return "not a regular file";
  if (access(path, R_OK) != 0) {
    *error = errno;
    return "cannot be read";
  }
  return nullptr;
}

}  // namespace

Pkcs11ModuleChoice& Pkcs11ModuleChoice::GetInstance() {
  static Pkcs11ModuleChoice instance;
  return instance;
}

bool Pkcs11ModuleChoice::Choose(const char* path) {
  if (path != nullptr && path[0] != '\0') {
    int error = 0;
    if (const char* reason = RefusalReason(path, &error)) {
      if (error != 0)
        SafeCallbacksWrapper::Log(k_error, "PKCS#11 module refused: %s %s (%s)", path, reason,
                                  std::strerror(error));
      else
        SafeCallbacksWrapper::Log(k_error, "PKCS#11 module refused: %s is %s", path, reason);
      return false;
    }
  }
  std::lock_guard<std::mutex> lock(mutex_);
  if (path == nullptr) {
    kind_ = Kind::k_working_directory;
    file_.clear();
  } else if (path[0] == '\0') {
    kind_ = Kind::k_none;
    file_.clear();
  } else {
    kind_ = Kind::k_file;
    file_ = path;
  }
  return true;
}

Pkcs11ModuleChoice::Kind Pkcs11ModuleChoice::CurrentKind() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return kind_;
}

std::string Pkcs11ModuleChoice::File() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return file_;
}

}  // namespace quorvant::shared::x509
