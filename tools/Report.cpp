#include "Report.h"

#include <cstdio>

#include "GlobalOptions.h"

namespace x509auth_tool {
namespace {
bool g_quiet = false;
}

int Fail(const std::string& message) {
  std::fflush(stdout);
  std::fprintf(stderr, "x509-auth: %s\n", message.c_str());
  return k_exit_failed;
}

void FailDetail(const std::string& line) { std::fprintf(stderr, "  %s\n", line.c_str()); }

void Note(const std::string& message) {
  if (g_quiet) return;
  std::fflush(stdout);
  std::fprintf(stderr, "x509-auth: %s\n", message.c_str());
}

void SetQuiet(bool quiet) { g_quiet = quiet; }

}  // namespace x509auth_tool
