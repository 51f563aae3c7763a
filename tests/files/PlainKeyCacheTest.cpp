// Unencrypted key files kept between per-request key operations: the same
// file gives the same parsed key, a changed one is read again with the
// lines every read writes, and a key that asked for a password is never
// kept.
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <filesystem>
#include <string>

#include "RecordedCallbacksTest.h"
#include "TestPki.h"
#include "base/SafeCallbacksWrapper.h"
#include "files/PlainKeyCache.h"

namespace quorvant::shared::x509 {
namespace {

using namespace x509auth_test;

class PlainKeyCacheTest : public RecordedCallbacksTest {
 protected:
  void SetUp() override {
    PlainKeyCache::GetInstance().Clear();
    key_ = SharedKey(KeyKind::k_ec);
    cert_ = MakeCert(CertOptions{}, key_.get());
    key_path_ = dir_ / "leaf.pem.key";
    cert_path_ = dir_ / "leaf.pem";
  }
  void TearDown() override { PlainKeyCache::GetInstance().Clear(); }
  EvpPkeyPtr Get() { return PlainKeyCache::GetInstance().Get(cert_.get(), cert_path_, key_path_); }

  TempDir dir_;
  TestKey key_;
  TestX509 cert_;
  std::filesystem::path key_path_, cert_path_;
};

TEST_F(PlainKeyCacheTest, UnchangedPlainKeyFileGivesTheKeyParsedBefore) {
  WriteFile(key_path_, KeyToPem(key_.get()));
  const EvpPkeyPtr first = Get();
  ASSERT_TRUE(first);
  EXPECT_EQ(EVP_PKEY_eq(first.get(), key_.get()), 1);
  const EvpPkeyPtr second = Get();
  EXPECT_EQ(second.get(), first.get());
  EXPECT_EQ(PlainKeyCache::GetInstance().Size(), 1u);
  EXPECT_TRUE(rec().Logs().empty()) << rec().Dump();
  PlainKeyCache::GetInstance().Clear();
  EXPECT_EQ(PlainKeyCache::GetInstance().Size(), 0u);
}

TEST_F(PlainKeyCacheTest, KeyFileRewrittenInPlaceWithAnotherKeyOfTheSameSizeIsReadAgain) {
  const std::string original = KeyToPem(key_.get());
  WriteFile(key_path_, original);
  ASSERT_TRUE(Get());
  TestKey other = MakeKey(KeyKind::k_ec);
  const std::string replacement = KeyToPem(other.get());
  ASSERT_EQ(replacement.size(), original.size());
  WriteFile(key_path_, replacement);
  EXPECT_FALSE(Get());
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error,
                        "Private key file [%s] does not appear to match cert [%s]",
                        "Private key file [" + key_path_.string() +
                            "] does not appear to match cert [" + cert_path_.string() + "]"))
      << rec().Dump();
  EXPECT_EQ(PlainKeyCache::GetInstance().Size(), 0u);
  WriteFile(key_path_, original);
  const EvpPkeyPtr back = Get();
  ASSERT_TRUE(back);
  EXPECT_EQ(EVP_PKEY_eq(back.get(), key_.get()), 1);
}

TEST_F(PlainKeyCacheTest, DeletedKeyFileGivesTheMissingFileLineAndNothingKept) {
  WriteFile(key_path_, KeyToPem(key_.get()));
  ASSERT_TRUE(Get());
  std::filesystem::remove(key_path_);
  EXPECT_FALSE(Get());
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error, "Private key file [%s] does not exist",
                        "Private key file [" + key_path_.string() + "] does not exist"));
  EXPECT_EQ(PlainKeyCache::GetInstance().Size(), 0u);
}

TEST_F(PlainKeyCacheTest, EncryptedKeyIsNeverKeptAndAsksForItsPasswordEveryTime) {
  WriteFile(key_path_, KeyToPem(key_.get(), "s3cret"));
  for (int request = 0; request < 3; ++request) {
    rec().ScriptAnswer(PinAnswer::Value("s3cret"));
    EXPECT_TRUE(Get());
  }
  EXPECT_EQ(rec().Prompts().size(), 3u);
  EXPECT_EQ(PlainKeyCache::GetInstance().Size(), 0u);
}

TEST_F(PlainKeyCacheTest, AnotherCertificateWithTheSameKeyPathIsCheckedAgainstItsKey) {
  WriteFile(key_path_, KeyToPem(key_.get()));
  ASSERT_TRUE(Get());
  TestKey other_key = MakeKey(KeyKind::k_ec);
  TestX509 other_cert = MakeCert(CertOptions{}, other_key.get());
  EXPECT_FALSE(PlainKeyCache::GetInstance().Get(other_cert.get(), cert_path_, key_path_));
  EXPECT_FALSE(
      rec().WithFormat("Private key file [%s] does not appear to match cert [%s]").empty());
}

}  // namespace
}  // namespace quorvant::shared::x509
