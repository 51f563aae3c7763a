#pragma once
// The log threshold the provider and the PKCS#11 module take from their
// settings, in the library's priority numbers: both read the same words, so
// a user writes the same value in openssl.cnf and in the module's settings.
#include <string>

namespace x509auth_common {

// ParseLogLevel returns 0 to 4 for "debug", "info", "warning", "error" and
// "none" (or the digits themselves), -1 for anything else.
inline int ParseLogLevel(const std::string& text) {
  if (text == "debug" || text == "0") return 0;
  if (text == "info" || text == "1") return 1;
  if (text == "warning" || text == "2") return 2;
  if (text == "error" || text == "3") return 3;
  if (text == "none" || text == "4") return 4;
  return -1;
}

}  // namespace x509auth_common
