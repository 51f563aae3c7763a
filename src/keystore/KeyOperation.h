#pragma once
#include <openssl/evp.h>

#include <vector>

#include "base/Algorithm.h"
#include "keystore/IKeyStore.h"

namespace quorvant::shared::x509 {

class Key;
class KeyStore;

// The three key operations once a key is ready, shared by a request, an
// open file key and an open token key: the operation, its failure line and
// code, and the record handed to the host. Success lines are the caller's:
// only requests write one.
class KeyOperation {
 public:
  // PKCS#1 v1.5 or ECDSA over |hash|; the record carries |group|.
  static KeyStoreResult<X509_Auth_Signature> Sign(KeyStore& store, Key& key, Algorithm group,
                                                  const std::vector<unsigned char>& hash);
  static KeyStoreResult<X509_Auth_Signature> SignPss(KeyStore& store, Key& key,
                                                     const EVP_MD* digest,
                                                     const std::vector<unsigned char>& hash,
                                                     int salt_length);
  // The plaintext is wiped wherever it does not end in the host's record.
  static KeyStoreResult<X509_Auth_ASN_1> Decrypt(KeyStore& store, Key& key,
                                                 DecryptAlgorithm algorithm,
                                                 const std::vector<unsigned char>& data);
};

}  // namespace quorvant::shared::x509
