#pragma once
#include <openssl/x509_vfy.h>

#include <vector>

#include "api/OpenSslPtr.h"

namespace quorvant::shared::x509 {

// Gives a store the system's default CA locations, as
// X509_STORE_set_default_paths does: the default CA file's certificates and
// CRLs, the hashed CA directory and the default store URI. The CA file (some
// 150 certificates) is parsed once per process and again only when it
// changes, instead of on every store, and not at all until a chain needs an
// issuer the store's own certificates cannot give: parsing it dominated every
// request, and most client chains end in CAs the host added.
class DefaultCaPaths {
 public:
  // Returns 1 on success and 0 when a lookup cannot be added, like
  // X509_STORE_set_default_paths; a missing CA file is no failure.
  static int SetOn(X509_STORE* store);
};

}  // namespace quorvant::shared::x509
