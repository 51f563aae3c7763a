// Every listing sees the files, the default CA file and the added CAs as they
// are at the time of the call, and one listing gives each of several
// certificates the chain and the failure lines it would get alone.
#include <cstdlib>

#include "HostFixture.h"

namespace x509auth_test {
namespace {

class HostListingFreshnessTest : public HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    bundle_ = temp_ / "bundle.pem";
    setenv("SSL_CERT_FILE", bundle_.c_str(), 1);
    setenv("SSL_CERT_DIR", (temp_ / "no-dir").c_str(), 1);
  }
  void TearDown() override {
    HostTest::TearDown();
    unsetenv("SSL_CERT_FILE");
    unsetenv("SSL_CERT_DIR");
  }
  static std::vector<std::string> Names(const std::vector<const X509_Auth_Certificate*>& records) {
    std::vector<std::string> names;
    for (const X509_Auth_Certificate* record : records) names.push_back(record->name);
    return names;
  }
  std::filesystem::path bundle_;
};

TEST_F(HostListingFreshnessTest, ACaFileThatChangesBetweenListingsIsSeenByTheSecond) {
  Chain chain = MakeChain(KeyKind::kEc, "Bundle Leaf");
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
  TestKey key = SharedKey(KeyKind::kEc, 3);
  TestX509 first = MakeClientCert("First Version", key.get());
  TestX509 second = MakeClientCert("Second Version", key.get());
  WriteFile(bundle_, CertToPem(first.get()) + CertToPem(second.get()));
  InstallFileCert(Base("base"), "a.pem", first.get(), key.get());
  Init({Base("base").string()});
  EXPECT_EQ(Names(List()), std::vector<std::string>{"First Version"});
  InstallFileCert(Base("base"), "a.pem", second.get(), key.get());
  EXPECT_EQ(Names(List()), std::vector<std::string>{"Second Version"});
  std::filesystem::remove(Base("base") / "certs" / "a.pem");
  EXPECT_TRUE(List().empty());
}

TEST_F(HostListingFreshnessTest, OneListingLogsEachChainFailureInTheOrderOfItsCertificates) {
  Chain chain = MakeChain(KeyKind::kEc, "Good");
  TestKey key = SharedKey(KeyKind::kEc, 3);
  CertOptions expired;
  expired.common_name = "Expired";
  expired.extended_key_usage = "clientAuth";
  expired.not_before = "20000101000000Z";
  expired.not_after = "20010101000000Z";
  TestX509 old = MakeCert(expired, key.get(), chain.root.get(), chain.root_key.get());
  // Issued by a CA that is nowhere.
  TestX509 nobody = MakeClientCert("Nobody", key.get());
  CertOptions unknown;
  unknown.common_name = "Stranger";
  unknown.extended_key_usage = "clientAuth";
  TestX509 stranger = MakeCert(unknown, key.get(), nobody.get(), key.get());
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
  std::vector<std::string> failures;
  for (const LogEntry& entry : rec().Logs())
    if (entry.text.find("X509_verify_cert failed") != std::string::npos ||
        entry.text == "Failed to get CA chain for a certificate" ||
        entry.text.rfind("cert: [", 0) == 0)
      failures.push_back(entry.text);
  EXPECT_EQ(failures, (std::vector<std::string>{
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

}  // namespace
}  // namespace x509auth_test
