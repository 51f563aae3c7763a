// The key store's own rules, below the C boundary: which certificates are
// offered, and how kept results are made.
#include <gtest/gtest.h>

#include <stdexcept>

#include "FakeCertificate.h"
#include "RecordingCallbacks.h"
#include "base/SafeCallbacksWrapper.h"
#include "cert/ICertificate.h"
#include "keystore/KeyStore.h"

namespace quorvant::shared::x509 {
namespace {

using x509auth_test::RecordingCallbacks;

// A certificate that reports the usages a test gives it.
x509auth_test::FakeCertificate UsageCertificate(std::uint32_t eku, std::uint32_t ku,
                                                bool ku_ok = true) {
  x509auth_test::FakeCertificate::Answers answers = x509auth_test::FakeCertificate::Rsa("usage");
  answers.chains = true;
  answers.has_thumbprint = true;
  answers.enhanced_usage = eku;
  answers.intended_usage = ku;
  answers.intended_usage_readable = ku_ok;
  return x509auth_test::FakeCertificate(answers);
}

TEST(KeyStoreIsPermittedTest, ClientAuthExtendedUsageIsEnough) {
  EXPECT_TRUE(KeyStore::IsPermitted(UsageCertificate(0x2, 0)));
  EXPECT_TRUE(KeyStore::IsPermitted(UsageCertificate(0x3, 0x20)));
}

TEST(KeyStoreIsPermittedTest, NoExtendedUsageExtensionMeansEveryBitAndIsPermitted) {
  EXPECT_TRUE(KeyStore::IsPermitted(UsageCertificate(0xFFFFFFFF, 0)));
}

TEST(KeyStoreIsPermittedTest, DigitalSignatureKeyUsagePermitsServerOnlyCertificates) {
  EXPECT_TRUE(KeyStore::IsPermitted(UsageCertificate(0x1, 0x80)));
  EXPECT_FALSE(KeyStore::IsPermitted(UsageCertificate(0x1, 0x20)));
  EXPECT_FALSE(KeyStore::IsPermitted(UsageCertificate(0x1, 0)));
}

TEST(KeyStoreIsPermittedTest, BothUsagesZeroIsPermitted) {
  EXPECT_TRUE(KeyStore::IsPermitted(UsageCertificate(0, 0)));
  EXPECT_FALSE(KeyStore::IsPermitted(UsageCertificate(0, 0x20)));
}

TEST(KeyStoreIsPermittedTest, KeyUsageThatCannotBeReadRefuses) {
  EXPECT_FALSE(KeyStore::IsPermitted(UsageCertificate(0, 0x80, /*ku_ok=*/false)));
}

class KeyStoreAllocationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    RecordingCallbacks::GetInstance().Reset();
    SafeCallbacksWrapper::GetInstance().Replace(RecordingCallbacks::GetInstance().Callbacks());
  }
  KeyStore store;
};

TEST_F(KeyStoreAllocationTest, AllocateSignatureAboveTwoThrowsUnimplemented) {
  try {
    store.AllocateSignature(static_cast<Algorithm>(3), {1, 2, 3});
    FAIL() << "no exception";
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "Unimplemented");
  }
}

TEST_F(KeyStoreAllocationTest, AllocateSignatureRecordDescribesTheKeptBytes) {
  const X509_Auth_Signature* record = store.AllocateSignature(Algorithm::k_ec, {9, 8, 7});
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->algorithm, 2u);
  ASSERT_EQ(record->length, 3u);
  EXPECT_EQ(record->data[0], 9);
  EXPECT_EQ(record->data[2], 7);
  store.Free(record);
  store.Free(record);  // the second time finds nothing
  EXPECT_TRUE(RecordingCallbacks::GetInstance().Logs().empty());
}

TEST_F(KeyStoreAllocationTest, AllocatePlaintextOfNothingHasLengthZero) {
  const X509_Auth_ASN_1* record = store.AllocatePlaintext({});
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->length, 0u);
  EXPECT_EQ(record->data, nullptr);
  store.Free(record);
}

TEST_F(KeyStoreAllocationTest, InitLogsInitialisedAndOpensTheOwnStoreEmpty) {
  store.Init();
  EXPECT_TRUE(RecordingCallbacks::GetInstance().Has(X509_Auth_LogPriority_Info, "Initialised",
                                                    "Initialised"));
  EXPECT_TRUE(store.OwnStore().IsOpen());
  EXPECT_TRUE(store.OwnStore().Certificates().empty());
  EXPECT_TRUE(RecordingCallbacks::GetInstance().Has(
      X509_Auth_LogPriority_Warning,
      "CertStore::Open ::  NOT ICertificateStore::CertStoreType::k_users_cert_store",
      "CertStore::Open ::  NOT ICertificateStore::CertStoreType::k_users_cert_store"));
  // A second Init finds the store open and does not open it again.
  RecordingCallbacks::GetInstance().Reset();
  store.Init();
  EXPECT_TRUE(RecordingCallbacks::GetInstance().WithFormat("CertStore::Open").empty());
}

}  // namespace
}  // namespace quorvant::shared::x509
