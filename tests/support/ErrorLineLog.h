#pragma once
// For tests whose host gives the library a log callback of its own (one
// that must not go through RecordingCallbacks): the error lines, formatted.
#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "x509_auth.h"

namespace x509auth_test {

// Appends the line |format| and |arguments| make to |lines| when
// |priority| is an error or worse; lines longer than 1023 bytes are cut.
__attribute__((format(printf, 3, 0))) inline void KeepErrorLine(std::vector<std::string>& lines,
                                                                X509_Auth_LogPriority priority,
                                                                const char* format,
                                                                va_list arguments) {
  if (priority < X509_Auth_LogPriority_Error) return;
  char line[1024];
  std::vsnprintf(line, sizeof line, format, arguments);
  lines.emplace_back(line);
}

}  // namespace x509auth_test
