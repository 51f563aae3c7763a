// The key store's own rules, below the C boundary: which certificates are
// offered, and how kept results are made.
#include <gtest/gtest.h>

#include <stdexcept>

#include "RecordingCallbacks.h"
#include "base/SafeCallbacksWrapper.h"
#include "cert/ICertificate.h"
#include "keystore/KeyStore.h"

namespace quorvant::shared::x509 {
namespace {

using x509auth_test::RecordingCallbacks;

// A certificate that reports the usages a test gives it.
class UsageCertificate : public ICertificate {
 public:
  UsageCertificate(std::uint32_t eku, std::uint32_t ku, bool ku_ok = true)
      : eku_(eku), ku_(ku), ku_ok_(ku_ok) {}
  std::string PublicKeyAlgorithm() const override { return "1.2.840.113549.1.1.1"; }
  Algorithm PublicKeyAlgorithmGroup() const override { return Algorithm::k_rsa; }
  bool IntendedKeyUsage(std::uint32_t& usage) const override {
    usage = ku_;
    return ku_ok_;
  }
  std::uint32_t EnhancedKeyUsage() const override { return eku_; }
  std::string Name() const override { return "usage"; }
  std::string IssuerName() const override { return "usage"; }
  std::time_t NotBefore() const override { return 0; }
  std::time_t NotAfter() const override { return 0; }
  bool SupportsSmartCard() const override { return false; }
  std::vector<unsigned char> Encode() const override { return {}; }
  bool Thumbprint(x509::Thumbprint&) const override { return true; }
  bool CaChain(std::vector<x509::Thumbprint>&, const ICertificateStore*) const override {
    return true;
  }
  bool ShowDialog(void*) const override { return false; }
  const CertContext& GetContext() const override { return context_; }

 private:
  std::uint32_t eku_, ku_;
  bool ku_ok_;
  CertContext context_;
};

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
