#pragma once
// The options every command shares, as parsed from the command line. Paths
// are made absolute while they are read.
#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace x509auth_tool {

struct GlobalOptions {
  std::vector<std::string> dirs;       // --dir BASE
  std::vector<std::string> home_dirs;  // --home-dir REL, relative to $HOME
  std::vector<std::string> cas;        // --add-ca FILE
  std::string module;                  // --module PATH; empty: the default
  std::string module_path;             // the module loaded (ModuleChoice); "": none
  std::string pin_env, password_env;   // --pin-env VAR / --password-env VAR
  int pin_fd = -1, password_fd = -1;   // --pin-fd N / --password-fd N
  int verbose = 0;                     // -v: every library line as it comes
  bool quiet = false;                  // -q: the result and the failure line only
};

// Registers the shared options on |app|. The option returned is --module's:
// whether it was given at all decides how the module is chosen.
CLI::Option* AddGlobalOptions(CLI::App& app, GlobalOptions& global);
// A usage error for shared options that exclude each other, "" for none.
std::string GlobalConflict(const GlobalOptions& global);
// --dir names a base directory, the one holding certs/ and keys/: a warning
// for each that cannot be one, since the library just finds nothing there.
void WarnAboutBaseDirectories(const std::vector<std::string>& dirs);

// The exit statuses every command returns.
constexpr int k_exit_ok = 0;
constexpr int k_exit_failed = 1;
constexpr int k_exit_usage = 2;
// Not returned: a shell reports a tool that Ctrl-C ended as 128 + SIGINT.
constexpr int k_exit_interrupted = 130;

}  // namespace x509auth_tool
