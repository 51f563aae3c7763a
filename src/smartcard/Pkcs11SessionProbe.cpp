#include "smartcard/Pkcs11SessionProbe.h"

#include <dlfcn.h>
#include <p11-kit/pkcs11.h>

#include <climits>

namespace quorvant::shared::x509 {

void Pkcs11SessionProbe::ModuleCloser::operator()(void* handle) const { dlclose(handle); }

Pkcs11SessionProbe::~Pkcs11SessionProbe() = default;

bool Pkcs11SessionProbe::Attach(const std::string& module_path) {
  Detach();
  // RTLD_NOLOAD hands back the copy libp11 loaded and initialised; a fresh
  // copy would answer every open with "not initialised".
  std::unique_ptr<void, ModuleCloser> module(
      dlopen(module_path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD));
  if (!module) return false;
  const auto get_function_list =
      reinterpret_cast<CK_C_GetFunctionList>(dlsym(module.get(), "C_GetFunctionList"));
  CK_FUNCTION_LIST_PTR functions = nullptr;
  if (get_function_list == nullptr || get_function_list(&functions) != CKR_OK ||
      functions == nullptr || functions->C_OpenSession == nullptr ||
      functions->C_CloseSession == nullptr)
    return false;
  module_ = std::move(module);
  functions_ = functions;
  return true;
}

void Pkcs11SessionProbe::Detach() {
  functions_ = nullptr;
  module_.reset();
}

int Pkcs11SessionProbe::Probe(const PKCS11_SLOT* slot) const {
  if (slot == nullptr || slot->token == nullptr || !slot->token->initialized ||
      functions_ == nullptr)
    return k_token_unusable;
  CK_SESSION_HANDLE session = 0;
  const CK_RV rv =
      functions_->C_OpenSession(PKCS11_get_slotid_from_slot(const_cast<PKCS11_SLOT*>(slot)),
                                CKF_SERIAL_SESSION, nullptr, nullptr, &session);
  if (rv != CKR_OK) return rv <= static_cast<CK_RV>(INT_MAX) ? -static_cast<int>(rv) : -1;
  // libp11 keeps its own sessions open in its pool, so closing this one never
  // ends a login.
  functions_->C_CloseSession(session);
  return 0;
}

bool Pkcs11SessionProbe::TokenPresent(const PKCS11_SLOT* slot) const {
  if (slot == nullptr || functions_ == nullptr || functions_->C_GetSlotInfo == nullptr) return true;
  CK_SLOT_INFO info{};
  const CK_RV rv =
      functions_->C_GetSlotInfo(PKCS11_get_slotid_from_slot(const_cast<PKCS11_SLOT*>(slot)), &info);
  if (rv == CKR_DEVICE_REMOVED || rv == CKR_TOKEN_NOT_PRESENT) return false;
  return rv != CKR_OK || (info.flags & CKF_TOKEN_PRESENT) != 0;
}

}  // namespace quorvant::shared::x509
