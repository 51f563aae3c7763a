#pragma once
#include <libp11.h>

#include <memory>

namespace quorvant::shared::x509 {

class ICertificateStore;
class Libp11Context;
class TokenSlots;

// A certificate on a PKCS#11 token. |cert| and |slot| belong to libp11 and
// live as long as the context and the slot listing they were found in, so
// shares of both are kept here.
struct Libp11CertContext {
  const ICertificateStore* store = nullptr;  // not owned
  std::shared_ptr<Libp11Context> libp11_context;
  PKCS11_CERT* cert = nullptr;  // not owned
  PKCS11_SLOT* slot = nullptr;  // not owned
  // Last, so that it goes before the context share.
  std::shared_ptr<TokenSlots> token_slots;
};

}  // namespace quorvant::shared::x509
