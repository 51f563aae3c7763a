#pragma once
#include <openssl/evp.h>

#include <memory>
#include <optional>
#include <vector>

#include "base/Algorithm.h"
#include "base/Thumbprint.h"
#include "files/KeptKeyFile.h"
#include "keystore/IKeyStore.h"
#include "keystore/OpenTokenKey.h"

namespace quorvant::shared::x509 {

class CertStore;
class ICertificate;
class Key;
class KeyStore;

// One certificate's private key held open by the host between operations.
// A file key is kept parsed (KeptKeyFile) and used as long as its file is
// unchanged. A token key keeps its slot, key object and login
// (OpenTokenKey), behind the same three operations.
class OpenKey {
 public:
  // Finds the certificate and opens its key, asking for a key file's
  // password now. Null with |failure| set (and logged) when it cannot.
  static std::unique_ptr<OpenKey> Open(const Thumbprint& thumbprint, X509_Auth_Result& failure);
  // Finds the certificate |thumbprint| names in |users_store| (files first;
  // tokens only when no file holds it). The failure result, logged, when
  // the tokens cannot be listed or no certificate is found.
  static std::optional<X509_Auth_Result> Find(const Thumbprint& thumbprint, CertStore& users_store,
                                              std::unique_ptr<ICertificate>* cert);
  // |file| null: a key opened per request.
  OpenKey(const Thumbprint& thumbprint, Algorithm group, std::unique_ptr<KeptKeyFile> file);
  explicit OpenKey(std::unique_ptr<OpenTokenKey> token);

  // The key store's SignHash, SignHashPss and Decrypt, with this key.
  KeyStoreResult<X509_Auth_Signature> SignHash(KeyStore& store,
                                               const std::vector<Algorithm>& algorithms,
                                               const std::vector<unsigned char>& hash);
  KeyStoreResult<X509_Auth_Signature> SignHashPss(KeyStore& store, const EVP_MD* digest,
                                                  const std::vector<unsigned char>& hash,
                                                  int salt_length);
  KeyStoreResult<X509_Auth_ASN_1> Decrypt(KeyStore& store, DecryptAlgorithm algorithm,
                                          const std::vector<unsigned char>& data);

 private:
  // Readies |key| with the kept file key as the file is now; the failure
  // result otherwise.
  std::optional<X509_Auth_Result> Prepare(Key& key);

  Thumbprint thumbprint_;
  Algorithm group_;
  std::unique_ptr<KeptKeyFile> file_;  // null: opened per request
  std::unique_ptr<OpenTokenKey> token_;
};

}  // namespace quorvant::shared::x509
