// Listing client certificates and freeing what the library handed out.
#include <openssl/asn1.h>

#include <cstring>
#include <ctime>

#include "HostFixture.h"

namespace x509auth_test {
namespace {

class HostCertificateListTest : public HostTest {};

// What the library's own time conversion gives: the fields read as local
// time, daylight saving marked as not in effect.
int64_t LocalTime(const ASN1_TIME* time) {
  std::tm parts{};
  EXPECT_EQ(ASN1_TIME_to_tm(time, &parts), 1);
  parts.tm_isdst = 0;
  return static_cast<int64_t>(std::mktime(&parts));
}

TEST_F(HostCertificateListTest, NoCertificatesReturnsTrueWithAnEmptyKeptList) {
  Init({Base("empty").string()});
  const X509_Auth_Certificate* array = reinterpret_cast<const X509_Auth_Certificate*>(1);
  uint64_t count = 99;
  ASSERT_TRUE(X509_Auth_LoadClientCertificates(&count, &array));
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(array, nullptr);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Info, "Loading client certificates from OS store",
                        "Loading client certificates from OS store"));
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Warning, "Total Client Certificates picked: %d",
                        "Total Client Certificates picked: 0"));
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Warning, "Total Client Certificates returned: %d",
                        "Total Client Certificates returned: 0"));
  // The empty list is kept: freeing its (null) address finds it.
  rec().Reset();
  X509_Auth_Free(nullptr);
  EXPECT_TRUE(rec().Logs().empty());
}

TEST_F(HostCertificateListTest, RecordFieldsDescribeTheFileCertificate) {
  TestKey key = SharedKey(KeyKind::k_rsa);
  CertOptions options;
  options.common_name = "Alice Client";
  options.extended_key_usage = "clientAuth";
  options.key_usage = "critical,digitalSignature,keyCertSign";
  options.not_before = "20240102030405Z";
  options.not_after = "20450607080910Z";
  TestX509 cert = MakeCert(options, key.get());
  InstallFileCert(Base("base"), "alice.pem", cert.get(), key.get());
  Init({Base("base").string()});

  const auto records = List();
  ASSERT_EQ(records.size(), 1u) << rec().Dump();
  const X509_Auth_Certificate* record = records[0];
  EXPECT_STREQ(record->name, "Alice Client");
  EXPECT_STREQ(record->issuer_name, "Alice Client");
  EXPECT_EQ(record->not_before, LocalTime(X509_get0_notBefore(cert.get())));
  EXPECT_EQ(record->not_after, LocalTime(X509_get0_notAfter(cert.get())));
  EXPECT_EQ(record->smart_card, 0);
  EXPECT_EQ(record->padding, 0u);
  EXPECT_EQ(ThumbprintOf(record), Sha1Thumbprint(cert.get()));
  const Bytes der = CertToDer(cert.get());
  ASSERT_EQ(record->encoded_length, der.size());
  EXPECT_EQ(std::memcmp(record->encoded, der.data(), der.size()), 0);
  ASSERT_EQ(record->ca_chain_count, 1u);
  EXPECT_EQ(Bytes(record->ca_chain[0], record->ca_chain[0] + 20), Sha1Thumbprint(cert.get()));
  EXPECT_EQ(record->key_algorithm_group, X509_Auth_KeyAlgorithmGroup_Rsa);
  EXPECT_EQ(record->cert_type, X509_Auth_CertificateType_FileBased);
  EXPECT_EQ(std::string(record->key_path), (Base("base") / "keys" / "alice.pem.key").string());
  EXPECT_EQ(record->reserved, 0u);

  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Warning, "cert: [%s]", "cert: [Alice Client]"));
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Warning, "cert type: [%d] FileBased",
                        "cert type: [0] FileBased"));
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Warning, "Total Client Certificates picked: %d",
                        "Total Client Certificates picked: 1"));
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Warning, "Total Client Certificates returned: %d",
                        "Total Client Certificates returned: 1"));
}

TEST_F(HostCertificateListTest, CertificatesFromTwoBaseDirectoriesComeInSettingsOrder) {
  TestKey rsa = SharedKey(KeyKind::k_rsa);
  TestKey ec = SharedKey(KeyKind::k_ec);
  TestX509 first = MakeClientCert("First Base", rsa.get());
  TestX509 second = MakeClientCert("Home Base", ec.get());
  InstallFileCert(Base("one"), "first.pem", first.get(), rsa.get());
  InstallFileCert(home_ / "dot-certs", "second.der", second.get(), ec.get(), /*der=*/true);
  Init({Base("one").string()}, {"dot-certs"});
  const auto records = List();
  ASSERT_EQ(records.size(), 2u) << rec().Dump();
  EXPECT_STREQ(records[0]->name, "First Base");
  EXPECT_EQ(records[0]->key_algorithm_group, X509_Auth_KeyAlgorithmGroup_Rsa);
  EXPECT_STREQ(records[1]->name, "Home Base");
  EXPECT_EQ(records[1]->key_algorithm_group, X509_Auth_KeyAlgorithmGroup_Ec);
  EXPECT_EQ(std::string(records[1]->key_path),
            (home_ / "dot-certs" / "keys" / "second.der.key").string());
}

// Extended key usage and key usage decide what is offered.
struct UsageCase {
  const char* label;
  const char* eku;
  const char* ku;
  bool offered;
};

