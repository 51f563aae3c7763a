// Inputs the fuzzers found or were pointed at, driven through the shared
// library as a host would: each has a defined result, and under the
// sanitizer build any read outside its bytes fails the test.
#include <openssl/asn1.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <string>

#include "HostFixture.h"

namespace x509auth_test {
namespace {

class HostMalformedInputTest : public HostTest {};

// A client certificate whose validity times are |not_before| and
// |not_after| as given, even when OpenSSL would not write them that way.
TestX509 CertWithRawTimes(int type, const std::string& not_before, const std::string& not_after) {
  const TestKey key = SharedKey(KeyKind::kEc);
  CertOptions options;
  options.common_name = "Short Times";
  options.extended_key_usage = "clientAuth";
  TestX509 cert = MakeCert(options, key.get());
  for (const auto& [text, setter] :
       {std::pair{not_before, &X509_set1_notBefore}, std::pair{not_after, &X509_set1_notAfter}}) {
    ASN1_STRING* time = ASN1_STRING_type_new(type);
    ASN1_STRING_set(time, text.data(), static_cast<int>(text.size()));
    EXPECT_EQ(setter(cert.get(), time), 1);
    ASN1_STRING_free(time);
  }
  EXPECT_GT(X509_sign(cert.get(), key.get(), EVP_sha256()), 0);
  return cert;
}

// The times are read for every listed file before its chain is built (which
// then fails on their format), so both files are read and dropped.
TEST_F(HostMalformedInputTest, ValidityTimesShorterThanTheirLayoutAreReadWithoutOverrun) {
  const auto base = Base("short-times");
  WriteFile(base / "certs" / "utc.der",
            CertToDer(CertWithRawTimes(V_ASN1_UTCTIME, "2501", "25010112000").get()));
  WriteFile(base / "certs" / "generalized.pem",
            CertToPem(CertWithRawTimes(V_ASN1_GENERALIZEDTIME, "2025", "").get()));
  Init({base.string()});
  EXPECT_TRUE(List().empty());
  EXPECT_EQ(rec().WithFormat("cert: [%s]").size(), 2u) << rec().Dump();
  EXPECT_EQ(rec().WithFormat("Failed to get CA chain for a certificate").size(), 2u);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Warning, "Total Client Certificates returned: %d",
                        "Total Client Certificates returned: 0"));
}

}  // namespace
}  // namespace x509auth_test
