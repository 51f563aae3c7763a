// The system CA directory as the library's stores see it: what OpenSSL's
// own default lookups find there (a DER certificate under its subject hash
// name, which only the store lookup reads), followed as files come and go,
// with the listing kept between stores.
#include <gtest/gtest.h>
#include <openssl/x509.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "TestPki.h"
#include "cert/CaDirectoryLookup.h"
#include "cert/DefaultCaPaths.h"

namespace quorvant::shared::x509 {
namespace {

using namespace x509auth_test;

bool Verifies(X509_STORE* store, X509* leaf) {
  X509StoreCtxPtr context(X509_STORE_CTX_new());
  X509_STORE_CTX_init(context.get(), store, leaf, nullptr);
  return X509_verify_cert(context.get()) == 1;
}

std::string HashName(X509* cert, int index) {
  char name[32];
  std::snprintf(name, sizeof name, "%08lx.%d",
                X509_NAME_hash_ex(X509_get_subject_name(cert), nullptr, nullptr, nullptr), index);
  return name;
}

// A store as the library makes one: the default lookups, no CA file.
bool VerifiesWithDefaultLookups(X509* leaf) {
  X509StorePtr store(X509_STORE_new());
  EXPECT_EQ(DefaultCaPaths::SetOn(store.get()), 1);
  return Verifies(store.get(), leaf);
}

bool VerifiesWithOpenSslsDefaults(X509* leaf) {
  X509StorePtr store(X509_STORE_new());
  EXPECT_EQ(X509_STORE_set_default_paths(store.get()), 1);
  return Verifies(store.get(), leaf);
}

class CaDirectoryLookupTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("SSL_CERT_DIR", dir_.path().c_str(), 1);
    // No CA file: only the directory can complete a chain.
    setenv("SSL_CERT_FILE", (dir_.path() / "no-bundle.pem").c_str(), 1);
    // A self-issued CA and a leaf it issued, both single-level.
    CertOptions ca_options = CaOptions("Directory CA");
    ca_options.key_usage = "critical,keyCertSign";
    ca_key_ = MakeKey(KeyKind::k_ec);
    ca_ = MakeCert(ca_options, ca_key_.get());
    CertOptions leaf_options;
    leaf_options.common_name = "Directory Leaf";
    leaf_key_ = MakeKey(KeyKind::k_ec);
    leaf_ = MakeCert(leaf_options, leaf_key_.get(), ca_.get(), ca_key_.get());
  }
  void TearDown() override {
    unsetenv("SSL_CERT_DIR");
    unsetenv("SSL_CERT_FILE");
    CaDirectoryLookup::Clear();
  }

  TempDir dir_;
  TestKey ca_key_, leaf_key_;
  TestX509 ca_, leaf_;
};

TEST_F(CaDirectoryLookupTest, DerCaUnderItsHashNameCompletesTheChainAsWithOpenSslsDefaults) {
  WriteFile(dir_.path() / HashName(ca_.get(), 0), CertToDer(ca_.get()));
  EXPECT_TRUE(VerifiesWithOpenSslsDefaults(leaf_.get()));
  EXPECT_TRUE(VerifiesWithDefaultLookups(leaf_.get()));
  // A second store is served from the kept listing and file.
  EXPECT_TRUE(VerifiesWithDefaultLookups(leaf_.get()));
}

TEST_F(CaDirectoryLookupTest, CaUnderAnotherNameIsNotReadAsWithOpenSslsDefaults) {
  WriteFile(dir_.path() / "directory-ca.der", CertToDer(ca_.get()));
  EXPECT_FALSE(VerifiesWithOpenSslsDefaults(leaf_.get()));
  EXPECT_FALSE(VerifiesWithDefaultLookups(leaf_.get()));
}

TEST_F(CaDirectoryLookupTest, CaAddedAfterAListingIsFoundAndARemovedOneIsGone) {
  EXPECT_FALSE(VerifiesWithDefaultLookups(leaf_.get()));
  const auto file = dir_.path() / HashName(ca_.get(), 0);
  WriteFile(file, CertToDer(ca_.get()));
  EXPECT_TRUE(VerifiesWithDefaultLookups(leaf_.get()));
  std::filesystem::remove(file);
  EXPECT_FALSE(VerifiesWithDefaultLookups(leaf_.get()));
  // Back under the next index, in PEM.
  WriteFile(dir_.path() / HashName(ca_.get(), 1), CertToPem(ca_.get()));
  EXPECT_TRUE(VerifiesWithDefaultLookups(leaf_.get()));
}

TEST_F(CaDirectoryLookupTest, CaDirectoryThatIsAListFallsBackToOpenSslsLookups) {
  const TempDir second;
  WriteFile(second.path() / HashName(ca_.get(), 0), CertToPem(ca_.get()));
  const std::string list = dir_.path().string() + ":" + second.path().string();
  setenv("SSL_CERT_DIR", list.c_str(), 1);
  EXPECT_EQ(VerifiesWithDefaultLookups(leaf_.get()), VerifiesWithOpenSslsDefaults(leaf_.get()));
  EXPECT_TRUE(VerifiesWithDefaultLookups(leaf_.get()));
}

}  // namespace
}  // namespace quorvant::shared::x509
