#pragma once
// The mechanisms the module offers, what each takes and what it does: one
// table, read by C_GetMechanismList, C_GetMechanismInfo and the operations.
#include <openssl/evp.h>

#include <vector>

#include "OpenSslPtr.h"
#include "Pkcs11.h"
#include "x509_auth.h"

namespace x509auth_pkcs11 {

// A digest the library signs: its PKCS#11 name, the library's hash type,
// OpenSSL's digest and its length.
struct HashKind {
  CK_MECHANISM_TYPE mechanism;  // CKM_SHA_1, CKM_SHA256, ...
  CK_RSA_PKCS_MGF_TYPE mgf;     // CKG_MGF1_SHA1, ...
  X509_Auth_HashType library_type;
  const EVP_MD* (*digest)();
  std::size_t length;
};

enum class Scheme { k_rsa_pkcs1, k_rsa_pss, k_rsa_oaep, k_ecdsa, k_digest };

struct Mechanism {
  CK_MECHANISM_TYPE type;
  // Unused by the digest mechanisms, which take no key.
  CK_KEY_TYPE key_type;
  Scheme scheme;
  // The digest the module computes over the data (a digest mechanism's
  // own); null when the program gives the digest (or a DigestInfo, or a
  // ciphertext).
  const HashKind* hashing;
  bool sign;
  bool decrypt;
};

class Mechanisms {
 public:
  static const Mechanism* Find(CK_MECHANISM_TYPE type);
  // Every mechanism, leaving out RSA-PSS when the library cannot sign it.
  // The digests are there for programs that will sign RSA-PSS only with a
  // token that can also hash (JDK 17's SunPKCS11 among them).
  static std::vector<CK_MECHANISM_TYPE> List(bool pss_available);
  static CK_MECHANISM_INFO Info(const Mechanism& mechanism);

  static const HashKind* HashByMechanism(CK_MECHANISM_TYPE type);
  static const HashKind* HashByLength(std::size_t length);
  static const HashKind* HashByNid(int nid);
  // A digest of |hash| begun, for data the program hands over in parts;
  // null when OpenSSL cannot begin one.
  static EvpMdCtxPtr BeginDigest(const HashKind& hash);
};

}  // namespace x509auth_pkcs11
