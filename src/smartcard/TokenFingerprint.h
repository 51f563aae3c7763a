#pragma once
#include <p11-kit/pkcs11.h>

#include <string>
#include <vector>

namespace quorvant::shared::x509 {

// What the module says about its slots and tokens right now, cheaply: the
// slot list, each slot's token-present flag and each token's label, serial
// and initialised flag. Two fingerprints differ when a card came, went or was
// swapped (as far as the module has noticed: OpenSC looks only inside these
// very calls).
class TokenFingerprint {
 public:
  // Asks |functions| (null gives an empty fingerprint).
  static TokenFingerprint Take(CK_FUNCTION_LIST_PTR functions);

  // Whether libp11 can list these slots: its listing fails as a whole, and
  // leaks what it had made for the failing slot, when a slot or a present
  // token cannot be described.
  bool ListableByLibp11() const;

  bool operator==(const TokenFingerprint& other) const;
  bool operator!=(const TokenFingerprint& other) const { return !(*this == other); }

 private:
  struct Slot {
    CK_SLOT_ID id = 0;
    CK_RV slot_result = CKR_OK;
    bool present = false;
    CK_RV token_result = CKR_OK;
    std::string label;
    std::string serial;
    bool initialised = false;
    bool operator==(const Slot& other) const;
  };

  CK_RV list_result_ = CKR_OK;
  std::vector<Slot> slots_;
};

}  // namespace quorvant::shared::x509
