#pragma once
// The project's one set of owning OpenSSL aliases (common/x509auth/
// OpenSslPtr.h, shared with the library, the provider, the tool and the
// tests), named in the module's namespace.
#include "x509auth/OpenSslPtr.h"

namespace x509auth_pkcs11 {

using namespace x509auth_openssl;

}  // namespace x509auth_pkcs11
