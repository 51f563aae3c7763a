#include <gtest/gtest.h>
#include <openssl/x509v3.h>

#include <stdexcept>

#include "CertTestSupport.h"
#include "LocalTimeZone.h"
#include "TestPki.h"
#include "cert/Cert.h"

namespace quorvant::shared::x509 {
namespace {

using test::East;
using test::MakeEncodedCert;
using test::MakeFileCert;
using test::MakeTokenCert;
using test::X509OnlyStore;
using x509auth_test::CertOptions;
using x509auth_test::KeyKind;
using x509auth_test::MakeCert;
using x509auth_test::SharedKey;

x509auth_test::TestX509 SelfSigned(KeyKind kind, CertOptions options = CertOptions()) {
  x509auth_test::TestKey key = SharedKey(kind);
  return MakeCert(options, key.get());
}

TEST(CertTest, PublicKeyAlgorithmIsTheDottedOidOfEachKeyKind) {
  X509OnlyStore store;
  EXPECT_EQ(MakeFileCert(&store, SelfSigned(KeyKind::k_rsa).get())->PublicKeyAlgorithm(),
            "1.2.840.113549.1.1.1");
  EXPECT_EQ(MakeFileCert(&store, SelfSigned(KeyKind::k_ec).get())->PublicKeyAlgorithm(),
            "1.2.840.10045.2.1");
  EXPECT_EQ(MakeFileCert(&store, SelfSigned(KeyKind::k_rsa_pss).get())->PublicKeyAlgorithm(),
            "1.2.840.113549.1.1.10");
  EXPECT_EQ(MakeFileCert(&store, SelfSigned(KeyKind::k_ed25519).get())->PublicKeyAlgorithm(),
            "1.3.101.112");
}

TEST(CertTest, PublicKeyAlgorithmGroupCountsRsaAndEcButNotPssOrEd25519) {
  X509OnlyStore store;
  EXPECT_EQ(MakeFileCert(&store, SelfSigned(KeyKind::k_rsa).get())->PublicKeyAlgorithmGroup(),
            Algorithm::k_rsa);
  EXPECT_EQ(MakeFileCert(&store, SelfSigned(KeyKind::k_ec).get())->PublicKeyAlgorithmGroup(),
            Algorithm::k_ec);
  EXPECT_EQ(MakeFileCert(&store, SelfSigned(KeyKind::k_rsa_pss).get())->PublicKeyAlgorithmGroup(),
            Algorithm::k_unknown);
  EXPECT_EQ(MakeFileCert(&store, SelfSigned(KeyKind::k_ed25519).get())->PublicKeyAlgorithmGroup(),
            Algorithm::k_unknown);
}

// Reports a chosen OID, to pin how the group is derived from the text.
class CertWithOid : public Cert {
 public:
  CertWithOid(const ICertificateStore* store, X509* cert, std::string oid)
      : Cert(CertContext(
            std::make_unique<EncodedCertContext>(EncodedCertContext{store, test::Dup(cert)}))),
        oid_(std::move(oid)) {}
  std::string PublicKeyAlgorithm() const override { return oid_; }

