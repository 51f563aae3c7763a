#pragma once
#include "base/OpenSslPtr.h"

namespace quorvant::shared::x509 {

class ICertificateStore;

// A certificate the host added as DER bytes; it has no private key.
struct EncodedCertContext {
  const ICertificateStore* store = nullptr;  // not owned
  X509Ptr x509;
};

}  // namespace quorvant::shared::x509
