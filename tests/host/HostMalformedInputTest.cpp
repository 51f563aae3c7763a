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
  const TestKey key = SharedKey(KeyKind::k_ec);
  CertOptions options;
  options.common_name = "Short Times";
  options.extended_key_usage = "clientAuth";
  TestX509 cert = MakeCert(options, key.get());
  for (const auto& [text, setter] :
       {std::pair{not_before, &X509_set1_notBefore}, std::pair{not_after, &X509_set1_notAfter}}) {
    const Asn1StringPtr time(ASN1_STRING_type_new(type));
    ASN1_STRING_set(time.get(), text.data(), static_cast<int>(text.size()));
    EXPECT_EQ(setter(cert.get(), time.get()), 1);
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

// An Ed25519 or RSA-PSS key belongs to its certificate but is of no type
// the key operations know: both requests end at the key with code 4.
TEST_F(HostMalformedInputTest, KeyOfAnUnexpectedTypeGivesCodeFourForSignAndDecrypt) {
  const auto base = Base("odd-keys");
  std::vector<Bytes> thumbprints;
  for (const KeyKind kind : {KeyKind::k_ed25519, KeyKind::k_rsa_pss}) {
    const TestKey key = MakeKey(kind);
    CertOptions options;
    options.extended_key_usage = "clientAuth";
    const TestX509 cert = MakeCert(options, key.get());
    const std::string name = kind == KeyKind::k_ed25519 ? "ed25519.pem" : "pss.pem";
    InstallFileCert(base, name, cert.get(), key.get());
    thumbprints.push_back(Sha1Thumbprint(cert.get()));
  }
  Init({base.string()});
  const uint32_t algorithms[] = {X509_Auth_Algorithm_Rsa, X509_Auth_Algorithm_Ec};
  const Bytes hash(32, 0x11);
  for (const Bytes& thumbprint : thumbprints) {
    const X509_Auth_Signature* signature = reinterpret_cast<const X509_Auth_Signature*>(1);
    const X509_Auth_Result signed_result = X509_Auth_SignHash(
        thumbprint.data(), 2, algorithms, X509_Auth_HashType_Sha256, hash.data(), &signature);
    EXPECT_EQ(signed_result.code, 4) << rec().Dump();
    EXPECT_EQ(signed_result.detail, 1u);
    EXPECT_EQ(signature, nullptr);
    const X509_Auth_ASN_1* plaintext = reinterpret_cast<const X509_Auth_ASN_1*>(1);
    const X509_Auth_Result decrypted =
        X509_Auth_Decrypt(thumbprint.data(), X509_Auth_DecryptAlgorithm_RsaPkcs1, hash.size(),
                          hash.data(), &plaintext);
    EXPECT_EQ(decrypted.code, 4);
    EXPECT_EQ(plaintext, nullptr);
  }
  EXPECT_EQ(rec().WithFormat("Unknown algorithm: [%i]").size(), 4u) << rec().Dump();
}

// Zero lengths: nothing is read from the (null) bytes and each request has
// its ordinary failure.
TEST_F(HostMalformedInputTest, ZeroLengthsAreRefusedWithoutReading) {
  Init({Base("none").string()});
  EXPECT_EQ(X509_Auth_AddAdditionalCertificateAuthorityToStore(nullptr, 0), 0);
  const Bytes unknown(20, 0xAB);
  const X509_Auth_ASN_1* plaintext = nullptr;
  EXPECT_EQ(
      X509_Auth_Decrypt(unknown.data(), X509_Auth_DecryptAlgorithm_RsaOaep, 0, nullptr, &plaintext)
          .code,
      3);
  EXPECT_EQ(plaintext, nullptr);
  const X509_Auth_Signature* signature = nullptr;
  EXPECT_EQ(X509_Auth_SignHash(unknown.data(), 0, nullptr, X509_Auth_HashType_Sha1, unknown.data(),
                               &signature)
                .code,
            3);
  EXPECT_EQ(signature, nullptr);
}

}  // namespace
}  // namespace x509auth_test