 private:
  std::string oid_;
};

TEST(CertTest, PublicKeyAlgorithmGroupUsesTheOverridablePublicKeyAlgorithm) {
  X509OnlyStore store;
  auto rsa_cert = SelfSigned(KeyKind::k_rsa);
  auto group = [&](const char* oid) {
    return CertWithOid(&store, rsa_cert.get(), oid).PublicKeyAlgorithmGroup();
  };
  EXPECT_EQ(group("1.2.840.10045.2.1"), Algorithm::k_ec);
  EXPECT_EQ(group("1.2.840.113549.1.1.7"), Algorithm::k_rsa);
  EXPECT_EQ(group("1.2.840.113549.1.1.10"), Algorithm::k_unknown);
  // Only an exact PSS match is excluded; longer OIDs below it are RSA.
  EXPECT_EQ(group("1.2.840.113549.1.1.100"), Algorithm::k_rsa);
  // The prefix must match at the start and include its final dot.
  EXPECT_EQ(group("1.2.840.113549"), Algorithm::k_unknown);
  EXPECT_EQ(group("2.1.2.840.113549.1.1.1"), Algorithm::k_unknown);
  EXPECT_EQ(group("1.2.840.10045"), Algorithm::k_unknown);
  EXPECT_EQ(group(""), Algorithm::k_unknown);
}

TEST(CertTest, IntendedKeyUsageWithoutExtensionIsZeroAndTrue) {
  X509OnlyStore store;
  std::uint32_t usage = 0x1234;
  EXPECT_TRUE(MakeFileCert(&store, SelfSigned(KeyKind::k_rsa).get())->IntendedKeyUsage(usage));
  EXPECT_EQ(usage, 0u);
}

TEST(CertTest, IntendedKeyUsageReportsTheExtensionBits) {
  X509OnlyStore store;
  CertOptions options;
  options.key_usage = "critical,digitalSignature,keyEncipherment";
  std::uint32_t usage = 0;
  EXPECT_TRUE(
      MakeFileCert(&store, SelfSigned(KeyKind::k_rsa, options).get())->IntendedKeyUsage(usage));
  EXPECT_EQ(usage, static_cast<std::uint32_t>(KU_DIGITAL_SIGNATURE | KU_KEY_ENCIPHERMENT));
}

TEST(CertTest, EnhancedKeyUsageWithoutExtensionIsAllOnes) {
  X509OnlyStore store;
  EXPECT_EQ(MakeFileCert(&store, SelfSigned(KeyKind::k_rsa).get())->EnhancedKeyUsage(),
            0xFFFFFFFFu);
}

TEST(CertTest, EnhancedKeyUsageReportsTheExtensionBits) {
  X509OnlyStore store;
  CertOptions client;
  client.extended_key_usage = "clientAuth";
  EXPECT_EQ(MakeFileCert(&store, SelfSigned(KeyKind::k_ec, client).get())->EnhancedKeyUsage(),
            static_cast<std::uint32_t>(XKU_SSL_CLIENT));
  CertOptions both;
  both.extended_key_usage = "serverAuth,clientAuth";
  EXPECT_EQ(MakeFileCert(&store, SelfSigned(KeyKind::k_ec, both).get())->EnhancedKeyUsage(),
            static_cast<std::uint32_t>(XKU_SSL_SERVER | XKU_SSL_CLIENT));
}

TEST(CertTest, NameAndIssuerNameAreTheCommonNames) {
  x509auth_test::RecordingCallbacks& recorder = test::InstallRecorder();
  X509OnlyStore store;
  x509auth_test::Chain chain = x509auth_test::MakeChain(KeyKind::k_rsa, "Alice Example");
  auto cert = MakeFileCert(&store, chain.leaf.get());
  EXPECT_EQ(cert->Name(), "Alice Example");
  EXPECT_EQ(cert->IssuerName(), "Test Intermediate CA");
  EXPECT_TRUE(recorder.Logs().empty()) << recorder.Dump();
}

TEST(CertTest, NameWithoutCommonNameIsEmptyAndLogsNothing) {
  x509auth_test::RecordingCallbacks& recorder = test::InstallRecorder();
  X509OnlyStore store;
  CertOptions options;
  options.omit_common_name = true;
  options.organisation = "Example Org";
  auto cert = MakeFileCert(&store, SelfSigned(KeyKind::k_rsa, options).get());
  EXPECT_EQ(cert->Name(), "");
  EXPECT_EQ(cert->IssuerName(), "");
  EXPECT_TRUE(recorder.Logs().empty()) << recorder.Dump();
}

TEST(CertTest, NameUsesOnlyTheFirstCommonName) {
  x509auth_test::TestKey key = SharedKey(KeyKind::k_ec);
  CertOptions options;
  options.common_name = "First Name";
  auto cert = MakeCert(options, key.get());
  X509_NAME_add_entry_by_txt(X509_get_subject_name(cert.get()), "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>("Second Name"), -1, -1, 0);
  ASSERT_GT(X509_sign(cert.get(), key.get(), EVP_sha256()), 0);
  X509OnlyStore store;
  EXPECT_EQ(MakeFileCert(&store, cert.get())->Name(), "First Name");
}

TEST(CertTest, NameKeepsUtf8BytesAsTheyAre) {
  X509OnlyStore store;
  CertOptions options;
  options.common_name = "J\xC3\xBCrgen M\xC3\xBCller";
  EXPECT_EQ(MakeFileCert(&store, SelfSigned(KeyKind::k_rsa, options).get())->Name(),
            "J\xC3\xBCrgen M\xC3\xBCller");
}

TEST(CertTest, EncodeIsTheDerEncoding) {
  X509OnlyStore store;
  auto cert = SelfSigned(KeyKind::k_rsa);
  EXPECT_EQ(MakeFileCert(&store, cert.get())->Encode(), x509auth_test::CertToDer(cert.get()));
  EXPECT_EQ(MakeEncodedCert(&store, cert.get())->Encode(), x509auth_test::CertToDer(cert.get()));
}

TEST(CertTest, ThumbprintIsTheSha1OfTheDerEncoding) {
  X509OnlyStore store;
  auto cert = SelfSigned(KeyKind::k_ed25519);
  Thumbprint thumbprint{};
  ASSERT_TRUE(MakeEncodedCert(&store, cert.get())->Thumbprint(thumbprint));
  EXPECT_EQ(x509auth_test::Bytes(thumbprint.begin(), thumbprint.end()),
            x509auth_test::Sha1Thumbprint(cert.get()));
}

TEST(CertTest, SupportsSmartCardOnlyForTokenCertificates) {
  X509OnlyStore store;
  auto x509 = SelfSigned(KeyKind::k_rsa);
  PKCS11_CERT token_cert{};
  token_cert.x509 = x509.get();
  EXPECT_FALSE(MakeFileCert(&store, x509.get())->SupportsSmartCard());
  EXPECT_FALSE(MakeEncodedCert(&store, x509.get())->SupportsSmartCard());
  EXPECT_TRUE(MakeTokenCert(&store, &token_cert)->SupportsSmartCard());
}

TEST(CertTest, GetX509ReachesTheCertificateOfEveryContext) {
  X509OnlyStore store;
  auto x509 = SelfSigned(KeyKind::k_rsa);
  PKCS11_CERT token_cert{};
  token_cert.x509 = x509.get();
  auto token = MakeTokenCert(&store, &token_cert);
  EXPECT_EQ(token->GetX509(), x509.get());
  EXPECT_EQ(token->Name(), "Test Leaf");

  auto file = MakeFileCert(&store, x509.get());
  EXPECT_EQ(file->GetX509(), std::get<0>(file->GetContext())->x509.get());
  EXPECT_EQ(X509_cmp(file->GetX509(), x509.get()), 0);
  auto encoded = MakeEncodedCert(&store, x509.get());
  EXPECT_EQ(encoded->GetX509(), std::get<1>(encoded->GetContext())->x509.get());
}

TEST(CertTest, GetContextExposesTheKindAndTheFilePaths) {
  X509OnlyStore store;
  auto x509 = SelfSigned(KeyKind::k_rsa);
  auto file = MakeFileCert(&store, x509.get(), "/base/certs/alice.pem", "/base/keys/alice.pem.key");
  ASSERT_EQ(file->GetContext().index(), 0u);
  const CertFileContext& context = *std::get<0>(file->GetContext());
  EXPECT_EQ(context.store, &store);
  EXPECT_EQ(context.cert_path, "/base/certs/alice.pem");
  EXPECT_EQ(context.key_path, "/base/keys/alice.pem.key");
  EXPECT_EQ(MakeEncodedCert(&store, x509.get())->GetContext().index(), 1u);
}

TEST(CertTest, ConstructionTakesTheContextOutOfTheVariant) {
  X509OnlyStore store;
  auto x509 = SelfSigned(KeyKind::k_rsa);
  CertContext context(
      std::make_unique<EncodedCertContext>(EncodedCertContext{&store, test::Dup(x509.get())}));
  EncodedCertContext* raw = std::get<1>(context).get();
  Cert cert(std::move(context));
  EXPECT_EQ(std::get<1>(cert.GetContext()).get(), raw);
}

TEST(CertTest, GetX509StoreAsksTheStoreThatMadeTheCertificate) {
  X509OnlyStore store;
  X509OnlyStore unopened(false);
  auto x509 = SelfSigned(KeyKind::k_rsa);
  EXPECT_EQ(MakeFileCert(&store, x509.get())->GetX509Store(), store.X509Store());
  EXPECT_EQ(MakeEncodedCert(&unopened, x509.get())->GetX509Store(), nullptr);
}

// Three hours east of UTC, no daylight saving: reading the dates as UTC
// would be off by 10800 seconds.
class CertValidityTest : public ::testing::Test {
 protected:
  // A self-signed certificate valid from |not_before| to |not_after|.
  static x509auth_test::TestX509 ValidBetween(KeyKind kind, const char* not_before,
                                              const char* not_after) {
    CertOptions options;
    options.not_before = not_before;
    options.not_after = not_after;
    return SelfSigned(kind, options);
  }

  test::ScopedTimeZone zone_{test::k_east};
  X509OnlyStore store_;
};

TEST_F(CertValidityTest, NotBeforeAndNotAfterAreReadAsLocalTime) {
  auto cert =
      MakeFileCert(&store_, ValidBetween(KeyKind::k_rsa, "240101080000Z", "20340630235959Z").get());
  EXPECT_EQ(cert->NotBefore(), East(2024, 1, 1, 8, 0, 0));
  EXPECT_EQ(cert->NotAfter(), East(2034, 6, 30, 23, 59, 59));
}

TEST_F(CertValidityTest, UtcTimeYears69And70And50FollowThePivotOf70) {
  auto cert =
      MakeFileCert(&store_, ValidBetween(KeyKind::k_ec, "700101000000Z", "690101000000Z").get());
  EXPECT_EQ(cert->NotBefore(), East(1970, 1, 1, 0, 0, 0));
  EXPECT_EQ(cert->NotAfter(), East(2069, 1, 1, 0, 0, 0));

  // OpenSSL itself reads UTCTime 50 as 1950; this certificate's end is 2050.
  auto fifty =
      MakeEncodedCert(&store_, ValidBetween(KeyKind::k_ec, "500101000000Z", "500102000000Z").get());
  EXPECT_EQ(fifty->NotBefore(), East(2050, 1, 1, 0, 0, 0));
  EXPECT_EQ(fifty->NotAfter(), East(2050, 1, 2, 0, 0, 0));
}

TEST_F(CertValidityTest, GeneralizedTimeValidityIsReadAsLocalTime) {
  auto cert = MakeFileCert(
      &store_, ValidBetween(KeyKind::k_rsa, "20500101000000Z", "21000101000000Z").get());
  EXPECT_EQ(cert->NotBefore(), East(2050, 1, 1, 0, 0, 0));
  EXPECT_EQ(cert->NotAfter(), East(2100, 1, 1, 0, 0, 0));
}

}  // namespace
}  // namespace quorvant::shared::x509
