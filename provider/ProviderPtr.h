#pragma once
// The project's one set of owning OpenSSL aliases (common/x509auth/
// OpenSslPtr.h), named in the provider's namespace: a handle is owned the
// moment it exists.
#include "x509auth/OpenSslPtr.h"

namespace x509auth_provider {

using namespace x509auth_openssl;

}  // namespace x509auth_provider
