#include "GlobalOptions.h"

#include <filesystem>

#include "OptionChecks.h"
#include "Report.h"

namespace x509auth_tool {

CLI::Option* AddGlobalOptions(CLI::App& app, GlobalOptions& global) {
  app.add_option("--dir", global.dirs, "Base directory (certs/ and keys/ below it); repeatable")
      ->type_name("BASE")
      ->transform(AbsolutePath());
  app.add_option("--home-dir", global.home_dirs, "Base directory relative to $HOME; repeatable")
      ->type_name("REL");
  app.add_option("--add-ca", global.cas, "Trust this CA certificate (PEM or DER); repeatable")
      ->type_name("FILE")
      ->transform(AbsolutePath())
      ->check(ExistingFile());
  // Taken as given: a relative module path is refused, never resolved.
  CLI::Option* module_option =
      app.add_option("--module", global.module,
                     "PKCS#11 module by absolute path, or none (default: $X509AUTH_MODULE, else "
                     "Debian's OpenSC module, else none)")
          ->type_name("PATH|none");
  app.add_option("--pin-env", global.pin_env, "Take PINs from this variable")->type_name("VAR");
  app.add_option("--pin-fd", global.pin_fd, "Read PINs from this descriptor, a line each")
      ->type_name("N")
      ->check(Descriptor());
  app.add_option("--password-env", global.password_env, "Take key passwords from this variable")
      ->type_name("VAR");
  app.add_option("--password-fd", global.password_fd,
                 "Read key passwords from this descriptor, a line each")
      ->type_name("N")
      ->check(Descriptor());
  app.add_flag("-v,--verbose", global.verbose, "Show every line the library logs, as it comes");
  app.add_flag("-q,--quiet", global.quiet, "Show only the result and the failure line");
  return module_option;
}

std::string GlobalConflict(const GlobalOptions& global) {
  if (!global.pin_env.empty() && global.pin_fd >= 0)
    return "--pin-env and --pin-fd exclude each other";
  if (!global.password_env.empty() && global.password_fd >= 0)
    return "--password-env and --password-fd exclude each other";
  if (global.verbose > 0 && global.quiet) return "-v and -q exclude each other";
  return "";
}

void WarnAboutBaseDirectories(const std::vector<std::string>& dirs) {
  for (const std::string& dir : dirs) {
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(dir, error);
    if (!std::filesystem::exists(status)) {
      Warn("--dir " + dir + " does not exist");
    } else if (!std::filesystem::is_directory(status)) {
      Warn("--dir " + dir + " is not a folder; give the folder that holds certs/ and keys/");
    } else if (std::filesystem::path(dir).filename() == "certs" &&
               !std::filesystem::is_directory(std::filesystem::path(dir) / "certs", error)) {
      Warn("--dir " + dir + " is a certs folder itself; give the folder above it (" +
           std::filesystem::path(dir).parent_path().string() + ")");
    }
  }
}

}  // namespace x509auth_tool
