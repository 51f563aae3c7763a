#include "Log.h"

#include <atomic>
#include <cstdio>

namespace x509auth_pkcs11 {
namespace {
std::atomic<int> g_threshold{4};
const char* const k_names[] = {"debug", "info", "warning", "error"};
}  // namespace

void SetLogThreshold(int threshold) { g_threshold = threshold; }
int LogThreshold() { return g_threshold; }

void LogLineV(LogLevel level, const char* format, va_list arguments) {
  const int priority = static_cast<int>(level);
  if (priority < g_threshold || priority < 0 || priority > 3) return;
  // One fprintf per piece; stderr is unbuffered, so build the line first.
  char line[2048];
  std::vsnprintf(line, sizeof(line), format, arguments);
  std::fprintf(stderr, "x509auth-pkcs11: [%s] %s\n", k_names[priority], line);
}

void LogLine(LogLevel level, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  LogLineV(level, format, arguments);
  va_end(arguments);
}

}  // namespace x509auth_pkcs11
