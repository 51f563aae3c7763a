// Certificates OpenSSL parses although parts of them are malformed: every
// accessor gives a defined result and reads nothing outside the bytes.
#include <openssl/asn1.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include <string>

#include "CertTestSupport.h"
#include "TestPki.h"

namespace quorvant::shared::x509 {
namespace {

using test::MakeEncodedCert;
using test::MakeFileCert;
using test::X509OnlyStore;
using x509auth_test::CertOptions;
using x509auth_test::KeyKind;

// Parsed back from DER, so OpenSSL's own decoder accepted the times.
X509Ptr ParsedCertWithRawTimes(int type, const std::string& not_before,
                               const std::string& not_after) {
  const x509auth_test::TestKey key = x509auth_test::SharedKey(KeyKind::kEc);
  x509auth_test::TestX509 cert = x509auth_test::MakeCert(CertOptions{}, key.get());
  ASN1_STRING* before = ASN1_STRING_type_new(type);
  ASN1_STRING_set(before, not_before.data(), static_cast<int>(not_before.size()));
  ASN1_STRING* after = ASN1_STRING_type_new(type);
  ASN1_STRING_set(after, not_after.data(), static_cast<int>(not_after.size()));
  EXPECT_EQ(X509_set1_notBefore(cert.get(), before), 1);
  EXPECT_EQ(X509_set1_notAfter(cert.get(), after), 1);
  ASN1_STRING_free(before);
  ASN1_STRING_free(after);
  EXPECT_GT(X509_sign(cert.get(), key.get(), EVP_sha256()), 0);
  const x509auth_test::Bytes der = x509auth_test::CertToDer(cert.get());
  const unsigned char* cursor = der.data();
  return X509Ptr(d2i_X509(nullptr, &cursor, static_cast<long>(der.size())));
}

TEST(CertMalformedInputTest, ShortUtcTimesGiveMinusOne) {
  X509OnlyStore store;
  const X509Ptr parsed = ParsedCertWithRawTimes(V_ASN1_UTCTIME, "2501", "");
  ASSERT_NE(parsed, nullptr);
  const auto cert = MakeFileCert(&store, parsed.get());
  EXPECT_EQ(cert->NotBefore(), -1);
  EXPECT_EQ(cert->NotAfter(), -1);
}

TEST(CertMalformedInputTest, ShortGeneralizedTimesGiveMinusOne) {
  X509OnlyStore store;
  const X509Ptr parsed = ParsedCertWithRawTimes(V_ASN1_GENERALIZEDTIME, "2025010112000", "20");
  ASSERT_NE(parsed, nullptr);
  const auto cert = MakeEncodedCert(&store, parsed.get());
  EXPECT_EQ(cert->NotBefore(), -1);
  EXPECT_EQ(cert->NotAfter(), -1);
}

}  // namespace
}  // namespace quorvant::shared::x509
