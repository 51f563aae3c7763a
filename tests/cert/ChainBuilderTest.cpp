// One trusted store shared by every chain of a listing must give exactly what
// a fresh store per certificate gives: the same results, chains and log
// lines in the same order. And a store filled in one batch must hold what
// X509_STORE_add_cert one by one leaves in it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ChainTestNames.h"
#include "cert/ChainBuilder.h"
#include "cert/X509StoreBatch.h"

namespace quorvant::shared::x509 {
namespace {

TestX509 Ca(const std::string& name, EVP_PKEY* key, X509* issuer = nullptr,
            EVP_PKEY* issuer_key = nullptr) {
  return MakeCert(x509auth_test::CaOptions(name), key, issuer, issuer_key);
}

TestX509 Leaf(const std::string& name, EVP_PKEY* key, X509* issuer, EVP_PKEY* issuer_key,
              const std::string& not_before = "", const std::string& not_after = "") {
  return MakeCert(x509auth_test::ClientOptions(name, not_before, not_after), key, issuer,
                  issuer_key);
}

struct Outcome {
  bool result = false;
  std::vector<Thumbprint> chain;
  std::vector<std::string> logs;  // priority and text

  bool operator==(const Outcome& other) const {
    return result == other.result && chain == other.chain && logs == other.logs;
  }
};

std::vector<std::string> Lines(const x509auth_test::RecordingCallbacks& recorder) {
  std::vector<std::string> lines;
  for (const x509auth_test::LogEntry& entry : recorder.Logs())
    lines.push_back(std::to_string(static_cast<int>(entry.priority)) + " " + entry.text);
  return lines;
}

class ChainBuilderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    recorder_ = &test::InstallRecorder();
    // No system CAs: only what the test puts in the stores counts.
    setenv("SSL_CERT_FILE", (dir_ / "no-bundle.pem").c_str(), 1);
    setenv("SSL_CERT_DIR", (dir_ / "no-dir").c_str(), 1);
  }
  void TearDown() override {
    unsetenv("SSL_CERT_FILE");
    unsetenv("SSL_CERT_DIR");
  }
  x509auth_test::TempDir dir_;
  x509auth_test::RecordingCallbacks* recorder_ = nullptr;
};

TEST_F(ChainBuilderTest, SharedTrustGivesWhatAFreshStorePerCertificateGives) {
  TestKey key_a = SharedKey(KeyKind::k_rsa, 40), key_b = SharedKey(KeyKind::k_rsa, 41);
  TestKey key_c = SharedKey(KeyKind::k_ec, 42), key_twin = SharedKey(KeyKind::k_ec, 43);
  TestKey leaf_key = SharedKey(KeyKind::k_ec, 44);
  TestX509 root_a = Ca("Root A", key_a.get());
  TestX509 inter = Ca("Intermediate A", key_c.get(), root_a.get(), key_a.get());
  TestX509 root_b = Ca("Root B", key_b.get());       // only in the extra store
  TestX509 absent = Ca("Absent Root", key_b.get());  // in neither store
  // Two CAs of one name with different keys: which is tried first matters.
  TestX509 twin_1 = Ca("Twin", key_twin.get());
  TestX509 twin_2 = Ca("Twin", key_c.get());

  std::vector<TestX509> leaves;
  leaves.push_back(Leaf("Under A", leaf_key.get(), root_a.get(), key_a.get()));
  leaves.push_back(Leaf("Under Intermediate", leaf_key.get(), inter.get(), key_c.get()));
  leaves.push_back(Leaf("Under B", leaf_key.get(), root_b.get(), key_b.get()));
  leaves.push_back(Leaf("Untrusted", leaf_key.get(), absent.get(), key_b.get()));
  leaves.push_back(Leaf("Expired", leaf_key.get(), root_a.get(), key_a.get(), "20000101000000Z",
                        "20010101000000Z"));
  leaves.push_back(Leaf("Not Yet", leaf_key.get(), root_a.get(), key_a.get(), "20900101000000Z",
                        "20910101000000Z"));
  leaves.push_back(Leaf("Under Twin 2", leaf_key.get(), twin_2.get(), key_c.get()));
  leaves.push_back(Leaf("Under Twin 1", leaf_key.get(), twin_1.get(), key_twin.get()));
  leaves.push_back(Leaf("Self", leaf_key.get(), nullptr, nullptr));
  // Failures between successes, and the same certificate twice.
  leaves.push_back(Leaf("Under A again", leaf_key.get(), root_a.get(), key_a.get()));

  X509OnlyStore own, extra;
  own.Add(root_a.get());
  own.Add(inter.get());
  own.Add(twin_1.get());
  own.Add(twin_2.get());
  for (const TestX509& leaf : leaves) own.Add(leaf.get());
  own.Add(root_a.get());  // a duplicate
  extra.Add(root_b.get());
  extra.Add(root_a.get());  // in both

  std::vector<X509*> order;
  for (const TestX509& leaf : leaves) order.push_back(leaf.get());
  order.push_back(leaves[3].get());
  order.push_back(leaves[0].get());

  std::vector<Outcome> separate, shared;
  for (X509* cert : order) {
    recorder_->Reset();
    Outcome outcome;
    outcome.result = MakeFileCert(&own, cert)->CaChain(outcome.chain, &extra);
    outcome.logs = Lines(*recorder_);
    separate.push_back(outcome);
  }
  ChainBuilder builder;
  for (X509* cert : order) {
    recorder_->Reset();
    Outcome outcome;
    outcome.result = MakeFileCert(&own, cert)->CaChain(outcome.chain, &extra, builder);
    outcome.logs = Lines(*recorder_);
    shared.push_back(outcome);
  }
  ASSERT_EQ(separate.size(), shared.size());
  int failures = 0;
  for (std::size_t i = 0; i < separate.size(); ++i) {
    EXPECT_TRUE(separate[i] == shared[i]) << "certificate " << i;
    if (!separate[i].result) {
      ++failures;
      ASSERT_FALSE(separate[i].logs.empty());
      EXPECT_NE(separate[i].logs[0].find("X509_verify_cert failed"), std::string::npos);
    }
  }
  // Untrusted (twice), expired and not yet valid; the self-signed leaf is
  // itself in the trusted store.
  EXPECT_EQ(failures, 4);
  EXPECT_TRUE(separate[0].result);
  EXPECT_EQ(separate[1].chain.size(), 3u);
  EXPECT_EQ(separate[2].chain.size(), 2u);
  EXPECT_TRUE(separate[6].result);
  EXPECT_TRUE(separate[7].result);
}

