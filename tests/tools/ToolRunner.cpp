#include "ToolRunner.h"

#include <sstream>

namespace x509auth_test {

namespace {

// Generous for an instrumented build on a busy machine: no single run of the
// tool comes near it, and one that hangs ends the test instead of the suite.
constexpr std::chrono::seconds k_tool_limit{60};

}  // namespace

const char* ToolPath() { return X509_AUTH_TOOL_PATH; }

ToolResult RunTool(const std::vector<std::string>& args) { return RunTool(ToolRun{args}); }

ToolResult RunTool(const ToolRun& run) {
  ChildRun child;
  if (!run.shell.empty()) child.argv = {"/bin/sh", "-c", run.shell + "\nexec \"$@\"", "sh"};
  child.argv.push_back(ToolPath());
  child.argv.insert(child.argv.end(), run.args.begin(), run.args.end());
  child.cwd = run.cwd;
  child.input = run.input;
  child.env = run.env;
  child.fd3 = run.fd3;
  child.limit = k_tool_limit;
  return RunChild(child);
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

std::vector<std::string> ToolLines(const std::string& err) {
  std::vector<std::string> lines;
  for (std::string& line : Lines(err))
    if (line.rfind("x509-auth: ", 0) == 0 && line.rfind("x509-auth: [", 0) != 0)
      lines.push_back(std::move(line));
  return lines;
}

}  // namespace x509auth_test
