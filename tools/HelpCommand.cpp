#include "HelpCommand.h"

#include "CommandSuggestion.h"
#include "GlobalOptions.h"
#include "InputOutput.h"
#include "Report.h"

namespace x509auth_tool {
namespace {

int Print(const std::string& help) {
  PrintOut(help);
  return FlushStandardOutput() ? k_exit_ok : k_exit_failed;
}

}  // namespace

HelpCommand::HelpCommand(CLI::App& app)
    : app_(app), help_(app.add_subcommand("help", "Show this help, or a command's: help COMMAND")) {
  help_->add_option("COMMAND", topic_, "The command")->type_name("COMMAND");
}

std::string HelpCommand::ReadFirst(int argc, char** argv) {
  first_ = argc >= 2 && std::string(argv[1]) == "help";
  if (!first_) return "";
  if (argc > 3) return "help takes one command name";
  topic_ = argc == 3 ? argv[2] : "";
  return "";
}

int HelpCommand::Run(const std::vector<Command>& commands) const {
  if (topic_.empty()) return Print(Text(&app_));
  for (const Command& command : commands)
    if (command.app->get_name() == topic_) return Print(Text(command.app));
  return FailUsage(UnknownCommand(topic_, commands));
}

// App::help() would show the help of the command given: `help` itself.
std::string HelpCommand::Text(const CLI::App* of) const {
  const std::string name = of == &app_ ? of->get_name() : app_.get_name() + " " + of->get_name();
  return of->get_formatter()->make_help(of, name, CLI::AppFormatMode::Normal);
}

}  // namespace x509auth_tool
