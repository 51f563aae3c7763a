#pragma once
// The project's one set of owning OpenSSL aliases (common/x509auth/
// OpenSslPtr.h, shared with the provider, the tool and the tests), named in
// the library's namespace.
#include "x509auth/OpenSslPtr.h"

namespace quorvant::shared::x509 {

using namespace x509auth_openssl;

}  // namespace quorvant::shared::x509
