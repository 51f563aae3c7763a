#include "Pin.h"

#include <openssl/crypto.h>

#include <cstring>
#include <new>

namespace x509auth_pkcs11 {

void Pin::Set(const unsigned char* value, std::size_t length) {
  Clear();
  char* copy = static_cast<char*>(OPENSSL_secure_zalloc(length + 1));
  if (copy == nullptr) throw std::bad_alloc();
  if (length > 0) std::memcpy(copy, value, length);
  value_ = copy;
  size_ = length + 1;
}

void Pin::Clear() {
  if (value_ == nullptr) return;
  OPENSSL_secure_clear_free(value_, size_);
  value_ = nullptr;
  size_ = 0;
}

}  // namespace x509auth_pkcs11
