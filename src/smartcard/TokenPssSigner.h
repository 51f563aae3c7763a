#pragma once
#include <libp11.h>
#include <openssl/evp.h>

#include <vector>

#include "base/ResultPair.h"

namespace quorvant::shared::x509 {

class Libp11Context;

// RSA-PSS with a token key. libp11 0.4.12 offers PKCS#1 v1.5 and raw RSA
// only, so this talks to the module libp11 loaded directly: the token's own
// CKM_RSA_PKCS_PSS where it has it, otherwise CKM_RSA_X_509 over a PSS block
// encoded here. A login made through libp11 holds for these sessions too:
// PKCS#11 logs in the application, not a session.
class TokenPssSigner {
 public:
  // Codes of the result pair besides 0: 1 the token failed (detail: its
  // CK_RV), 12 the token can do neither mechanism.
  static constexpr int k_mechanism_not_supported = 12;

  // |context| must have loaded the module holding |slot|; |key| is the
  // private key libp11 found, |public_key| its public half (the modulus
  // sizes the block). |salt_length| is a byte count already checked
  // against the key.
  TokenPssSigner(const Libp11Context& context, PKCS11_SLOT* slot, const PKCS11_KEY* key,
                 EVP_PKEY* public_key);

  ResultPair Sign(const EVP_MD* digest, const std::vector<unsigned char>& hash, int salt_length,
                  std::vector<unsigned char>* signature) const;

 private:
  const Libp11Context& context_;
  PKCS11_SLOT* slot_;
  const PKCS11_KEY* key_;
  EVP_PKEY* public_key_;
};

}  // namespace quorvant::shared::x509
