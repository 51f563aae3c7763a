#pragma once
// The key behind one certificate, as the provider's operations see it: the
// public half from the certificate (never one of this provider's keys)
// and, for a key loaded through the store, the thumbprint by which the
// library performs the private operations. Immutable once made and shared
// (std::shared_ptr) by the store, the key data and the operation contexts.
#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "PassphraseSource.h"
#include "ProviderContext.h"
#include "ProviderPtr.h"
#include "x509_auth.h"

namespace x509auth_provider {

class KeyObject {
 public:
  // A key with a private half in the library, for the certificate whose DER
  // encoding is |der|; null after raising an error.
  static std::shared_ptr<const KeyObject> ForCertificate(
      ProviderContext* provider, const std::vector<unsigned char>& der,
      const std::array<std::uint8_t, X509_AUTH_THUMBPRINT_LENGTH>& thumbprint,
      std::shared_ptr<PassphraseSource> passphrase);
  // A public key only (imported from another provider, for comparisons).
  static std::shared_ptr<const KeyObject> PublicOnly(ProviderContext* provider,
                                                     std::uint32_t algorithm, EvpPkeyPtr key);

  // Closes the library's open key, if the library that opened it is still
  // the same initialisation.
  ~KeyObject();
  KeyObject(const KeyObject&) = delete;
  KeyObject& operator=(const KeyObject&) = delete;

  ProviderContext* Provider() const { return provider_; }
  std::uint32_t Algorithm() const { return algorithm_; }  // X509_Auth_Algorithm_*
  bool HasPrivate() const { return has_private_; }
  EVP_PKEY* PublicKey() const { return public_key_.get(); }
  const std::string& ThumbprintHex() const { return thumbprint_hex_; }

  // Opens the private key in the library now, where a key file's password
  // is asked for through the key's passphrase source; the key stays open
  // for the operations below. False after raising an error.
  bool OpenPrivate() const;
  // Signs |hash| (the length |hash_type| implies) through the library with
  // the open key (opened first when it is not), which asks for a PIN or
  // password through the key's passphrase source. False
  // after raising an error naming the thumbprint and the library's result.
  bool SignHash(X509_Auth_HashType hash_type, const unsigned char* hash,
                std::vector<unsigned char>* signature) const;
  // The same with RSASSA-PSS, MGF1 with the same digest; |salt_length| as
  // X509_Auth_SignHashPss takes it.
  bool SignHashPss(X509_Auth_HashType hash_type, const unsigned char* hash, int salt_length,
                   std::vector<unsigned char>* signature) const;
  // Drops the passphrase kept for this key (it turned out wrong).
  void ForgetPassphrase() const;
  // Decrypts through the library with X509_Auth_DecryptAlgorithm_* |padding|.
  bool Decrypt(std::uint32_t padding, const unsigned char* data, std::size_t length,
               std::vector<unsigned char>* plaintext) const;

 private:
  KeyObject() = default;
  // Under the session lock: the open key, opened again when none is or the
  // library was initialised anew since.
  X509_Auth_Result EnsureOpen() const;
  template <typename Call>
  bool Sign(const char* what, std::vector<unsigned char>* signature, Call&& call) const;
  void RaiseLibraryFailure(int reason, const char* what, X509_Auth_Result result,
                           const ProviderContext::CallReport& report) const;

  ProviderContext* provider_ = nullptr;
  std::uint32_t algorithm_ = X509_Auth_Algorithm_Unknown;
  bool has_private_ = false;
  std::array<std::uint8_t, X509_AUTH_THUMBPRINT_LENGTH> thumbprint_{};
  std::string thumbprint_hex_;
  EvpPkeyPtr public_key_;
  std::shared_ptr<PassphraseSource> passphrase_;
  // The library's open key and the initialisation it belongs to; used only
  // under the session lock.
  mutable X509_Auth_KeyHandle open_key_ = 0;
  mutable std::uint64_t open_generation_ = 0;
};

// What OpenSSL holds as the key data of this provider's key management.
struct KeyData {
  ProviderContext* provider = nullptr;
  std::shared_ptr<const KeyObject> key;
};

}  // namespace x509auth_provider
