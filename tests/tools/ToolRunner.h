#pragma once
// Runs the built x509-auth executable in a child process, as a user or a
// script would: its own session with no controlling terminal (so a prompt
// can only be answered from --pin-env/--pin-fd), a chosen working
// directory, environment additions and standard input; collects its exit
// status, standard output and standard error.
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace x509auth_test {

struct ToolResult {
  int status = -1;  // exit status, or 128 + signal
  std::string out;
  std::string err;
};

struct ToolRun {
  explicit ToolRun(std::vector<std::string> arguments = {}) : args(std::move(arguments)) {}
  std::vector<std::string> args;
  std::string cwd;    // empty: the test's working directory
  std::string input;  // written to standard input, then closed
  std::map<std::string, std::string> env;  // added to the test's environment
  // Extra descriptor 3 for the child, reading this text (for --pin-fd 3).
  bool with_fd3 = false;
  std::string fd3;
};

ToolResult RunTool(const ToolRun& run);
// Shorthand: just arguments.
ToolResult RunTool(const std::vector<std::string>& args);

// The path of the built executable.
const char* ToolPath();

// Lines of |text| (without their newline).
std::vector<std::string> Lines(const std::string& text);
// The tool's own lines on stderr: without the library's log lines ("[error]
// ..."), e.g. OpenSC's "error enumerating slots" when no reader is attached.
std::vector<std::string> ToolLines(const std::string& err);

}  // namespace x509auth_test
