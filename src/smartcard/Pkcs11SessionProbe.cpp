#include "smartcard/Pkcs11SessionProbe.h"

#include <dlfcn.h>

#include <climits>

namespace quorvant::shared::x509 {

namespace {

// The PKCS#11 C ABI as far as the probe needs it. No PKCS#11 header comes
// with the libraries we build against; the layout below is fixed by the
// standard (on Unix the structures are not packed, CK_ULONG is unsigned long).
using CkRv = unsigned long;
using CkULong = unsigned long;
using CkAnyFunction = CkRv (*)();
using CkOpenSession = CkRv (*)(CkULong slot_id, CkULong flags, void* application, void* notify,
                               CkULong* session);
using CkCloseSession = CkRv (*)(CkULong session);

constexpr CkULong k_ckf_serial_session = 0x4;
constexpr CkRv k_ckr_ok = 0;

}  // namespace

// The leading entries of CK_FUNCTION_LIST, up to C_CloseSession.
struct Pkcs11SessionProbe::FunctionList {
  unsigned char version_major;
  unsigned char version_minor;
  CkAnyFunction initialize, finalize, get_info, get_function_list, get_slot_list, get_slot_info,
      get_token_info, get_mechanism_list, get_mechanism_info, init_token, init_pin, set_pin;
  CkOpenSession open_session;
  CkCloseSession close_session;
};

void Pkcs11SessionProbe::ModuleCloser::operator()(void* handle) const { dlclose(handle); }

Pkcs11SessionProbe::~Pkcs11SessionProbe() = default;

bool Pkcs11SessionProbe::Attach(const std::string& module_path) {
  Detach();
  // RTLD_NOLOAD hands back the copy libp11 loaded and initialised; a fresh
  // copy would answer every open with "not initialised".
  std::unique_ptr<void, ModuleCloser> module(
      dlopen(module_path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD));
  if (!module) return false;
  using GetFunctionList = CkRv (*)(FunctionList**);
  const auto get_function_list =
      reinterpret_cast<GetFunctionList>(dlsym(module.get(), "C_GetFunctionList"));
  FunctionList* functions = nullptr;
  if (get_function_list == nullptr || get_function_list(&functions) != k_ckr_ok ||
      functions == nullptr || functions->open_session == nullptr ||
      functions->close_session == nullptr)
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
  CkULong session = 0;
  const CkRv rv = functions_->open_session(
      PKCS11_get_slotid_from_slot(const_cast<PKCS11_SLOT*>(slot)), k_ckf_serial_session,
      nullptr, nullptr, &session);
  if (rv != k_ckr_ok) return rv <= static_cast<CkRv>(INT_MAX) ? -static_cast<int>(rv) : -1;
  // libp11 keeps its own sessions open in its pool, so closing this one never
  // ends a login.
  functions_->close_session(session);
  return 0;
}

}  // namespace quorvant::shared::x509
