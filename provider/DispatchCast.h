#pragma once
// The one cast of the dispatch tables. OpenSSL's OSSL_DISPATCH holds every
// entry as void (*)(void); each entry is declared with OpenSSL's own type for
// its slot (OSSL_FUNC_signature_sign_fn and so on), so a wrong signature is a
// build error at the declaration, and only this cast forgets the type.
#include <openssl/core.h>

namespace x509auth_provider {

template <typename Function>
constexpr auto DispatchCast(Function* function) {
  return reinterpret_cast<void (*)(void)>(function);
}

}  // namespace x509auth_provider
