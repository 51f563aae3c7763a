#pragma once
// The public key of a certificate, read from its DER encoding without
// parsing the whole certificate. OpenSSL 3.0 decodes a certificate's key
// through its generic decoders, and builds the decoder chain afresh from
// every provider's decoders at each parse: 4.8 million instructions, a
// tenth of a whole s_client process authenticating through this provider.
// The keys this provider serves are RSA (modulus and exponent) and EC on a
// named curve (curve and point); those are taken from the
// SubjectPublicKeyInfo and given to key management as parameters, which
// checks them as it would a decoded key.
#include <openssl/types.h>

#include <vector>

#include "ProviderPtr.h"

namespace x509auth_provider {

class CertificatePublicKey {
 public:
  // The key of the certificate |der| as a key of |libctx| fetched with
  // |properties|; null, with OpenSSL's errors on the queue, for any other
  // kind of key (explicit curve parameters, RSA-PSS, Ed25519) or an
  // encoding it cannot follow: the caller then parses the certificate.
  static EvpPkeyPtr Read(const std::vector<unsigned char>& der, OSSL_LIB_CTX* libctx,
                         const char* properties);
};

}  // namespace x509auth_provider
