#include "ModuleChoice.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>

#include "GlobalOptions.h"
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

// A value the user gave: "none", or an absolute path that is checked by
// loading it. Anything else would be looked up from the working directory,
// where a planted file would run as the user.
ModuleChoice::Outcome Named(const std::string& value, const char* origin) {
  if (value == ModuleChoice::k_no_module) return {std::string(), k_exit_ok};
  if (value.empty() || value.front() != '/') {
    FailPlain(std::string(origin) + " takes the absolute path of a PKCS#11 module, or " +
              ModuleChoice::k_no_module + "; '" + value + "' is neither (nothing was loaded)");
    return {std::nullopt, k_exit_usage};
  }
  if (access(value.c_str(), R_OK) != 0) {
    FailPlain(std::string(origin) + " names " + value + ", which cannot be read");
    return {std::nullopt, origin[0] == '-' ? k_exit_usage : k_exit_failed};
  }
  if (!CheckModule(value, origin)) return {std::nullopt, k_exit_failed};
  return {value, k_exit_ok};
}

}  // namespace

ModuleChoice::Outcome ModuleChoice::Resolve(const std::optional<std::string>& option) {
  if (option) return Named(*option, "--module");
  if (const char* variable = std::getenv("X509AUTH_MODULE");
      variable != nullptr && *variable != '\0')
    return Named(variable, "X509AUTH_MODULE");
  return {access(k_debian_opensc, R_OK) == 0 ? std::string(k_debian_opensc) : std::string(),
          k_exit_ok};
}

}  // namespace x509auth_tool
