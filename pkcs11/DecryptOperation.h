#pragma once
// One RSA decryption in progress in a session. The plaintext is made at the
// first C_Decrypt that asks for it, so that a length query can give the
// exact length, and is kept (wiped when the operation ends) until a buffer
// large enough takes it.
#include <memory>

#include "LibraryLink.h"
#include "OpenKeys.h"
#include "TokenObject.h"

namespace x509auth_pkcs11 {

class DecryptOperation {
 public:
  // CKR_OK with |operation| set, or why |mechanism| cannot decrypt with |key|.
  static CK_RV Begin(const CK_MECHANISM& mechanism, std::shared_ptr<const TokenObject> key,
                     std::unique_ptr<DecryptOperation>& operation);
  ~DecryptOperation();
  DecryptOperation(const DecryptOperation&) = delete;
  DecryptOperation& operator=(const DecryptOperation&) = delete;

  // Decrypts |ciphertext| once, with the key's open key in |keys| (opened
  // now when it is not yet); later calls return the same plaintext. On a
  // refusal of the library returns CKR_FUNCTION_FAILED and sets
  // |library_code|. The caller routes the library's prompts.
  CK_RV Decrypt(const unsigned char* ciphertext, std::size_t length,
                X509_Auth_ResultCode& library_code, OpenKeys& keys);
  const Bytes& Plaintext() const { return plaintext_; }
  bool Done() const { return done_; }
  const TokenObject& Key() const { return *key_; }

 private:
  DecryptOperation() = default;
  uint32_t padding_ = 0;
  std::shared_ptr<const TokenObject> key_;
  Bytes plaintext_;
  bool done_ = false;
};

}  // namespace x509auth_pkcs11
