#include "base/SecretWipe.h"

#include <openssl/crypto.h>

namespace quorvant::shared::x509 {

namespace {
SecretWipe::Observer observer = nullptr;
}  // namespace

void SecretWipe::Wipe(void* data, std::size_t size) {
  if (data == nullptr || size == 0) return;
  OPENSSL_cleanse(data, size);
  if (observer != nullptr) observer(static_cast<const unsigned char*>(data), size);
}

void SecretWipe::Wipe(std::vector<unsigned char>& bytes) { Wipe(bytes.data(), bytes.capacity()); }

void SecretWipe::SetObserverForTesting(Observer new_observer) { observer = new_observer; }

}  // namespace quorvant::shared::x509