class HostPermittedUsageTest : public HostTest, public ::testing::WithParamInterface<UsageCase> {};

TEST_P(HostPermittedUsageTest, OfferedOnlyWhenUsagesAllowClientAuthentication) {
  const UsageCase& usage = GetParam();
  TestKey key = SharedKey(KeyKind::k_ec);
  CertOptions options;
  options.common_name = usage.label;
  options.extended_key_usage = usage.eku;
  options.key_usage = usage.ku;
  // A CA certificate signs the test certificate, so key usage without
  // keyCertSign does not stop its chain from verifying.
  Chain chain = MakeChain(KeyKind::k_ec);
  TestX509 cert = MakeCert(options, key.get(), chain.root.get(), chain.root_key.get());
  InstallFileCert(Base("base"), "usage.pem", cert.get());
  Init({Base("base").string()});
  ASSERT_EQ(X509_Auth_AddAdditionalCertificateAuthorityToStore(
                reinterpret_cast<const unsigned char*>(CertToPem(chain.root.get()).c_str()),
                CertToPem(chain.root.get()).size()),
            1);
  const auto records = List();
  EXPECT_EQ(records.size(), usage.offered ? 1u : 0u) << usage.label << "\n" << rec().Dump();
}

INSTANTIATE_TEST_SUITE_P(
    UsageMatrix, HostPermittedUsageTest,
    ::testing::Values(
        UsageCase{"ClientAuth", "clientAuth", "critical,keyEncipherment", true},
        UsageCase{"ClientAndServer", "serverAuth,clientAuth", "", true},
        UsageCase{"ServerOnlyWithDigitalSignature", "serverAuth", "critical,digitalSignature",
                  true},
        UsageCase{"ServerOnlyWithoutKeyUsage", "serverAuth", "", false},
        UsageCase{"ServerOnlyWithKeyEncipherment", "serverAuth", "critical,keyEncipherment", false},
        UsageCase{"NoUsagesAtAll", "", "", true},
        UsageCase{"KeyUsageWithoutDigitalSignature", "", "critical,keyEncipherment", true},
        UsageCase{"EmailOnlyWithoutKeyUsage", "emailProtection", "", false}),
    [](const ::testing::TestParamInfo<UsageCase>& info) { return std::string(info.param.label); });

TEST_F(HostCertificateListTest, TwoListsAreDistinctAndFreeingOneLeavesTheOther) {
  TestKey key = SharedKey(KeyKind::k_ec);
  TestX509 cert = MakeClientCert("Twice", key.get());
  InstallFileCert(Base("base"), "twice.pem", cert.get());
  Init({Base("base").string()});
  const X509_Auth_Certificate* first = nullptr;
  const X509_Auth_Certificate* second = nullptr;
  ASSERT_EQ(List(&first).size(), 1u);
  ASSERT_EQ(List(&second).size(), 1u);
  ASSERT_NE(first, second);
  X509_Auth_Free(first);
  // Under AddressSanitizer any access into freed storage would abort here.
  EXPECT_STREQ(second->name, "Twice");
  EXPECT_EQ(ThumbprintOf(second), Sha1Thumbprint(cert.get()));
  X509_Auth_Free(second);
}

TEST_F(HostCertificateListTest, FreeingTwiceOrAnInteriorPointerDoesNothing) {
  TestKey key = SharedKey(KeyKind::k_ec);
  TestX509 cert = MakeClientCert("Interior", key.get());
  InstallFileCert(Base("base"), "interior.pem", cert.get());
  Init({Base("base").string()});
  const X509_Auth_Certificate* array = nullptr;
  ASSERT_EQ(List(&array).size(), 1u);
  rec().Reset();
  X509_Auth_Free(array->thumbprint);
  X509_Auth_Free(array->name);
  EXPECT_STREQ(array->name, "Interior");
  X509_Auth_Free(array);
  X509_Auth_Free(array);
  EXPECT_TRUE(rec().Logs().empty());
}

TEST_F(HostCertificateListTest, StoreOpenFailureReturnsFalseAndWritesNothing) {
  // Without a PKCS#11 module the token source fails and so does the opening.
  std::filesystem::remove(work_ / "opensc-pkcs11.so");
  Init({});
  uint64_t count = 77;
  const X509_Auth_Certificate* array = reinterpret_cast<const X509_Auth_Certificate*>(0x10);
  EXPECT_FALSE(X509_Auth_LoadClientCertificates(&count, &array));
  EXPECT_EQ(count, 77u);
  EXPECT_EQ(array, reinterpret_cast<const X509_Auth_Certificate*>(0x10));
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error, "Failed to open cert store (error: %d)",
                        "Failed to open cert store (error: -1)"));
}

TEST_F(HostCertificateListTest, CertificateWithoutAVerifiableChainIsLeftOut) {
  Chain chain = MakeChain(KeyKind::k_ec, "Orphan Leaf");
  InstallFileCert(Base("base"), "orphan.pem", chain.leaf.get(), chain.leaf_key.get());
  Init({Base("base").string()});
  EXPECT_EQ(List().size(), 0u);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Warning, "cert: [%s]", "cert: [Orphan Leaf]"));
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error, "Failed to get CA chain for a certificate",
                        "Failed to get CA chain for a certificate"));
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Warning, "Total Client Certificates picked: %d",
                        "Total Client Certificates picked: 0"));
}

}  // namespace
}  // namespace x509auth_test
