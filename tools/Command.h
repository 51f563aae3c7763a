#pragma once
// One command of the tool: its CLI11 subcommand, what runs it, and the
// check of its options that exclude each other.
#include <CLI/CLI.hpp>
#include <functional>
#include <string>

namespace x509auth_tool {

struct Command {
  CLI::App* app = nullptr;
  // The command's exit status.
  std::function<int()> run;
  // A usage error for options that exclude each other, "" for none. Checked
  // after parsing so that the help stays free of CLI11's "Excludes:" lines.
  std::function<std::string()> conflict;
};

}  // namespace x509auth_tool
