#pragma once
// Test PKI made on the fly with OpenSSL: keys of every kind the library
// meets, CA, intermediate and leaf certificates with the usages a test is
// about, and their PEM, DER and encrypted encodings. Nothing is read from
// fixture files.
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "x509auth/OpenSslPtr.h"

namespace x509auth_test {

// The project's owning aliases (common/x509auth/OpenSslPtr.h), by their own
// names and by the two the tests use most.
using namespace x509auth_openssl;
using TestX509 = x509auth_openssl::X509Ptr;
using TestKey = x509auth_openssl::EvpPkeyPtr;
using Bytes = std::vector<unsigned char>;

enum class KeyKind { k_rsa, k_ec, k_rsa_pss, k_ed25519 };

// A fresh key. RSA keys are 2048 bits, EC keys P-256.
TestKey MakeKey(KeyKind kind);
// A key of this kind shared by the whole test process (key generation is the
// slow part of most tests); the caller gets its own reference.
TestKey SharedKey(KeyKind kind, int index = 0);

struct CertOptions {
  std::string common_name = "Test Leaf";
  bool omit_common_name = false;
  std::string organisation;  // added to the subject when not empty
  bool is_ca = false;
  // OpenSSL config text, e.g. "digitalSignature,keyEncipherment"; none when
  // empty.
  std::string key_usage;
  // e.g. "clientAuth" or "serverAuth,clientAuth"; none when empty.
  std::string extended_key_usage;
  // Validity as ASN.1 text: "YYMMDDhhmmssZ" for UTCTime or
  // "YYYYMMDDhhmmssZ" for GeneralizedTime. Empty: now - 1 day / now + 365.
  std::string not_before;
  std::string not_after;
  long serial = 0;  // 0: a fresh serial
};

// Makes a certificate for |subject_key| issued by |issuer| with
// |issuer_key|; self-signed when |issuer| is null.
TestX509 MakeCert(const CertOptions& options, EVP_PKEY* subject_key, X509* issuer = nullptr,
                  EVP_PKEY* issuer_key = nullptr);

// The options of a CA certificate that signs certificates and CRLs.
CertOptions CaOptions(const std::string& common_name);
// The options of a client-authentication leaf with a digital-signature key;
// |not_before| and |not_after| as in CertOptions.
CertOptions ClientOptions(const std::string& common_name, const std::string& not_before = "",
                          const std::string& not_after = "");

// The certificates of |store| in the order OpenSSL searches them (its stack
// sorted).
std::vector<X509*> SortedStoreCerts(X509_STORE* store);

// Root CA, intermediate CA and a client-auth leaf, each with its own key.
struct Chain {
  TestKey root_key, intermediate_key, leaf_key;
  TestX509 root, intermediate, leaf;
};
Chain MakeChain(KeyKind leaf_kind = KeyKind::k_rsa, const std::string& leaf_name = "Test Leaf");

// A client-auth leaf named |leaf_name| under a root CA of its own ("Unknown
// Root CA") that no test's CA file holds: its chain cannot be built until
// the root is added.
struct ForeignClient {
  TestKey root_key, leaf_key;
  TestX509 root, leaf;
};
ForeignClient MakeClientOfUnknownCa(const std::string& leaf_name);

std::string CertToPem(X509* cert);
// PEM texts of a certificate made by |make| for each name, all of one length,
// for tests that rewrite a file in place and must keep its size. An ECDSA
// signature's length varies, and a short one is rare enough that waiting for
// others to match it can fail: each round makes one of each, until some
// length has them all. Empty when none turns up.
std::map<std::string, std::string> PemsOfOneLength(
    const std::vector<std::string>& names, const std::function<TestX509(const std::string&)>& make);
Bytes CertToDer(X509* cert);
Bytes Sha1Thumbprint(X509* cert);
// Lower-case hex, two digits a byte, as the tool and the provider take thumbprints.
std::string LowerHex(const Bytes& bytes);
// PKCS#8 PEM; encrypted with AES-256-CBC when |password| is given.
std::string KeyToPem(EVP_PKEY* key, const char* password = nullptr);
// Traditional ("BEGIN RSA PRIVATE KEY" / "BEGIN EC PRIVATE KEY") PEM with
// DEK-Info encryption when |password| is given.
std::string KeyToTraditionalPem(EVP_PKEY* key, const char* password = nullptr);
Bytes KeyToDer(EVP_PKEY* key);
// Traditional DER (RSAPrivateKey / ECPrivateKey) for RSA and EC keys.
Bytes KeyToTraditionalDer(EVP_PKEY* key);
// Encrypted PKCS#8 DER.
Bytes KeyToEncryptedDer(EVP_PKEY* key, const char* password);

// Verifies |signature| over |digest| with |cert|'s public key: PKCS#1 v1.5
// with |md| for an RSA key, plain ECDSA over the digest for an EC key.
bool VerifiesWithCertificate(X509* cert, const EVP_MD* md, const Bytes& digest,
                             const unsigned char* signature, std::size_t length);
// Encrypts |plaintext| to |cert|'s RSA public key with |padding|.
Bytes EncryptToCertificate(X509* cert, int padding, const Bytes& plaintext);
// An RSA ciphertext for |cert| that PKCS#1 v1.5 decryption refuses every
// time: its block carries a signature's padding (type 1), not an
// encryption's. (Another padding's ciphertext, or random bytes, only
// usually fail: an OAEP block begins with 0x00 and passes as type 2 about
// once in 400 tries.)
Bytes CiphertextWithBadPkcs1Padding(X509* cert);

void WriteFile(const std::filesystem::path& path, const std::string& content);
void WriteFile(const std::filesystem::path& path, const Bytes& content);
Bytes ReadFileBytes(const std::filesystem::path& path);

// A temporary directory removed with everything in it when destroyed.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

// Writes |cert| to base/certs/|file_name| (PEM or DER) and, when |key| is
// given, its unencrypted PEM key to base/keys/|file_name|.key (mode 0600).
void InstallFileCert(const std::filesystem::path& base, const std::string& file_name, X509* cert,
                     EVP_PKEY* key = nullptr, bool der = false);

}  // namespace x509auth_test
