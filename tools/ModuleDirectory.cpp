#include "ModuleDirectory.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include "InterruptCleanup.h"

namespace x509auth_tool {
namespace {

constexpr const char* k_system_module = "/usr/lib/x86_64-linux-gnu/opensc-pkcs11.so";

std::runtime_error SystemError(const std::string& what) {
  return std::runtime_error(what + ": " + std::strerror(errno));
}

}  // namespace

std::string ModuleDirectory::DefaultModule() {
  std::error_code error;
  const std::filesystem::path local = std::filesystem::current_path(error) / "opensc-pkcs11.so";
  if (!error && std::filesystem::exists(local, error)) return local.string();
  return k_system_module;
}

ModuleDirectory::ModuleDirectory(const std::string& module)
    : module_(module.empty() ? DefaultModule() : module) {
  std::error_code error;
  previous_ = std::filesystem::current_path(error).string();
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") +
                        "/x509-auth-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) == nullptr)
    throw SystemError("cannot make a private directory from " + pattern);
  directory_ = buffer.data();
  link_ = directory_ + "/opensc-pkcs11.so";
  InterruptCleanup::SetDirectory(link_.c_str(), directory_.c_str());
  // A missing default module is left to the library to report; a module the
  // user named was checked when the command line was read.
  if (std::filesystem::exists(module_, error) && symlink(module_.c_str(), link_.c_str()) != 0) {
    const std::runtime_error failure = SystemError("cannot link the PKCS#11 module in " + directory_);
    rmdir(directory_.c_str());
    InterruptCleanup::ClearDirectory();
    throw failure;
  }
  if (chdir(directory_.c_str()) != 0) {
    const std::runtime_error failure = SystemError("cannot enter " + directory_);
    unlink(link_.c_str());
    rmdir(directory_.c_str());
    InterruptCleanup::ClearDirectory();
    throw failure;
  }
}

ModuleDirectory::~ModuleDirectory() {
  if (!previous_.empty() && chdir(previous_.c_str()) != 0) {
    // The old directory may be gone; "/" always exists.
    (void)!chdir("/");
  }
  unlink(link_.c_str());
  rmdir(directory_.c_str());
  InterruptCleanup::ClearDirectory();
}

}  // namespace x509auth_tool
