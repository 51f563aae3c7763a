#pragma once
// Recognises x509auth's own PKCS#11 module among the modules the library is
// given for smart cards, by what the module says of itself rather than by its
// path: a copy of the module under another name, or a proxy (p11-kit's) that
// loads it among others, would list x509auth's certificates again as a
// card's, and a module set up to use itself would load itself without end.
#include <libp11.h>

#include <string>

namespace quorvant::shared::x509 {

class OwnModuleCheck {
 public:
  // Empty when the loaded module and every token it shows are not
  // x509auth's; otherwise the reason, for the refusal line.
  static std::string LeadsBackToX509Auth(const PKCS11_CTX* context, const PKCS11_SLOT* slots,
                                         unsigned int slot_count);
};

}  // namespace quorvant::shared::x509
