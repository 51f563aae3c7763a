// The provider's reading of a certificate's public key without parsing the
// certificate: the same key OpenSSL's parse gives, for RSA and named-curve
// EC keys; nothing for other kinds, which the provider then parses whole;
// and nothing, without harm, for a damaged encoding.
#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/err.h>

#include "CertificatePublicKey.h"
#include "TestPki.h"

namespace x509auth_test {
namespace {

using x509auth_provider::CertificatePublicKey;

Bytes CertificateOf(EVP_PKEY* key) {
  const TestX509 cert = MakeCert(ClientOptions("Key Reader"), key);
  return CertToDer(cert.get());
}

// The key as OpenSSL's parse of the whole certificate gives it.
EvpPkeyPtr ParsedKey(const Bytes& der) {
  const unsigned char* cursor = der.data();
  const X509Ptr cert(d2i_X509(nullptr, &cursor, static_cast<long>(der.size())));
  return EvpPkeyPtr(cert != nullptr ? X509_get_pubkey(cert.get()) : nullptr);
}

TEST(CertificatePublicKeyTest, RsaAndNamedCurveKeysAreTheOnesTheCertificateParseGives) {
  for (const KeyKind kind : {KeyKind::k_rsa, KeyKind::k_ec}) {
    const TestKey key = SharedKey(kind);
    const Bytes der = CertificateOf(key.get());
    const EvpPkeyPtr read = CertificatePublicKey::Read(der, nullptr, nullptr);
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(EVP_PKEY_eq(read.get(), ParsedKey(der).get()), 1);
    EXPECT_EQ(EVP_PKEY_get_bits(read.get()), kind == KeyKind::k_rsa ? 2048 : 256);
    EXPECT_TRUE(EVP_PKEY_is_a(read.get(), kind == KeyKind::k_rsa ? "RSA" : "EC"));
  }
}

TEST(CertificatePublicKeyTest, AVersionOneCertificateWithoutTheVersionFieldIsReadToo) {
  const TestKey key = SharedKey(KeyKind::k_ec);
  const TestX509 cert = MakeCert(ClientOptions("Version One"), key.get());
  // Version 1 is the default, so the field is left out of the encoding.
  ASSERT_EQ(X509_set_version(cert.get(), X509_VERSION_1), 1);
  ASSERT_GT(X509_sign(cert.get(), key.get(), EVP_sha256()), 0);
  const Bytes der = CertToDer(cert.get());
  const EvpPkeyPtr read = CertificatePublicKey::Read(der, nullptr, nullptr);
  ASSERT_NE(read, nullptr);
  EXPECT_EQ(EVP_PKEY_eq(read.get(), key.get()), 1);
}

TEST(CertificatePublicKeyTest, OtherKindsOfKeyAreLeftToTheWholeParse) {
  for (const KeyKind kind : {KeyKind::k_rsa_pss, KeyKind::k_ed25519}) {
    const TestKey key = SharedKey(kind);
    EXPECT_EQ(CertificatePublicKey::Read(CertificateOf(key.get()), nullptr, nullptr), nullptr);
  }
  // P-256 written out as explicit curve parameters rather than by name.
  const TestKey explicit_curve = MakeKey(KeyKind::k_ec);
  ASSERT_EQ(EVP_PKEY_set_utf8_string_param(explicit_curve.get(), OSSL_PKEY_PARAM_EC_ENCODING,
                                           OSSL_PKEY_EC_ENCODING_EXPLICIT),
            1);
  const Bytes der = CertificateOf(explicit_curve.get());
  ASSERT_NE(ParsedKey(der), nullptr);
  EXPECT_EQ(CertificatePublicKey::Read(der, nullptr, nullptr), nullptr);
  ERR_clear_error();
}

TEST(CertificatePublicKeyTest, APropertyQueryNothingMatchesGivesNoKey) {
  const TestKey key = SharedKey(KeyKind::k_rsa);
  EXPECT_EQ(CertificatePublicKey::Read(CertificateOf(key.get()), nullptr, "provider=nowhere"),
            nullptr);
  ERR_clear_error();
}

TEST(CertificatePublicKeyTest, EveryTruncationAndEveryDamagedByteIsReadWithoutHarm) {
  for (const KeyKind kind : {KeyKind::k_rsa, KeyKind::k_ec}) {
    const TestKey key = SharedKey(kind);
    const Bytes der = CertificateOf(key.get());
    for (std::size_t length = 0; length < der.size(); ++length)
      EXPECT_EQ(
          CertificatePublicKey::Read(Bytes(der.begin(), der.begin() + length), nullptr, nullptr),
          nullptr)
          << "first " << length << " bytes";
    // A damaged byte gives no key or some key (a changed modulus is still
    // a modulus), and the sanitizer build checks that no read strays; in
    // the signature, which comes after the key and is never read, it
    // changes nothing.
    const std::size_t signature_tail = 32;
    for (std::size_t at = 0; at < der.size(); ++at) {
      Bytes damaged = der;
      damaged[at] ^= 0xa5;
      const EvpPkeyPtr read = CertificatePublicKey::Read(damaged, nullptr, nullptr);
      if (at >= der.size() - signature_tail) {
        ASSERT_NE(read, nullptr) << "byte " << at;
        EXPECT_EQ(EVP_PKEY_eq(read.get(), key.get()), 1) << "byte " << at;
      }
    }
    ERR_clear_error();
  }
}

}  // namespace
}  // namespace x509auth_test
