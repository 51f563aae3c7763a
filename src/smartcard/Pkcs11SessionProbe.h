#pragma once
#include <libp11.h>
#include <p11-kit/pkcs11.h>

#include <memory>
#include <string>

namespace quorvant::shared::x509 {

// Asks the loaded PKCS#11 module directly whether a session can be opened on
// a slot. libp11 0.4.12 waits forever on a condition variable when the
// module's C_OpenSession fails (other than for too many sessions), so every
// call into libp11 that needs a session is preceded by this probe. A card can
// still go away between the probe and libp11's own open; that window remains.
class Pkcs11SessionProbe {
 public:
  // A token that is absent or not initialised; no module call is made.
  static constexpr int k_token_unusable = -1;

  Pkcs11SessionProbe() = default;
  ~Pkcs11SessionProbe();
  Pkcs11SessionProbe(const Pkcs11SessionProbe&) = delete;
  Pkcs11SessionProbe& operator=(const Pkcs11SessionProbe&) = delete;

  // Attaches to the module libp11 has already loaded from |module_path|,
  // never loading a second copy. Returns false when it is not loaded or is
  // not a PKCS#11 module.
  bool Attach(const std::string& module_path);
  // Drops the reference to the module; call before libp11 unloads it.
  void Detach();

  // Probe returns 0 when a read-only session can be opened on |slot| now (it
  // is closed again at once), k_token_unusable for a missing or uninitialised
  // token or when not attached, and otherwise the module's CK_RV negated
  // (-1 when that does not fit an int).
  int Probe(const PKCS11_SLOT* slot) const;

  // False when the module says |slot| has no token now. Its slot query is
  // where a card module looks at the reader again; sessions opened on a
  // pulled card may keep "succeeding" until then. True when not attached.
  bool TokenPresent(const PKCS11_SLOT* slot) const;

  // The module's own function list, for the few operations libp11 0.4.12
  // does not offer (RSA-PSS on a token key); null when not attached. Valid
  // until Detach.
  CK_FUNCTION_LIST_PTR Functions() const { return functions_; }

 private:
  struct ModuleCloser {
    void operator()(void* handle) const;
  };

  std::unique_ptr<void, ModuleCloser> module_;
  CK_FUNCTION_LIST_PTR functions_ = nullptr;
};

}  // namespace quorvant::shared::x509
