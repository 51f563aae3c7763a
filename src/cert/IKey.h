#pragma once
#include <cstdint>
#include <vector>

#include "base/Algorithm.h"
#include "base/ResultPair.h"

namespace quorvant::shared::x509 {

class ICertificate;

// The private key behind one certificate, alive for one request.
class IKey {
 public:
  IKey() = default;
  virtual ~IKey() = default;
  IKey(const IKey&) = delete;
  IKey& operator=(const IKey&) = delete;

  // 0 when the key was loaded and classified, else 1.
  virtual std::int32_t Open(const ICertificate& certificate) = 0;
  virtual void Close() = 0;
  virtual x509::Algorithm Algorithm() const = 0;
  // Signs a digest computed by the host; replaces |*signature|.
  virtual ResultPair Sign(const std::vector<unsigned char>& hash,
                          std::vector<unsigned char>* signature) = 0;
  // Decrypts with an RSA key; replaces |*plaintext|.
  virtual ResultPair Decrypt(DecryptAlgorithm algorithm,
                             const std::vector<unsigned char>& ciphertext,
                             std::vector<unsigned char>* plaintext) = 0;
};

}  // namespace quorvant::shared::x509
