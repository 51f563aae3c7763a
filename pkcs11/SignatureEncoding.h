#pragma once
// The two encodings where PKCS#11 and the library differ: CKM_RSA_PKCS
// signs a DigestInfo the program built, while the library takes the bare
// digest; and the library returns an ECDSA signature as a DER
// ECDSA-Sig-Value, while CKM_ECDSA returns r || s, each as wide as the
// group order.
#include "Mechanisms.h"
#include "TokenObject.h"

namespace x509auth_pkcs11 {

class SignatureEncoding {
 public:
  // Splits a DER DigestInfo into its digest kind and digest. Null when it is
  // not exactly a DigestInfo of SHA-1/256/384/512 with a digest of the
  // right length (or has parameters other than absent or NULL).
  static const HashKind* ParseDigestInfo(const Bytes& input, Bytes& digest);
  // ECDSA-Sig-Value DER to r || s, each |order_length| bytes. False when the
  // DER does not parse or a value is wider than the order.
  static bool EcdsaDerToRaw(const unsigned char* der, std::size_t length, std::size_t order_length,
                            Bytes& raw);
};

}  // namespace x509auth_pkcs11
