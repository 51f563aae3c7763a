#include <gtest/gtest.h>
#include <openssl/pem.h>

#include <cstdio>

#include "ChainTestNames.h"

namespace quorvant::shared::x509 {
namespace {

constexpr const char* k_verify_failed =
    "Cert::CaChain X509_verify_cert failed. Error code: [%i], Error message: [%s], Error depth: "
    "[%i]";

Thumbprint ThumbprintOf(X509* cert) {
  const x509auth_test::Bytes digest = x509auth_test::Sha1Thumbprint(cert);
  Thumbprint thumbprint{};
  std::copy(digest.begin(), digest.end(), thumbprint.begin());
  return thumbprint;
}

// A chain over two stores: the intermediate in the certificate's own, the
// root only in the extra store a caller passes.
struct SplitChain {
  SplitChain() {
    own.Add(pki.intermediate.get());
    extra.Add(pki.root.get());
  }
  x509auth_test::Chain pki = x509auth_test::MakeChain();
  X509OnlyStore own;
  X509OnlyStore extra;
};

class CertCaChainTest : public ::testing::Test {
 protected:
  void SetUp() override { recorder_ = &test::InstallRecorder(); }
  x509auth_test::RecordingCallbacks* recorder_ = nullptr;
};

TEST_F(CertCaChainTest, TrustedSelfSignedCertificateYieldsOnlyItsOwnThumbprint) {
  TestKey key = SharedKey(KeyKind::k_rsa);
  CertOptions options;
  options.common_name = "Self Signed";
  TestX509 cert = MakeCert(options, key.get());
  X509OnlyStore store;
  store.Add(cert.get());
  std::vector<Thumbprint> chain;
  ASSERT_TRUE(MakeFileCert(&store, cert.get())->CaChain(chain, nullptr)) << recorder_->Dump();
  ASSERT_EQ(chain.size(), 1u);
  EXPECT_EQ(chain[0], ThumbprintOf(cert.get()));
}

TEST_F(CertCaChainTest, TwoMemberChainRunsFromLeafToRoot) {
  x509auth_test::Chain pki = x509auth_test::MakeChain();
  TestKey leaf_key = SharedKey(KeyKind::k_ec, 7);
  CertOptions options;
  options.common_name = "Direct Leaf";
  TestX509 leaf = MakeCert(options, leaf_key.get(), pki.root.get(), pki.root_key.get());
  X509OnlyStore store;
  store.Add(pki.root.get());
  std::vector<Thumbprint> chain;
  ASSERT_TRUE(MakeFileCert(&store, leaf.get())->CaChain(chain, nullptr)) << recorder_->Dump();
  ASSERT_EQ(chain.size(), 2u);
  EXPECT_EQ(chain[0], ThumbprintOf(leaf.get()));
  EXPECT_EQ(chain[1], ThumbprintOf(pki.root.get()));
}

TEST_F(CertCaChainTest, ThreeMemberChainRunsFromLeafThroughIntermediateToRoot) {
  x509auth_test::Chain pki = x509auth_test::MakeChain();
  X509OnlyStore store;
  store.Add(pki.root.get());
  store.Add(pki.intermediate.get());
  store.Add(pki.leaf.get());
  std::vector<Thumbprint> chain;
  ASSERT_TRUE(MakeFileCert(&store, pki.leaf.get())->CaChain(chain, nullptr)) << recorder_->Dump();
  ASSERT_EQ(chain.size(), 3u);
  EXPECT_EQ(chain[0], ThumbprintOf(pki.leaf.get()));
  EXPECT_EQ(chain[1], ThumbprintOf(pki.intermediate.get()));
  EXPECT_EQ(chain[2], ThumbprintOf(pki.root.get()));
  EXPECT_TRUE(recorder_->Logs().empty()) << recorder_->Dump();
}

TEST_F(CertCaChainTest, ChainIsAppendedAfterWhatTheArrayAlreadyHolds) {
  x509auth_test::Chain pki = x509auth_test::MakeChain();
  X509OnlyStore store;
  store.Add(pki.root.get());
  store.Add(pki.intermediate.get());
  Thumbprint earlier{};
  earlier.fill(0xAB);
  std::vector<Thumbprint> chain{earlier};
  ASSERT_TRUE(MakeFileCert(&store, pki.leaf.get())->CaChain(chain, nullptr));
  ASSERT_EQ(chain.size(), 4u);
  EXPECT_EQ(chain[0], earlier);
  EXPECT_EQ(chain[1], ThumbprintOf(pki.leaf.get()));
  EXPECT_EQ(chain[3], ThumbprintOf(pki.root.get()));
}

TEST_F(CertCaChainTest, ExtraStoreContributesTrustedCertificates) {
  const SplitChain split;
  auto cert = MakeFileCert(&split.own, split.pki.leaf.get());

  std::vector<Thumbprint> without_extra;
  EXPECT_FALSE(cert->CaChain(without_extra, nullptr));
  EXPECT_TRUE(without_extra.empty());

  std::vector<Thumbprint> chain;
  ASSERT_TRUE(cert->CaChain(chain, &split.extra)) << recorder_->Dump();
  ASSERT_EQ(chain.size(), 3u);
  EXPECT_EQ(chain[2], ThumbprintOf(split.pki.root.get()));
}

TEST_F(CertCaChainTest, ExtraStoreIsNotChangedByChainBuilding) {
  const SplitChain split;
  std::vector<Thumbprint> chain;
  ASSERT_TRUE(MakeFileCert(&split.own, split.pki.leaf.get())->CaChain(chain, &split.extra));
  EXPECT_EQ(sk_X509_OBJECT_num(X509_STORE_get0_objects(split.own.X509Store())), 1);
  EXPECT_EQ(sk_X509_OBJECT_num(X509_STORE_get0_objects(split.extra.X509Store())), 1);
}

TEST_F(CertCaChainTest, OwnStoreGivenAgainAsExtraStoreIsHarmless) {
  x509auth_test::Chain pki = x509auth_test::MakeChain();
  X509OnlyStore store;
  store.Add(pki.root.get());
  store.Add(pki.intermediate.get());
  std::vector<Thumbprint> chain;
  ASSERT_TRUE(MakeFileCert(&store, pki.leaf.get())->CaChain(chain, &store)) << recorder_->Dump();
  EXPECT_EQ(chain.size(), 3u);
}

TEST_F(CertCaChainTest, UnopenedExtraStoreIsSkipped) {
  x509auth_test::Chain pki = x509auth_test::MakeChain();
  X509OnlyStore store;
  store.Add(pki.root.get());
  store.Add(pki.intermediate.get());
  X509OnlyStore unopened(false);
  std::vector<Thumbprint> chain;
  ASSERT_TRUE(MakeFileCert(&store, pki.leaf.get())->CaChain(chain, &unopened));
  EXPECT_EQ(chain.size(), 3u);
}

TEST_F(CertCaChainTest, UntrustedLeafFailsWithError20AtDepth0AndLeavesTheArray) {
  x509auth_test::Chain pki = x509auth_test::MakeChain();
  X509OnlyStore store;
  store.Add(pki.leaf.get());
  Thumbprint earlier{};
  earlier.fill(0x11);
  std::vector<Thumbprint> chain{earlier};
  EXPECT_FALSE(MakeFileCert(&store, pki.leaf.get())->CaChain(chain, nullptr));
  ASSERT_EQ(chain.size(), 1u);
  EXPECT_EQ(chain[0], earlier);
  EXPECT_TRUE(recorder_->Has(X509_Auth_LogPriority_Warning, k_verify_failed,
                             "Cert::CaChain X509_verify_cert failed. Error code: [20], Error "
                             "message: [unable to get local issuer certificate], Error depth: [0]"))
      << recorder_->Dump();
}

TEST_F(CertCaChainTest, MissingRootFailsWithError2AtDepth1) {
  x509auth_test::Chain pki = x509auth_test::MakeChain();
  X509OnlyStore store;
  store.Add(pki.intermediate.get());
  std::vector<Thumbprint> chain;
  EXPECT_FALSE(MakeFileCert(&store, pki.leaf.get())->CaChain(chain, nullptr));
  EXPECT_TRUE(chain.empty());
  EXPECT_TRUE(recorder_->Has(X509_Auth_LogPriority_Warning, k_verify_failed,
                             "Cert::CaChain X509_verify_cert failed. Error code: [2], Error "
                             "message: [unable to get issuer certificate], Error depth: [1]"))
      << recorder_->Dump();
}

TEST_F(CertCaChainTest, ExpiredChainFailsVerificationAndReturnsNoChain) {
  TestKey root_key = SharedKey(KeyKind::k_rsa, 100);
  TestKey leaf_key = SharedKey(KeyKind::k_rsa, 102);
  CertOptions root_options = x509auth_test::CaOptions("Expired Root");
  root_options.not_before = "100101000000Z";
  root_options.not_after = "110101000000Z";
  TestX509 root = MakeCert(root_options, root_key.get());
  CertOptions leaf_options;
  leaf_options.common_name = "Expired Leaf";
  leaf_options.not_before = "100101000000Z";
  leaf_options.not_after = "110101000000Z";
  TestX509 leaf = MakeCert(leaf_options, leaf_key.get(), root.get(), root_key.get());
  X509OnlyStore store;
  store.Add(root.get());
  std::vector<Thumbprint> chain;
  EXPECT_FALSE(MakeFileCert(&store, leaf.get())->CaChain(chain, nullptr));
  EXPECT_TRUE(chain.empty());
  // OpenSSL 3.0 checks validity from the trust anchor down, so the expired
  // root at depth 1 is reported rather than the leaf.
  EXPECT_TRUE(recorder_->Has(X509_Auth_LogPriority_Warning, k_verify_failed,
                             "Cert::CaChain X509_verify_cert failed. Error code: [10], Error "
                             "message: [certificate has expired], Error depth: [1]"))
      << recorder_->Dump();
  EXPECT_EQ(recorder_->Logs().size(), 1u) << recorder_->Dump();
}

TEST_F(CertCaChainTest, BadSignatureLogsTheFailureThenOneQueuedOpenSslError) {
  x509auth_test::Chain pki = x509auth_test::MakeChain();
  TestKey leaf_key = SharedKey(KeyKind::k_ec, 4);
  TestKey wrong_key = SharedKey(KeyKind::k_rsa, 5);
  CertOptions options;
  options.common_name = "Forged Leaf";
  // Names the root as issuer but is signed with another key.
  TestX509 leaf = MakeCert(options, leaf_key.get(), pki.root.get(), wrong_key.get());
  X509OnlyStore store;
  store.Add(pki.root.get());
  std::vector<Thumbprint> chain;
  EXPECT_FALSE(MakeFileCert(&store, leaf.get())->CaChain(chain, nullptr));
  EXPECT_TRUE(chain.empty());
  const auto& logs = recorder_->Logs();
  ASSERT_EQ(logs.size(), 2u) << recorder_->Dump();
  EXPECT_EQ(logs[0].priority, X509_Auth_LogPriority_Warning);
  EXPECT_EQ(logs[0].text,
            "Cert::CaChain X509_verify_cert failed. Error code: [7], Error message: [certificate "
            "signature failure], Error depth: [0]");
  EXPECT_EQ(logs[1].priority, X509_Auth_LogPriority_Info);
  EXPECT_EQ(logs[1].format, "%s");
}

TEST_F(CertCaChainTest, ExpiredLeafUnderValidRootFailsAtDepth0) {
  x509auth_test::Chain pki = x509auth_test::MakeChain();
  TestKey leaf_key = SharedKey(KeyKind::k_ec, 3);
  CertOptions options;
  options.not_before = "200101000000Z";
  options.not_after = "200201000000Z";
  TestX509 leaf = MakeCert(options, leaf_key.get(), pki.root.get(), pki.root_key.get());
  X509OnlyStore store;
  store.Add(pki.root.get());
  std::vector<Thumbprint> chain;
  EXPECT_FALSE(MakeFileCert(&store, leaf.get())->CaChain(chain, nullptr));
  EXPECT_TRUE(recorder_->Has(X509_Auth_LogPriority_Warning, k_verify_failed,
                             "Cert::CaChain X509_verify_cert failed. Error code: [10], Error "
                             "message: [certificate has expired], Error depth: [0]"))
      << recorder_->Dump();
}

TEST_F(CertCaChainTest, SystemDefaultCasAreTrusted) {
  // A root from the system's default CA directory verifies with empty stores.
  std::FILE* file = std::fopen("/etc/ssl/certs/ISRG_Root_X1.pem", "r");
  if (file == nullptr) GTEST_SKIP() << "no ISRG Root X1 in /etc/ssl/certs";
  TestX509 root(PEM_read_X509(file, nullptr, nullptr, nullptr));
  std::fclose(file);
  ASSERT_TRUE(root);
  X509OnlyStore empty;
  std::vector<Thumbprint> chain;
  ASSERT_TRUE(MakeFileCert(&empty, root.get())->CaChain(chain, nullptr)) << recorder_->Dump();
  ASSERT_EQ(chain.size(), 1u);
  EXPECT_EQ(chain[0], ThumbprintOf(root.get()));
}

TEST_F(CertCaChainTest, UnopenedOwnStoreFailsAsAContextFailure) {
  x509auth_test::Chain pki = x509auth_test::MakeChain();
  X509OnlyStore unopened(false);
  X509OnlyStore extra;
  extra.Add(pki.root.get());
  std::vector<Thumbprint> chain;
  EXPECT_FALSE(MakeFileCert(&unopened, pki.root.get())->CaChain(chain, &extra));
  EXPECT_TRUE(chain.empty());
  EXPECT_TRUE(recorder_->Has(X509_Auth_LogPriority_Error,
                             "Cert::CaChain failed to create new X509 store context",
                             "Cert::CaChain failed to create new X509 store context"))
      << recorder_->Dump();
}

TEST_F(CertCaChainTest, TokenCertificateChainUsesItsStore) {
  x509auth_test::Chain pki = x509auth_test::MakeChain(KeyKind::k_ec);
  X509OnlyStore store;
  store.Add(pki.root.get());
  store.Add(pki.intermediate.get());
  PKCS11_CERT token_cert{};
  token_cert.x509 = pki.leaf.get();
  std::vector<Thumbprint> chain;
  ASSERT_TRUE(test::MakeTokenCert(&store, &token_cert)->CaChain(chain, nullptr));
  ASSERT_EQ(chain.size(), 3u);
  EXPECT_EQ(chain[0], ThumbprintOf(pki.leaf.get()));
}

}  // namespace
}  // namespace quorvant::shared::x509
