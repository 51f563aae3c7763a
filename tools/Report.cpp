#include "Report.h"

#include <cstdio>

#include "Evidence.h"
#include "Formatting.h"
#include "GlobalOptions.h"

namespace x509auth_tool {
namespace {
bool g_quiet = false;
void (*g_hook)() = nullptr;

void RunHook() {
  if (g_hook == nullptr) return;
  void (*hook)() = g_hook;
  g_hook = nullptr;
  hook();
}
}  // namespace

void BeforeNextReport(void (*hook)()) { g_hook = hook; }

int FailPlain(const std::string& message) {
  RunHook();
  std::fflush(stdout);
  std::fprintf(stderr, "x509-auth: %s\n", Printable(message).c_str());
  return k_exit_failed;
}

int FailUsage(const std::string& message) {
  FailPlain(message);
  return k_exit_usage;
}

int Fail(const std::string& message) {
  FailPlain(message);
  if (!g_quiet)
    for (const std::string& line : Evidence::StepExplanation()) FailDetail(line);
  return k_exit_failed;
}

void FailDetail(const std::string& line) {
  std::fprintf(stderr, "  %s\n", Printable(line).c_str());
}

void Warn(const std::string& message) {
  RunHook();
  if (g_quiet) return;
  std::fflush(stdout);
  std::fprintf(stderr, "x509-auth: warning: %s\n", Printable(message).c_str());
}

void Note(const std::string& message) {
  RunHook();
  if (g_quiet) return;
  std::fflush(stdout);
  std::fprintf(stderr, "x509-auth: %s\n", Printable(message).c_str());
}

void SetQuiet(bool quiet) { g_quiet = quiet; }
bool IsQuiet() { return g_quiet; }

}  // namespace x509auth_tool
