#include "smartcard/TokenSlots.h"

#include "smartcard/ModuleExit.h"

namespace quorvant::shared::x509 {

TokenSlots::~TokenSlots() { Release(); }

bool TokenSlots::Enumerate() {
  // Always from an empty list: libp11 0.4.12 frees slots it still uses when
  // handed a previous one.
  if (slots_ != nullptr) return true;
  PKCS11_SLOT* slots = nullptr;
  unsigned int count = 0;
  if (PKCS11_enumerate_slots(context_, &slots, &count) != 0) return false;
  slots_ = slots;
  count_ = count;
  return true;
}

void TokenSlots::Release() {
  // Releasing closes the slots' sessions in a module that may be gone.
  if (ModuleExit::Begun()) {
    ModuleExit::Abandon(slots_);
    slots_ = nullptr;
  }
  if (slots_ != nullptr) PKCS11_release_all_slots(context_, slots_, count_);
  slots_ = nullptr;
  count_ = 0;
}

}  // namespace quorvant::shared::x509
