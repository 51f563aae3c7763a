// Certificates OpenSSL parses although parts of them are malformed: every
// accessor gives a defined result and reads nothing outside the bytes.
#include <gtest/gtest.h>
#include <openssl/asn1.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <string>

#include "CertTestSupport.h"
#include "TestPki.h"

namespace quorvant::shared::x509 {
namespace {

using test::InstallRecorder;
using test::MakeEncodedCert;
using test::MakeFileCert;
using test::X509OnlyStore;
using x509auth_test::CertOptions;
using x509auth_test::KeyKind;

// Parsed back from DER, so OpenSSL's own decoder accepted the times.
X509Ptr ParsedCertWithRawTimes(int type, const std::string& not_before,
                               const std::string& not_after) {
  const x509auth_test::TestKey key = x509auth_test::SharedKey(KeyKind::k_ec);
  x509auth_test::TestX509 cert = x509auth_test::MakeCert(CertOptions{}, key.get());
  const Asn1StringPtr before(ASN1_STRING_type_new(type));
  ASN1_STRING_set(before.get(), not_before.data(), static_cast<int>(not_before.size()));
  const Asn1StringPtr after(ASN1_STRING_type_new(type));
  ASN1_STRING_set(after.get(), not_after.data(), static_cast<int>(not_after.size()));
  EXPECT_EQ(X509_set1_notBefore(cert.get(), before.get()), 1);
  EXPECT_EQ(X509_set1_notAfter(cert.get(), after.get()), 1);
  EXPECT_GT(X509_sign(cert.get(), key.get(), EVP_sha256()), 0);
  const x509auth_test::Bytes der = x509auth_test::CertToDer(cert.get());
  const unsigned char* cursor = der.data();
  return X509Ptr(d2i_X509(nullptr, &cursor, static_cast<long>(der.size())));
}

// Both validity times read as -1.
void ExpectNoTimes(const Cert& cert) {
  EXPECT_EQ(cert.NotBefore(), -1);
  EXPECT_EQ(cert.NotAfter(), -1);
}

TEST(CertMalformedInputTest, ShortUtcTimesGiveMinusOne) {
  X509OnlyStore store;
  const X509Ptr parsed = ParsedCertWithRawTimes(V_ASN1_UTCTIME, "2501", "");
  ASSERT_NE(parsed, nullptr);
  ExpectNoTimes(*MakeFileCert(&store, parsed.get()));
}

TEST(CertMalformedInputTest, ShortGeneralizedTimesGiveMinusOne) {
  X509OnlyStore store;
  const X509Ptr parsed = ParsedCertWithRawTimes(V_ASN1_GENERALIZEDTIME, "2025010112000", "20");
  ASSERT_NE(parsed, nullptr);
  ExpectNoTimes(*MakeEncodedCert(&store, parsed.get()));
}

// Empty subject and issuer names (no attribute at all), and a common name of
// no characters: the names are empty texts and nothing is logged.
TEST(CertMalformedInputTest, EmptyNamesGiveEmptyTexts) {
  auto& recorder = InstallRecorder();
  const x509auth_test::TestKey key = x509auth_test::SharedKey(KeyKind::k_ec);
  x509auth_test::TestX509 cert = x509auth_test::MakeCert(CertOptions{}, key.get());
  const X509NamePtr empty(X509_NAME_new());
  ASSERT_EQ(X509_set_subject_name(cert.get(), empty.get()), 1);
  const X509NamePtr blank_common_name(X509_NAME_new());
  X509_NAME_add_entry_by_txt(blank_common_name.get(), "CN", V_ASN1_UTF8STRING,
                             reinterpret_cast<const unsigned char*>(""), 0, -1, 0);
  ASSERT_EQ(X509_set_issuer_name(cert.get(), blank_common_name.get()), 1);
  ASSERT_GT(X509_sign(cert.get(), key.get(), EVP_sha256()), 0);
  const x509auth_test::Bytes der = x509auth_test::CertToDer(cert.get());
  const unsigned char* cursor = der.data();
  const X509Ptr parsed(d2i_X509(nullptr, &cursor, static_cast<long>(der.size())));
  ASSERT_NE(parsed, nullptr);

  X509OnlyStore store;
  recorder.Reset();
  const auto file = MakeFileCert(&store, parsed.get());
  EXPECT_EQ(file->Name(), "");
  EXPECT_EQ(file->IssuerName(), "");
  EXPECT_TRUE(recorder.Logs().empty()) << recorder.Dump();
}

}  // namespace
}  // namespace quorvant::shared::x509
