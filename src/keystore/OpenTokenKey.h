#pragma once
#include <openssl/evp.h>

#include <memory>
#include <optional>
#include <vector>

#include "base/Algorithm.h"
#include "base/Thumbprint.h"
#include "keystore/IKeyStore.h"

namespace quorvant::shared::x509 {

class ICertificate;
class Key;
class KeyStore;

// A token certificate's private key held open: the slot, libp11's key object
// and its EVP_PKEY (kept valid by the key's shares of the smart-card context
// and of the slot listing), and the token's login, all kept between
// operations. With the token watch on, each operation first asks whether the
// tokens changed; when they did, or an operation met a token, session or key
// handle gone away, the key is found again once (a PIN asked again, as after
// any change) before the operation fails.
class OpenTokenKey {
 public:
  // Logs in (asking for the PIN when the token needs it) and finds the key
  // of |cert|, a token certificate. Null with |failure| set (and logged)
  // when it cannot.
  static std::unique_ptr<OpenTokenKey> Open(const Thumbprint& thumbprint, const ICertificate& cert,
                                            X509_Auth_Result& failure);
  OpenTokenKey(const Thumbprint& thumbprint, Algorithm group, std::unique_ptr<Key> key);
  ~OpenTokenKey();
  OpenTokenKey(const OpenTokenKey&) = delete;
  OpenTokenKey& operator=(const OpenTokenKey&) = delete;

  KeyStoreResult<X509_Auth_Signature> SignHash(KeyStore& store,
                                               const std::vector<Algorithm>& algorithms,
                                               const std::vector<unsigned char>& hash);
  KeyStoreResult<X509_Auth_Signature> SignHashPss(KeyStore& store, const EVP_MD* digest,
                                                  const std::vector<unsigned char>& hash,
                                                  int salt_length);
  KeyStoreResult<X509_Auth_ASN_1> Decrypt(KeyStore& store, DecryptAlgorithm algorithm,
                                          const std::vector<unsigned char>& data);

 private:
  // Runs |operation| on the kept key, found again first when the tokens
  // changed, and once more after a fresh lookup when it met a token gone.
  template <typename Operation>
  auto WithKey(Operation operation) -> decltype(operation(std::declval<Key&>()));
  // Finds the key again when there is none, or (with the token watch on)
  // when the slot listing it came from was replaced.
  std::optional<X509_Auth_Result> EnsureCurrent();
  // Lets go of the kept key, then finds the certificate and its key anew.
  std::optional<X509_Auth_Result> FindAgain();

  Thumbprint thumbprint_;
  Algorithm group_;
  std::unique_ptr<Key> key_;  // null after a lookup that failed
};

}  // namespace quorvant::shared::x509
