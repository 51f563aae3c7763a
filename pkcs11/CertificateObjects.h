#pragma once
// Turns a certificate the library offers into the objects a PKCS#11 program
// expects of a card: the certificate, its public key and its private key,
// sharing one CKA_ID (the 20-byte thumbprint) and one CKA_LABEL (the
// subject's common name); and a CA certificate of a chain into an authority
// certificate object. Every public value comes from the certificate; the
// private key object only names the key the library holds.
#include <memory>
#include <string>
#include <vector>

#include "TokenObject.h"

namespace x509auth_pkcs11 {

class CertificateObjects {
 public:
  // The three objects of a client certificate given as DER; the private key
  // has CKA_PRIVATE = |keys_private|. Only the certificate object when the
  // key is neither RSA nor EC, none when the DER does not parse.
  static std::vector<std::shared_ptr<const TokenObject>> Client(const Thumbprint& thumbprint,
                                                                const Bytes& der,
                                                                bool keys_private);
  // A CA certificate (CKA_CERTIFICATE_CATEGORY 2); null when it does not parse.
  static std::shared_ptr<const TokenObject> Authority(const Thumbprint& thumbprint,
                                                      const Bytes& der);
  // SHA-1 of |der|.
  static Thumbprint ThumbprintOf(const Bytes& der);
};

}  // namespace x509auth_pkcs11
