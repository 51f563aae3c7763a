#pragma once
// The project's one file identity (common/x509auth/FileIdentity.h, shared
// with the PKCS#11 module), named in the library's namespace.
#include "x509auth/FileIdentity.h"

namespace quorvant::shared::x509 {

using x509auth_common::FileIdentity;

}  // namespace quorvant::shared::x509
