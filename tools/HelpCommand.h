#pragma once
// `x509-auth help [COMMAND]`, what many users type first: the tool's help,
// or one command's.
#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "Command.h"

namespace x509auth_tool {

class HelpCommand {
 public:
  // Registers `help` on |app|.
  explicit HelpCommand(CLI::App& app);

  // Reads `help COMMAND` at the start of |argv| before CLI11 does, which
  // would take COMMAND as the command to run. Returns a usage error or "".
  std::string ReadFirst(int argc, char** argv);
  // Whether |argv| started with `help`: then CLI11 parses nothing.
  bool CameFirst() const { return first_; }
  bool Asked() const { return first_ || help_->parsed(); }
  // Prints the help asked for; its exit status.
  int Run(const std::vector<Command>& commands) const;

 private:
  std::string Text(const CLI::App* of) const;

  CLI::App& app_;
  CLI::App* help_;
  std::string topic_;
  bool first_ = false;
};

}  // namespace x509auth_tool