TEST_F(ChainBuilderTest, AnotherSourceStoreGetsItsOwnTrust) {
  TestKey key = SharedKey(KeyKind::k_rsa, 40), leaf_key = SharedKey(KeyKind::k_ec, 44);
  TestX509 root = Ca("Root A", key.get());
  TestX509 leaf = Leaf("Under A", leaf_key.get(), root.get(), key.get());
  X509OnlyStore with_root, without_root;
  with_root.Add(root.get());
  ChainBuilder builder;
  std::vector<Thumbprint> chain;
  EXPECT_TRUE(MakeFileCert(&with_root, leaf.get())->CaChain(chain, nullptr, builder));
  chain.clear();
  EXPECT_FALSE(MakeFileCert(&without_root, leaf.get())->CaChain(chain, nullptr, builder));
  chain.clear();
  EXPECT_TRUE(MakeFileCert(&with_root, leaf.get())->CaChain(chain, &without_root, builder));
}

TEST_F(ChainBuilderTest, UnopenedOwnStoreFailsAsBefore) {
  TestKey key = SharedKey(KeyKind::k_rsa, 40);
  TestX509 root = Ca("Root A", key.get());
  X509OnlyStore unopened(false);
  ChainBuilder builder;
  std::vector<Thumbprint> chain;
  EXPECT_FALSE(MakeFileCert(&unopened, root.get())->CaChain(chain, nullptr, builder));
  ASSERT_FALSE(recorder_->Logs().empty());
  EXPECT_EQ(recorder_->Logs()[0].text, "Cert::CaChain failed to create new X509 store context");
}

TEST(X509StoreBatchTest, HoldsWhatOneByOneAddingHoldsInTheSameOrder) {
  TestKey key_a = SharedKey(KeyKind::k_rsa, 40), key_b = SharedKey(KeyKind::k_ec, 43);
  std::vector<TestX509> certs;
  // Many of one name, so that the order among equal names shows.
  for (int i = 0; i < 12; ++i)
    certs.push_back(Ca(i % 3 == 0 ? "Same" : "Name " + std::to_string(i),
                       i % 2 == 0 ? key_a.get() : key_b.get()));
  std::vector<X509*> input;
  for (const TestX509& cert : certs) input.push_back(cert.get());
  input.push_back(certs[3].get());  // the same object again
  X509Ptr copy(X509_dup(certs[6].get()));
  input.push_back(copy.get());  // an equal copy

  X509StorePtr one_by_one(X509_STORE_new()), batched(X509_STORE_new());
  // Both start with something in them.
  X509_STORE_add_cert(one_by_one.get(), certs[0].get());
  X509_STORE_add_cert(batched.get(), certs[0].get());
  for (X509* cert : input) ASSERT_EQ(X509_STORE_add_cert(one_by_one.get(), cert), 1);
  {
    X509StoreBatch batch(batched.get());
    for (X509* cert : input) ASSERT_EQ(batch.Add(cert), 1);
  }
  EXPECT_EQ(x509auth_test::SortedStoreCerts(one_by_one.get()),
            x509auth_test::SortedStoreCerts(batched.get()));
  EXPECT_EQ(x509auth_test::SortedStoreCerts(batched.get()).size(), certs.size());
  EXPECT_EQ(X509StoreBatch(batched.get()).Add(nullptr), 0);
}

}  // namespace
}  // namespace quorvant::shared::x509
