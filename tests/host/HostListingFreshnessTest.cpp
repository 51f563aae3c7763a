// Every listing sees the files, the default CA file and the added CAs as they
// are at the time of the call, and one listing gives each of several
// certificates the chain and the failure lines it would get alone.
#include <cstdlib>

#include "HostFixture.h"

namespace x509auth_test {
namespace {

class HostListingFreshnessTest : public HostCaFileTest {
 protected:
  static X509_Auth_Result Sign(const Bytes& thumbprint) {
    const Bytes digest(32, 0x42);
    const uint32_t algorithms[] = {1, 2};
    const X509_Auth_Signature* signature = nullptr;
    const X509_Auth_Result result = X509_Auth_SignHash(
        thumbprint.data(), 2, algorithms, X509_Auth_HashType_Sha256, digest.data(), &signature);
    if (signature != nullptr) X509_Auth_Free(signature);
    return result;
  }
};

TEST_F(HostListingFreshnessTest, ACaFileThatChangesBetweenListingsIsSeenByTheSecond) {
  Chain chain = MakeChain(KeyKind::k_ec, "Bundle Leaf");
  InstallFileCert(Base("base"), "leaf.pem", chain.leaf.get(), chain.leaf_key.get());
  WriteFile(bundle_, CertToPem(chain.intermediate.get()));
  Init({Base("base").string()});
  EXPECT_TRUE(List().empty()) << "the root is missing from the CA file";
  WriteFile(bundle_, CertToPem(chain.intermediate.get()) + CertToPem(chain.root.get()));
  const auto records = List();
  ASSERT_EQ(records.size(), 1u) << rec().Dump();
  EXPECT_EQ(records[0]->ca_chain_count, 3u);
  WriteFile(bundle_, std::string());
  EXPECT_TRUE(List().empty()) << "the CA file was emptied";
}

TEST_F(HostListingFreshnessTest, ACertificateFileThatChangesBetweenListingsIsSeenByTheSecond) {
  TestKey key = SharedKey(KeyKind::k_ec, 3);
  TestX509 first = MakeClientCert("First Version", key.get());
  TestX509 second = MakeClientCert("Second Version", key.get());
  WriteFile(bundle_, CertToPem(first.get()) + CertToPem(second.get()));
  InstallFileCert(Base("base"), "a.pem", first.get(), key.get());
  Init({Base("base").string()});
  Settle();
  EXPECT_EQ(Names(List()), std::vector<std::string>{"First Version"});
  EXPECT_EQ(Names(List()), std::vector<std::string>{"First Version"});
  InstallFileCert(Base("base"), "a.pem", second.get(), key.get());
  EXPECT_EQ(Names(List()), std::vector<std::string>{"Second Version"});
  std::filesystem::remove(Base("base") / "certs" / "a.pem");
  EXPECT_TRUE(List().empty());
}

TEST_F(HostListingFreshnessTest, OneListingLogsEachChainFailureInTheOrderOfItsCertificates) {
  Chain chain = MakeChain(KeyKind::k_ec, "Good");
  TestKey key = SharedKey(KeyKind::k_ec, 3);
  CertOptions expired;
  expired.common_name = "Expired";
  expired.extended_key_usage = "clientAuth";
  expired.not_before = "20000101000000Z";
  expired.not_after = "20010101000000Z";
  TestX509 old = MakeCert(expired, key.get(), chain.root.get(), chain.root_key.get());
  TestX509 stranger = Stranger(key.get());
  WriteFile(bundle_, CertToPem(chain.root.get()));
  // One base directory per certificate fixes the order of the listing.
  InstallFileCert(Base("b1"), "a.pem", old.get(), key.get());
  InstallFileCert(Base("b2"), "a.pem", chain.leaf.get(), chain.leaf_key.get());
  InstallFileCert(Base("b3"), "a.pem", stranger.get(), key.get());
  InstallFileCert(Base("b4"), "a.pem", chain.intermediate.get());
  Init({Base("b1").string(), Base("b2").string(), Base("b3").string(), Base("b4").string()});
  rec().Reset();
  const auto records = List();
  ASSERT_EQ(Names(records), (std::vector<std::string>{"Good", "Test Intermediate CA"}))
      << rec().Dump();
  EXPECT_EQ(DecisionLines(),
            (std::vector<std::string>{
                "cert: [Expired]",
                "Cert::CaChain X509_verify_cert failed. Error code: [10], Error message: "
                "[certificate has expired], Error depth: [0]",
                "Failed to get CA chain for a certificate",
                "cert: [Good]",
                "cert: [Stranger]",
                "Cert::CaChain X509_verify_cert failed. Error code: [20], Error message: "
                "[unable to get local issuer certificate], Error depth: [0]",
                "Failed to get CA chain for a certificate",
                "cert: [Test Intermediate CA]",
            }))
      << rec().Dump();
}

TEST_F(HostListingFreshnessTest, SigningSeesCertificateAndKeyFilesAsTheyAreAtEachCall) {
  TestKey key = SharedKey(KeyKind::k_ec, 3), other_key = SharedKey(KeyKind::k_ec, 4);
  TestX509 first = MakeClientCert("First Version", key.get());
  TestX509 second = MakeClientCert("Second Version", key.get());
  InstallFileCert(Base("base"), "a.pem", first.get(), key.get());
  Init({Base("base").string()});
  Settle();
  EXPECT_EQ(Sign(Sha1Thumbprint(first.get())).code, 0) << rec().Dump();
  EXPECT_EQ(Sign(Sha1Thumbprint(first.get())).code, 0);
  // The key file now holds another key: the certificate has no key.
  WriteFile(Base("base") / "keys" / "a.pem.key", KeyToPem(other_key.get()));
  EXPECT_EQ(Sign(Sha1Thumbprint(first.get())).code, 4);
  WriteFile(Base("base") / "keys" / "a.pem.key", KeyToPem(key.get()));
  EXPECT_EQ(Sign(Sha1Thumbprint(first.get())).code, 0);
  Settle();
  EXPECT_EQ(Sign(Sha1Thumbprint(first.get())).code, 0);
  // The certificate file now holds another certificate.
  InstallFileCert(Base("base"), "a.pem", second.get(), key.get());
  EXPECT_EQ(Sign(Sha1Thumbprint(first.get())).code, 3);
  EXPECT_EQ(Sign(Sha1Thumbprint(second.get())).code, 0);
}

TEST_F(HostListingFreshnessTest, ARenamedCertificateFileIsSignedWithTheKeyOfItsNewName) {
  TestKey key = SharedKey(KeyKind::k_ec, 3);
  TestX509 cert = MakeClientCert("Renamed", key.get());
  InstallFileCert(Base("base"), "a.pem", cert.get(), key.get());
  Init({Base("base").string()});
  Settle();
  EXPECT_EQ(Sign(Sha1Thumbprint(cert.get())).code, 0) << rec().Dump();
  std::filesystem::rename(Base("base") / "certs" / "a.pem", Base("base") / "certs" / "b.pem");
  EXPECT_EQ(Sign(Sha1Thumbprint(cert.get())).code, 4) << "keys/b.pem.key does not exist yet";
  std::filesystem::rename(Base("base") / "keys" / "a.pem.key", Base("base") / "keys" / "b.pem.key");
  EXPECT_EQ(Sign(Sha1Thumbprint(cert.get())).code, 0) << rec().Dump();
  std::filesystem::rename(Base("base") / "certs" / "b.pem", Base("base") / "certs" / "c.txt");
  Settle();
  EXPECT_EQ(Sign(Sha1Thumbprint(cert.get())).code, 4);
}

}  // namespace
}  // namespace x509auth_test
