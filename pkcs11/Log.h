#pragma once
// The module's own log lines and the library's, on stderr only when the
// settings ask for them (quiet by default: the module lives inside other
// people's programs). Never given a PIN.
#include <cstdarg>

namespace x509auth_pkcs11 {

// A line's priority; the values are the library's log priorities.
enum class LogLevel : int { k_debug = 0, k_info = 1, k_warning = 2, k_error = 3 };

// Lowest priority written (0 debug .. 3 error); 4, the default, writes
// nothing.
void SetLogThreshold(int threshold);
int LogThreshold();
void LogLine(LogLevel level, const char* format, ...) __attribute__((format(printf, 2, 3)));
void LogLineV(LogLevel level, const char* format, va_list arguments);

}  // namespace x509auth_pkcs11
