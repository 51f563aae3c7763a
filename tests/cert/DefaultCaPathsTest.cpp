// The cached default CA locations must trust exactly what
// X509_STORE_set_default_paths trusts, and follow the CA file when it changes.
// The file's certificates join a store only when AddCaFile is called.
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <chrono>
#include <set>
#include <thread>

#include "ForkedChild.h"
#include "RecordingCallbacks.h"
#include "TestPki.h"
#include "base/SafeCallbacksWrapper.h"
#include "cert/DefaultCaPaths.h"
#include "x509auth/RegularFile.h"

namespace quorvant::shared::x509 {
namespace {

using namespace x509auth_test;

std::set<Bytes> Certificates(X509_STORE* store) {
  std::set<Bytes> der;
  const STACK_OF(X509_OBJECT)* objects = X509_STORE_get0_objects(store);
  for (int i = 0; i < sk_X509_OBJECT_num(objects); ++i)
    if (X509* cert = X509_OBJECT_get0_X509(sk_X509_OBJECT_value(objects, i)))
      der.insert(CertToDer(cert));
  return der;
}

// What a chain builder gives a store: the lookups, then the CA file.
int SetAll(X509_STORE* store) {
  const int set = DefaultCaPaths::SetOn(store);
  DefaultCaPaths::AddCaFile(store);
  return set;
}

bool Verifies(X509_STORE* store, X509* leaf) {
  std::unique_ptr<X509_STORE_CTX, decltype(&X509_STORE_CTX_free)> ctx(X509_STORE_CTX_new(),
                                                                      &X509_STORE_CTX_free);
  X509_STORE_CTX_init(ctx.get(), store, leaf, nullptr);
  return X509_verify_cert(ctx.get()) == 1;
}

class DefaultCaPathsTest : public ::testing::Test {
 protected:
  void TearDown() override { unsetenv("SSL_CERT_FILE"); }
};

TEST_F(DefaultCaPathsTest, TrustsTheSameCertificatesAsOpenSsl) {
  X509StorePtr ours(X509_STORE_new());
  X509StorePtr openssl(X509_STORE_new());
  ASSERT_EQ(DefaultCaPaths::SetOn(ours.get()), 1);
  ASSERT_EQ(X509_STORE_set_default_paths(openssl.get()), 1);
  const std::set<Bytes> expected = Certificates(openssl.get());
  EXPECT_FALSE(expected.empty()) << "the machine has no CA bundle to compare with";
  // The lookups alone read nothing.
  EXPECT_TRUE(Certificates(ours.get()).empty());
  DefaultCaPaths::AddCaFile(ours.get());
  EXPECT_EQ(Certificates(ours.get()), expected);
  // A second store comes from the cache and is the same again.
  X509StorePtr again(X509_STORE_new());
  ASSERT_EQ(SetAll(again.get()), 1);
  EXPECT_EQ(Certificates(again.get()), expected);
  EXPECT_EQ(ERR_peek_last_error(), 0u);
}

TEST_F(DefaultCaPathsTest, FollowsTheCaFileNamedByTheEnvironmentAndItsChanges) {
  TempDir dir;
  Chain first = MakeChain(KeyKind::k_ec, "First Leaf");
  TestKey other_root_key = MakeKey(KeyKind::k_ec);
  CertOptions root_options = CaOptions("Other Root");
  root_options.key_usage = "critical,keyCertSign";
  TestX509 other_root = MakeCert(root_options, other_root_key.get());
  CertOptions leaf_options;
  leaf_options.common_name = "Other Leaf";
  TestKey leaf_key = MakeKey(KeyKind::k_ec);
  TestX509 other_leaf =
      MakeCert(leaf_options, leaf_key.get(), other_root.get(), other_root_key.get());

  const auto bundle = dir.path() / "bundle.pem";
  WriteFile(bundle, CertToPem(first.root.get()) + CertToPem(first.intermediate.get()));
  setenv("SSL_CERT_FILE", bundle.c_str(), 1);
  X509StorePtr before(X509_STORE_new());
  ASSERT_EQ(SetAll(before.get()), 1);
  EXPECT_TRUE(Verifies(before.get(), first.leaf.get()));
  EXPECT_EQ(Certificates(before.get()).size(), 2u);
  EXPECT_FALSE(Verifies(before.get(), other_leaf.get()));

  // Rewritten in place: a different size and a later modification time.
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  WriteFile(bundle, CertToPem(other_root.get()));
  X509StorePtr after(X509_STORE_new());
  ASSERT_EQ(SetAll(after.get()), 1);
  EXPECT_TRUE(Verifies(after.get(), other_leaf.get()));
  EXPECT_EQ(Certificates(after.get()), std::set<Bytes>{CertToDer(other_root.get())});
  EXPECT_FALSE(Verifies(after.get(), first.leaf.get()));
}

TEST_F(DefaultCaPathsTest, MissingCaFileIsNoFailureAndAddsNothing) {
  TempDir dir;
  setenv("SSL_CERT_FILE", (dir.path() / "absent.pem").c_str(), 1);
  X509StorePtr store(X509_STORE_new());
  EXPECT_EQ(SetAll(store.get()), 1);
  EXPECT_TRUE(Certificates(store.get()).empty());
  EXPECT_EQ(ERR_peek_last_error(), 0u);
}

TEST_F(DefaultCaPathsTest, CaFileThatIsAFifoOrADeviceAddsNothingWithoutBlocking) {
  TempDir dir;
  ASSERT_EQ(mkfifo((dir.path() / "fifo").c_str(), 0600), 0);
  // Opening a FIFO for reading waits for a writer; the child's alarm would
  // end such a wait.
  const std::string report = RunInChild(
      [&] {
        std::string counts;
        for (const std::string path : {(dir.path() / "fifo").string(), std::string("/dev/zero")}) {
          setenv("SSL_CERT_FILE", path.c_str(), 1);
          X509StorePtr store(X509_STORE_new());
          counts += std::to_string(SetAll(store.get())) + " " +
                    std::to_string(Certificates(store.get()).size()) + "\n";
        }
        return counts;
      },
      ChildOptions{false, 20});
  EXPECT_EQ(report, "1 0\n1 0\n");
}

TEST_F(DefaultCaPathsTest, CaFileLargerThanFourMebibytesIsNamedInOneLineAndAddsNothing) {
  TempDir dir;
  Chain chain = MakeChain(KeyKind::k_ec, "Leaf");
  const auto bundle = dir.path() / "bundle.pem";
  const std::string pem = CertToPem(chain.root.get());
  WriteFile(bundle, pem + std::string(x509auth_common::k_max_file_bytes + 1 - pem.size(), '\n'));
  setenv("SSL_CERT_FILE", bundle.c_str(), 1);
  RecordingCallbacks& rec = RecordingCallbacks::GetInstance();
  rec.Reset();
  SafeCallbacksWrapper::GetInstance().Replace(rec.Callbacks());
  X509StorePtr store(X509_STORE_new());
  EXPECT_EQ(SetAll(store.get()), 1);
  EXPECT_TRUE(Certificates(store.get()).empty());
  ASSERT_EQ(rec.Logs().size(), 1u) << rec.Dump();
  EXPECT_TRUE(
      rec.Has(X509_Auth_LogPriority_Warning, "Skipping CA file [%s]: %s",
              "Skipping CA file [" + bundle.string() + "]: larger than 4 MiB (4194305 bytes)"));
  // One byte less, and the same file is read.
  WriteFile(bundle, pem + std::string(x509auth_common::k_max_file_bytes - pem.size(), '\n'));
  X509StorePtr again(X509_STORE_new());
  EXPECT_EQ(SetAll(again.get()), 1);
  EXPECT_EQ(Certificates(again.get()), std::set<Bytes>{CertToDer(chain.root.get())});
  SafeCallbacksWrapper::GetInstance().Replace(X509_Auth_Callbacks{});
}

}  // namespace
}  // namespace quorvant::shared::x509
