#pragma once
#include <libp11.h>

namespace quorvant::shared::x509 {

// One listing of the module's slots, with the tokens, certificates and keys
// libp11 caches below them. Token certificates and keys point into it, so it
// is shared by whoever holds one; only its context lets it go (see
// Libp11Context), because releasing slots closes every session the module
// has on those slot ids, including those of a newer listing.
class TokenSlots {
 public:
  // |context| must outlive this listing.
  explicit TokenSlots(PKCS11_CTX* context) : context_(context) {}
  ~TokenSlots();
  TokenSlots(const TokenSlots&) = delete;
  TokenSlots& operator=(const TokenSlots&) = delete;

  // Lists the slots once; false (nothing listed) when libp11 fails.
  bool Enumerate();
  // Gives the slots back to libp11 now; the destructor then does nothing.
  void Release();

  // A key handed to the host (the key export) points into this listing for
  // as long as the host keeps it, which nothing here can see: the listing
  // then stays until its context ends, as it would without the token watch.
  void KeepForExportedKey() { kept_for_export_ = true; }
  bool KeptForExportedKey() const { return kept_for_export_; }

  PKCS11_SLOT* Slots() const { return slots_; }
  unsigned int Count() const { return count_; }

 private:
  PKCS11_CTX* context_;
  PKCS11_SLOT* slots_ = nullptr;
  unsigned int count_ = 0;
  bool kept_for_export_ = false;
};

}  // namespace quorvant::shared::x509
