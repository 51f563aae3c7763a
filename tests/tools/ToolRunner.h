#pragma once
// Runs the built x509-auth executable as a user or a script would, through
// the tests' one child-process runner: its own session with no controlling
// terminal (so a prompt can only be answered from --pin-env/--pin-fd), a
// chosen working directory, environment additions, standard input and a
// time limit; collects its exit status, standard output and standard error.
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ChildProcess.h"

namespace x509auth_test {

using ToolResult = ChildResult;

struct ToolRun {
  explicit ToolRun(std::vector<std::string> arguments = {}) : args(std::move(arguments)) {}
  std::vector<std::string> args;           // after the program's name
  std::string cwd;                         // empty: the test's working directory
  std::string input;                       // written to standard input, then closed
  std::map<std::string, std::string> env;  // added to the test's environment
  std::optional<std::string> fd3;          // read by the tool on descriptor 3 (--pin-fd 3)
  // sh commands run before the tool is exec-ed in the same process: a
  // redirection ("exec > /dev/full"), a limit ("ulimit -f 0"), a trap.
  std::string shell;
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
