#pragma once
// Every copy of secret material the library owns (decrypted plaintexts it
// keeps for the host, key file bytes, stdio buffers that held a key) is
// wiped through here before its memory is released.
#include <cstddef>
#include <vector>

namespace quorvant::shared::x509 {

class SecretWipe {
 public:
  // Called after each wipe, before the memory is released; tests use it to
  // see that a released buffer really was wiped. Not thread-safe to change.
  using Observer = void (*)(const unsigned char* data, std::size_t size);

  // OPENSSL_cleanse over |size| bytes at |data|; nothing for size 0.
  static void Wipe(void* data, std::size_t size);
  // The whole allocation of |bytes|, including capacity beyond its size.
  static void Wipe(std::vector<unsigned char>& bytes);

  static void SetObserverForTesting(Observer observer);
};

}  // namespace quorvant::shared::x509
