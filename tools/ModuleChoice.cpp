#include "ModuleChoice.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "Report.h"

namespace x509auth_tool {
namespace {

// The library would only log that the module failed to load and carry on
// with files: a module the user named is checked here, so that the failure
// names the user's file and says what is wrong with it.
bool CheckModule(const std::string& path, const char* origin) {
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    const char* why = dlerror();
    FailPlain(std::string(origin) + " " + path +
              " is not a PKCS#11 module: " + (why != nullptr ? why : "it cannot be loaded"));
    return false;
  }
  const bool has_entry = dlsym(handle, "C_GetFunctionList") != nullptr;
  dlclose(handle);
  if (!has_entry)
    FailPlain(std::string(origin) + " " + path +
              " is not a PKCS#11 module: it has no C_GetFunctionList");
  return has_entry;
}

}  // namespace

std::optional<std::string> ModuleChoice::Resolve(const std::string& option) {
  if (!option.empty()) {
    if (!CheckModule(option, "--module")) return std::nullopt;
    return option;
  }
  if (const char* variable = std::getenv("X509AUTH_MODULE");
      variable != nullptr && *variable != '\0') {
    std::error_code error;
    const std::string path = std::filesystem::absolute(variable, error).lexically_normal().string();
    if (access(path.c_str(), R_OK) != 0) {
      FailPlain("X509AUTH_MODULE names " + path + ", which cannot be read");
      return std::nullopt;
    }
    if (!CheckModule(path, "X509AUTH_MODULE")) return std::nullopt;
    return path;
  }
  return access(k_debian_opensc, R_OK) == 0 ? std::string(k_debian_opensc) : std::string();
}

}  // namespace x509auth_tool
