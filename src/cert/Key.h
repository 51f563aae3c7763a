#pragma once
#include <string>

#include "api/OpenSslPtr.h"
#include "cert/IKey.h"

namespace quorvant::shared::x509 {

// A private key from a key file or a PKCS#11 token, driven through
// OpenSSL's EVP interface.
class Key : public IKey {
 public:
  Key() = default;
  ~Key() override;

  std::int32_t Open(const ICertificate& certificate) override;
  void Close() override;
  x509::Algorithm Algorithm() const override;
  ResultPair Sign(const std::vector<unsigned char>& hash,
                  std::vector<unsigned char>* signature) override;
  ResultPair Decrypt(DecryptAlgorithm algorithm, const std::vector<unsigned char>& ciphertext,
                     std::vector<unsigned char>* plaintext) override;

 private:
  EvpPkeyPtr key;
  std::string text;  // never filled; kept empty
  x509::Algorithm algorithm = x509::Algorithm::k_unknown;
};

}  // namespace quorvant::shared::x509
