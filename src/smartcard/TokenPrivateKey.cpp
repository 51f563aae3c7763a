#include "smartcard/TokenPrivateKey.h"

#include "base/SafeCallbacksWrapper.h"
#include "smartcard/Libp11Context.h"

namespace quorvant::shared::x509 {

TokenPrivateKey TokenPrivateKey::Open(const std::shared_ptr<Libp11Context>& owner,
                                      PKCS11_SLOT* slot, PKCS11_CERT* cert,
                                      OnLoginFailure on_login_failure,
                                      const std::function<void()>& after_login) {
  TokenPrivateKey result;
  {
    // Held for the login only; |owner| keeps the slot and the certificate
    // alive for the key lookup.
    const std::shared_ptr<Libp11Context> libp11 = Libp11Context::GetInstance();
    const int no_context = on_login_failure == OnLoginFailure::k_stop ? -1 : 0;
    result.login = libp11 ? libp11->LogInToSlotIfRequired(slot) : no_context;
  }
  if (result.login != 0) {
    SafeCallbacksWrapper::Log(
        X509_Auth_LogPriority_Error,
        "Error logging in to token before obtaining private key! Error code: [%i]", result.login);
    // Otherwise the lookup goes on: the key may be public.
    if (on_login_failure == OnLoginFailure::k_stop) return result;
  }
  if (after_login) after_login();
  // libp11 waits forever for a session the token refuses, so a token that
  // cannot open one now is treated as holding no key.
  const bool usable = owner && owner->CanOpenSession(slot);
  result.found = usable ? PKCS11_find_key(cert) : nullptr;
  if (result.found != nullptr) result.key.reset(PKCS11_get_private_key(result.found));
  return result;
}

}  // namespace quorvant::shared::x509
