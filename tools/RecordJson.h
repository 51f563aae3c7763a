#pragma once
// The JSON form of one offered certificate, as `list --json` prints it.
#include <nlohmann/json.hpp>

#include "x509_auth.h"

namespace x509auth_tool {

// Keys: thumbprint, subject, issuer, not_before, not_after, not_before_iso,
// not_after_iso, source, key_algorithm, key_path, chain.
nlohmann::json RecordJson(const X509_Auth_Certificate& record);

}  // namespace x509auth_tool
