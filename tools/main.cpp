// x509-auth: the command line of libx509auth. This file is the list of the
// commands and the order of the steps around them; each command registers
// its own options and lives in its own file.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "ChainCommand.h"
#include "Command.h"
#include "CommandSuggestion.h"
#include "DecryptCommand.h"
#include "DoctorCommand.h"
#include "Formatting.h"
#include "GlobalOptions.h"
#include "HelpCommand.h"
#include "HelpText.h"
#include "InputOutput.h"
#include "InterruptCleanup.h"
#include "ListCommand.h"
#include "ModuleChoice.h"
#include "Report.h"
#include "ShowCommand.h"
#include "SignCommand.h"
#include "TlsCommand.h"
#include "x509_auth.h"

using namespace x509auth_tool;

namespace {

using CommandAdder = Command (*)(CLI::App&, const GlobalOptions&);

// The commands, in the order the help lists them.
constexpr CommandAdder k_commands[] = {AddListCommand,    AddChainCommand, AddSignCommand,
                                       AddDecryptCommand, AddShowCommand,  AddDoctorCommand,
                                       AddTlsCommand};

void DescribeTool(CLI::App& app) {
  app.footer(k_help_footer);
  app.fallthrough();
  // An unknown command is kept, so that it can be named with a suggestion.
  app.allow_extras();
  app.set_version_flag(
      "--version", std::string("x509-auth " X509AUTH_TOOL_VERSION ", libx509auth API version ") +
                       std::to_string(X509_Auth_GetApiVersion()));
}

// CLI11's verdict on the command line: nothing when the tool goes on, else
// the exit status (--help and --version are done here too).
std::optional<int> Parse(CLI::App& app, int argc, char** argv) {
  try {
    app.parse(argc, argv);
    return std::nullopt;
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() != 0)
      return FailUsage(std::string(error.what()) + " (see 'x509-auth --help')");
    // --help and --version, written as any output is, failures included.
    std::ostringstream out, err;
    app.exit(error, out, err);
    PrintOut(out.str());
    return FlushStandardOutput() ? k_exit_ok : k_exit_failed;
  }
}

// The command given, or a usage error for words CLI11 left over.
const Command* ChosenCommand(const CLI::App& app, const std::vector<Command>& commands,
                             std::string& error) {
  const Command* chosen = nullptr;
  for (const Command& command : commands)
    if (command.app->parsed()) chosen = &command;
  const std::vector<std::string> extras = app.remaining();
  if (!extras.empty()) {
    error = chosen == nullptr && extras.front().rfind("-", 0) != 0
                ? UnknownCommand(extras.front(), commands)
                : "unexpected argument '" + extras.front() + "' (see 'x509-auth --help')";
    return nullptr;
  }
  if (chosen == nullptr) error = "no command given; the commands are listed by 'x509-auth --help'";
  return chosen;
}

// Runs |command| once the module is chosen. |doing| follows along.
int RunCommand(const Command& command, GlobalOptions& global, const CLI::Option& module_option,
               std::string& doing) {
  SetQuiet(global.quiet);
  InterruptCleanup::Install();
  doing = "choosing the PKCS#11 module";
  const ModuleChoice::Outcome module = ModuleChoice::Resolve(
      module_option.count() > 0 ? std::optional<std::string>(global.module) : std::nullopt);
  if (!module.path) return module.exit_status;
  global.module_path = *module.path;
  WarnAboutBaseDirectories(global.dirs);
  doing = "running '" + command.app->get_name() + "'";
  const int status = command.run();
  // What the command printed is only done once it reached its file; a
  // command that failed already said why.
  if (status == k_exit_ok && !FlushStandardOutput()) return k_exit_failed;
  return status;
}

// The tool itself. |doing| says what it is at, for main's last-resort
// failure line: no exception reaches the user as a bare what().
int Main(int argc, char** argv, std::string& doing) {
  GlobalOptions global;
  CLI::App app{"x509-auth: the client certificates this machine offers, and their keys",
               "x509-auth"};
  DescribeTool(app);
  const CLI::Option* module_option = AddGlobalOptions(app, global);
  std::vector<Command> commands;
  for (const CommandAdder add : k_commands) commands.push_back(add(app, global));
  HelpCommand help(app);
  // The tool's manual belongs to the tool, not to every command's help.
  for (const Command& command : commands) command.app->footer("");

  if (const std::string error = help.ReadFirst(argc, argv); !error.empty()) return FailUsage(error);
  if (!help.CameFirst())
    if (const std::optional<int> status = Parse(app, argc, argv)) return *status;
  if (help.Asked()) return help.Run(commands);
  std::string error;
  const Command* chosen = ChosenCommand(app, commands, error);
  if (chosen == nullptr) return FailUsage(error);
  if (error = GlobalConflict(global); !error.empty()) return FailUsage(error);
  if (chosen->conflict && !(error = chosen->conflict()).empty()) return FailUsage(error);
  return RunCommand(*chosen, global, *module_option, doing);
}

}  // namespace

int main(int argc, char** argv) {
  std::string doing = "reading the command line";
  try {
    return Main(argc, argv, doing);
  } catch (const std::bad_alloc&) {
    return FailPlain("out of memory while " + doing + "; nothing more was done");
  } catch (const std::exception& error) {
    return FailPlain("an unexpected error while " + doing + ": " + error.what());
  } catch (...) {
    return FailPlain("an unexpected error while " + doing);
  }
}
