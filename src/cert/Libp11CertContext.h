#pragma once
#include <libp11.h>

#include <memory>

namespace quorvant::shared::x509 {

class ICertificateStore;
class Libp11Context;

// A certificate on a PKCS#11 token. |cert| and |slot| belong to libp11 and
// live as long as the context does, so the context share is kept here.
struct Libp11CertContext {
  const ICertificateStore* store = nullptr;  // not owned
  std::shared_ptr<Libp11Context> libp11_context;
  PKCS11_CERT* cert = nullptr;  // not owned
  PKCS11_SLOT* slot = nullptr;  // not owned
};

}  // namespace quorvant::shared::x509
