#pragma once
#include <libp11.h>

#include <memory>
#include <optional>

#include "base/OpenSslPtr.h"
#include "cert/IKey.h"
#include "smartcard/FreshTokenErrors.h"

namespace quorvant::shared::x509 {

class Libp11Context;
class TokenSlots;

// A private key from a key file or a PKCS#11 token, driven through
// OpenSSL's EVP interface.
class Key : public IKey {
 public:
  Key() = default;
  ~Key() override;

  std::int32_t Open(const ICertificate& certificate) override;
  // Takes a key already opened and checked elsewhere (a kept key file's,
  // shared through its reference count) for the operations below; 0, or 1
  // with a line for a key that is neither RSA nor EC.
  std::int32_t Use(EvpPkeyPtr opened);
  void Close() override;
  x509::Algorithm Algorithm() const override;
  ResultPair Sign(const std::vector<unsigned char>& hash,
                  std::vector<unsigned char>* signature) override;
  ResultPair Decrypt(DecryptAlgorithm algorithm, const std::vector<unsigned char>& ciphertext,
                     std::vector<unsigned char>* plaintext) override;

  // Signs |hash|, made by |digest|, with RSASSA-PSS (MGF1 with the same
  // digest). |salt_length| is a byte count or -1 (the digest's length), -2
  // or -3 (the longest the key allows). Codes: 0, 1 the signature failed,
  // 6 not an RSA key, 11 a salt the key cannot hold, 12 a token that can do
  // neither RSA-PSS nor raw RSA.
  ResultPair SignPss(const EVP_MD* digest, const std::vector<unsigned char>& hash, int salt_length,
                     std::vector<unsigned char>* signature);

  // A token key's context and the slot listing it was found in; null for a
  // key file's. A key held open compares the listing with the context's
  // current one to tell whether the tokens changed under it.
  const std::shared_ptr<Libp11Context>& TokenContext() const { return token_context; }
  const std::shared_ptr<TokenSlots>& TokenListing() const { return token_slots; }

 private:
  // After a failed token operation: tells the context when libp11 reported
  // a token or session that went away, or a key handle it no longer knows,
  // since |fresh| began (absent without the token watch), so that the
  // request may retry.
  void NoteTokenLoss(const std::optional<FreshTokenErrors>& fresh) const;

  // Sets the algorithm from the key's type: 0, or 1 for any other type.
  std::int32_t Classify();

  // A token key as libp11 found it, for what its EVP_PKEY cannot do. The
  // slot and key belong to libp11, so the context that owns them is held;
  // declared first, so that it goes after the key made from it.
  std::shared_ptr<Libp11Context> token_context;
  // The slot listing the key was found in, kept as long as the key.
  std::shared_ptr<TokenSlots> token_slots;
  EvpPkeyPtr key;
  x509::Algorithm algorithm = x509::Algorithm::k_unknown;
  PKCS11_SLOT* token_slot = nullptr;
  PKCS11_KEY* token_key = nullptr;
};

}  // namespace quorvant::shared::x509
