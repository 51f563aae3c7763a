#pragma once
#include <libp11.h>

#include <functional>
#include <memory>

#include "base/OpenSslPtr.h"

namespace quorvant::shared::x509 {

class Libp11Context;

// The one path from a token certificate to its private key: log in when the
// token asks for it, probe that a session opens, PKCS11_find_key, then
// PKCS11_get_private_key. Key (signing, decryption) and the key export both
// take it; they differ only in whether a failed login ends the lookup.
struct TokenPrivateKey {
  enum class OnLoginFailure { k_continue, k_stop };

  // Open runs the steps for |cert| on |slot|; |owner| is the context that
  // listed them (its slots own both). A failed login is logged; with k_stop
  // it ends the lookup, and no context at all counts as a failed login (-1).
  // |after_login| runs once the login step has passed, before the lookup.
  static TokenPrivateKey Open(const std::shared_ptr<Libp11Context>& owner, PKCS11_SLOT* slot,
                              PKCS11_CERT* cert, OnLoginFailure on_login_failure,
                              const std::function<void()>& after_login = {});

  // 0, or the login's failure code.
  int login = 0;
  // libp11's key object, owned by |owner|'s slots; null when not found.
  PKCS11_KEY* found = nullptr;
  // The key as OpenSSL sees it; null when not found or libp11 gave none.
  EvpPkeyPtr key;
};

}  // namespace quorvant::shared::x509
