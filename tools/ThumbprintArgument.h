#pragma once
// THUMBPRINT arguments: 40 hex digits in any case, colons allowed, or a
// prefix of at least 6 digits that names exactly one certificate.
#include <optional>
#include <string>
#include <vector>

#include "x509_auth.h"

namespace x509auth_tool {

class ThumbprintArgument {
 public:
  static constexpr std::size_t k_min_prefix = 6;

  // Lowercase digits without colons, or nullopt when |text| is not a
  // thumbprint or prefix.
  static std::optional<std::string> Normalise(const std::string& text);
  // CLI11 check: empty when valid, else the message.
  static std::string Check(const std::string& text);

  struct Match {
    const X509_Auth_Certificate* record = nullptr;         // null: none or several
    std::vector<const X509_Auth_Certificate*> candidates;  // ambiguous matches
  };
  static Match Resolve(const std::string& normalised,
                       const std::vector<const X509_Auth_Certificate*>& records);
};

}  // namespace x509auth_tool
