#include "ThumbprintArgument.h"

#include <cctype>

#include "Formatting.h"

namespace x509auth_tool {

std::optional<std::string> ThumbprintArgument::Normalise(const std::string& text) {
  std::string digits;
  for (const char c : text) {
    if (c == ':') continue;
    if (!std::isxdigit(static_cast<unsigned char>(c))) return std::nullopt;
    digits += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  if (digits.size() < k_min_prefix || digits.size() > 2 * X509_AUTH_THUMBPRINT_LENGTH)
    return std::nullopt;
  return digits;
}

std::string ThumbprintArgument::Check(const std::string& text) {
  if (Normalise(text)) return std::string();
  return "not a thumbprint: \"" + text +
         "\" (give 40 hex digits, colons allowed, or a prefix of at least 6)";
}

ThumbprintArgument::Match ThumbprintArgument::Resolve(
    const std::string& normalised, const std::vector<const X509_Auth_Certificate*>& records) {
  Match match;
  for (const X509_Auth_Certificate* record : records) {
    const std::string hex = ThumbprintHex(*record);
    if (hex.compare(0, normalised.size(), normalised) != 0) continue;
    // The same certificate can be offered twice (e.g. from two directories).
    bool duplicate = false;
    for (const X509_Auth_Certificate* seen : match.candidates)
      duplicate = duplicate || ThumbprintHex(*seen) == hex;
    if (!duplicate) match.candidates.push_back(record);
  }
  if (match.candidates.size() == 1) match.record = match.candidates.front();
  return match;
}

}  // namespace x509auth_tool
