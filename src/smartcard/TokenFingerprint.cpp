#include "smartcard/TokenFingerprint.h"

#include <tuple>

namespace quorvant::shared::x509 {

namespace {

// A slot list longer than this is taken as a module fault, like libp11 does.
constexpr CK_ULONG k_max_slots = 0x10000;

template <std::size_t N>
std::string FixedText(const CK_UTF8CHAR (&field)[N]) {
  return std::string(reinterpret_cast<const char*>(field), N);
}

}  // namespace

bool TokenFingerprint::Slot::operator==(const Slot& other) const {
  return std::tie(id, slot_result, present, token_result, label, serial, initialised) ==
         std::tie(other.id, other.slot_result, other.present, other.token_result, other.label,
                  other.serial, other.initialised);
}

bool TokenFingerprint::operator==(const TokenFingerprint& other) const {
  return list_result_ == other.list_result_ && slots_ == other.slots_;
}

bool TokenFingerprint::ListableByLibp11() const {
  if (list_result_ != CKR_OK) return false;
  for (const Slot& slot : slots_) {
    if (slot.slot_result != CKR_OK) return false;
    // libp11 takes these two as an empty slot.
    if (slot.present && slot.token_result != CKR_OK && slot.token_result != CKR_TOKEN_NOT_PRESENT &&
        slot.token_result != CKR_TOKEN_NOT_RECOGNIZED)
      return false;
  }
  return true;
}

TokenFingerprint TokenFingerprint::Take(CK_FUNCTION_LIST_PTR functions) {
  TokenFingerprint fingerprint;
  if (functions == nullptr || functions->C_GetSlotList == nullptr ||
      functions->C_GetSlotInfo == nullptr || functions->C_GetTokenInfo == nullptr)
    return fingerprint;
  CK_ULONG count = 0;
  fingerprint.list_result_ = functions->C_GetSlotList(CK_FALSE, nullptr, &count);
  if (fingerprint.list_result_ != CKR_OK || count > k_max_slots) return fingerprint;
  std::vector<CK_SLOT_ID> ids(count);
  // The list can grow between the two calls; CKR_BUFFER_TOO_SMALL then makes
  // this fingerprint differ from the last, which is what a change should do.
  fingerprint.list_result_ = functions->C_GetSlotList(CK_FALSE, ids.data(), &count);
  if (fingerprint.list_result_ != CKR_OK) return fingerprint;
  ids.resize(count);
  for (const CK_SLOT_ID id : ids) {
    Slot slot;
    slot.id = id;
    CK_SLOT_INFO slot_info{};
    slot.slot_result = functions->C_GetSlotInfo(id, &slot_info);
    slot.present = slot.slot_result == CKR_OK && (slot_info.flags & CKF_TOKEN_PRESENT) != 0;
    if (slot.present) {
      CK_TOKEN_INFO token_info{};
      slot.token_result = functions->C_GetTokenInfo(id, &token_info);
      // Only what a card keeps: counters and PIN flags change with every use.
      if (slot.token_result == CKR_OK) {
        slot.label = FixedText(token_info.label);
        slot.serial = FixedText(token_info.serialNumber);
        slot.initialised = (token_info.flags & CKF_TOKEN_INITIALIZED) != 0;
      }
    }
    fingerprint.slots_.push_back(std::move(slot));
  }
  return fingerprint;
}

}  // namespace quorvant::shared::x509
