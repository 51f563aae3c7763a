// Offer decisions of certificate files kept between listings: a listing of
// unchanged files writes every line the first one wrote, and a decision is
// taken again when a CA is added, the file is rewritten, the default CA file
// changes, or a validity date of its chain is crossed.
#include <chrono>
#include <ctime>
#include <thread>

#include "HostFixture.h"

namespace x509auth_test {
namespace {

class HostKeptDecisionsTest : public HostCaFileTest {
 protected:
  void SetUp() override {
    HostCaFileTest::SetUp();
    WriteFile(bundle_, std::string());
  }
  static int Add(X509* cert) {
    const std::string pem = CertToPem(cert);
    return X509_Auth_AddAdditionalCertificateAuthorityToStore(
        reinterpret_cast<const unsigned char*>(pem.data()), pem.size());
  }
};

TEST_F(HostKeptDecisionsTest, ListingsOfUnchangedFilesWriteTheSameLinesAndGiveTheSameRecords) {
  Chain chain = MakeChain(KeyKind::k_ec, "Good");
  TestKey key = SharedKey(KeyKind::k_ec, 3);
  TestX509 stranger = Stranger(key.get());
  WriteFile(bundle_, CertToPem(chain.root.get()) + CertToPem(chain.intermediate.get()));
  InstallFileCert(Base("b1"), "a.pem", chain.leaf.get(), chain.leaf_key.get());
  InstallFileCert(Base("b2"), "a.pem", stranger.get(), key.get());
  Init({Base("b1").string(), Base("b2").string()});
  Settle();
  const std::vector<std::string> expected = {
      "cert: [Good]", "cert: [Stranger]",
      "Cert::CaChain X509_verify_cert failed. Error code: [20], Error message: [unable to get "
      "local issuer certificate], Error depth: [0]",
      "Failed to get CA chain for a certificate"};
  for (int listing = 0; listing < 3; ++listing) {
    rec().Reset();
    const auto records = List();
    ASSERT_EQ(Names(records), std::vector<std::string>{"Good"}) << rec().Dump();
    ASSERT_EQ(records[0]->ca_chain_count, 3u);
    EXPECT_EQ(Bytes(records[0]->ca_chain[2], records[0]->ca_chain[2] + 20),
              Sha1Thumbprint(chain.root.get()));
    EXPECT_EQ(DecisionLines(), expected) << "listing " << listing << "\n" << rec().Dump();
  }
}

TEST_F(HostKeptDecisionsTest, AKeptRefusalIsTakenAgainWhenTheHostAddsTheMissingCa) {
  Chain chain = MakeChain(KeyKind::k_rsa, "Waiting Leaf");
  InstallFileCert(Base("base"), "leaf.pem", chain.leaf.get(), chain.leaf_key.get());
  Init({Base("base").string()});
  Settle();
  EXPECT_TRUE(List().empty());
  EXPECT_TRUE(List().empty()) << "kept while nothing changed";
  ASSERT_EQ(Add(chain.intermediate.get()), 1);
  EXPECT_TRUE(List().empty()) << "the root is still missing";
  ASSERT_EQ(Add(chain.root.get()), 1);
  const auto records = List();
  ASSERT_EQ(Names(records), std::vector<std::string>{"Waiting Leaf"}) << rec().Dump();
  EXPECT_EQ(records[0]->ca_chain_count, 3u);
}

TEST_F(HostKeptDecisionsTest, AKeptDecisionIsTakenAgainWhenTheCertificateFileIsRewritten) {
  Chain chain = MakeChain(KeyKind::k_ec, "Chained");
  TestKey key = SharedKey(KeyKind::k_ec, 3);
  TestX509 stranger = Stranger(key.get());
  WriteFile(bundle_, CertToPem(chain.root.get()) + CertToPem(chain.intermediate.get()));
  InstallFileCert(Base("base"), "a.pem", chain.leaf.get(), chain.leaf_key.get());
  Init({Base("base").string()});
  Settle();
  EXPECT_EQ(Names(List()), std::vector<std::string>{"Chained"});
  InstallFileCert(Base("base"), "a.pem", stranger.get(), key.get());
  EXPECT_TRUE(List().empty()) << rec().Dump();
  Settle();
  EXPECT_TRUE(List().empty());
  InstallFileCert(Base("base"), "a.pem", chain.leaf.get(), chain.leaf_key.get());
  EXPECT_EQ(Names(List()), std::vector<std::string>{"Chained"});
}

TEST_F(HostKeptDecisionsTest, AKeptDecisionIsTakenAgainWhenTheDefaultCaFileChanges) {
  Chain chain = MakeChain(KeyKind::k_ec, "Bundle Leaf");
  InstallFileCert(Base("base"), "leaf.pem", chain.leaf.get(), chain.leaf_key.get());
  WriteFile(bundle_, CertToPem(chain.root.get()) + CertToPem(chain.intermediate.get()));
  Init({Base("base").string()});
  Settle();
  EXPECT_EQ(Names(List()), std::vector<std::string>{"Bundle Leaf"});
  EXPECT_EQ(Names(List()), std::vector<std::string>{"Bundle Leaf"});
  WriteFile(bundle_, CertToPem(chain.intermediate.get()));
  EXPECT_TRUE(List().empty()) << "the root left the CA file";
}

// Not a timed test: it waits for the wall clock to pass a date, however
// long the machine takes to get there.
TEST_F(HostKeptDecisionsTest, AKeptRefusalIsTakenAgainOnceTheCertificateBecomesValid) {
  TestKey key = SharedKey(KeyKind::k_ec, 3);
  const std::time_t valid_from = std::time(nullptr) + 3;
  char not_before[32];
  std::tm fields{};
  gmtime_r(&valid_from, &fields);
  std::strftime(not_before, sizeof not_before, "%Y%m%d%H%M%SZ", &fields);
  CertOptions options;
  options.common_name = "Soon Valid";
  options.extended_key_usage = "clientAuth";
  options.not_before = not_before;
  options.not_after = "20991231000000Z";
  TestX509 soon = MakeCert(options, key.get());
  InstallFileCert(Base("base"), "soon.pem", soon.get(), key.get());
  Init({Base("base").string()});
  rec().Reset();
  EXPECT_TRUE(List().empty());
  const std::vector<std::string> refused = {
      "cert: [Soon Valid]",
      "Cert::CaChain X509_verify_cert failed. Error code: [9], Error message: [certificate is not "
      "yet valid], Error depth: [0]",
      "Failed to get CA chain for a certificate"};
  EXPECT_EQ(DecisionLines(), refused) << rec().Dump();
  while (std::time(nullptr) <= valid_from) {
    rec().Reset();
    if (!List().empty()) break;
    EXPECT_EQ(DecisionLines(), refused) << "a kept refusal writes its line again";
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  while (std::time(nullptr) <= valid_from)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(Names(List()), std::vector<std::string>{"Soon Valid"}) << rec().Dump();
}

}  // namespace
}  // namespace x509auth_test
