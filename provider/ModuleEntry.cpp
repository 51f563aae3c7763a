// The module's one exported symbol; the same init serves hosts that build the
// provider in.
#include <openssl/core_dispatch.h>

#include "ProviderContext.h"

extern "C" __attribute__((visibility("default"))) int OSSL_provider_init(
    const OSSL_CORE_HANDLE* handle, const OSSL_DISPATCH* in, const OSSL_DISPATCH** out,
    void** provctx) {
  return x509auth_provider::X509AuthProviderInit(handle, in, out, provctx);
}
