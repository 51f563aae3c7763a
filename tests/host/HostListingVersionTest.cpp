// X509_Auth_GetListingVersion: the same number while a listing would give
// the same records as the latest one, another one after anything that
// changes them.
#include "HostFixture.h"

namespace x509auth_test {
namespace {

class HostListingVersionTest : public HostCaFileTest {
 protected:
  void SetUp() override {
    HostCaFileTest::SetUp();
    WriteFile(bundle_, std::string());
    key_ = SharedKey(KeyKind::k_ec, 3);
    first_ = MakeClientCert("First", key_.get());
    InstallFileCert(Base("base"), "first.pem", first_.get(), key_.get());
    Init({Base("base").string()});
    Settle();
  }
  static uint64_t Version() {
    uint64_t version = 0;
    EXPECT_EQ(X509_Auth_GetListingVersion(&version), 0) << rec().Dump();
    return version;
  }
  // Lists, and gives the version the listing left.
  static uint64_t ListedVersion() {
    uint64_t count = 0;
    const X509_Auth_Certificate* records = nullptr;
    EXPECT_TRUE(X509_Auth_LoadClientCertificates(&count, &records));
    X509_Auth_Free(records);
    return Version();
  }
  TestKey key_;
  TestX509 first_;
};

TEST_F(HostListingVersionTest, UnchangedFilesKeepTheVersionOfTheLatestListing) {
  const uint64_t listed = ListedVersion();
  EXPECT_NE(listed, 0u);
  EXPECT_EQ(Version(), listed);
  EXPECT_EQ(ListedVersion(), listed) << "a listing of the same records keeps it";
}

TEST_F(HostListingVersionTest, AnAddedRemovedOrRenamedCertificateFileChangesTheVersion) {
  const uint64_t listed = ListedVersion();
  TestX509 second = MakeClientCert("Second", key_.get());
  InstallFileCert(Base("base"), "second.pem", second.get(), key_.get());
  const uint64_t added = Version();
  EXPECT_NE(added, listed);
  const uint64_t relisted = ListedVersion();
  EXPECT_NE(relisted, listed);
  EXPECT_EQ(Version(), relisted);

  std::filesystem::remove(Base("base") / "certs" / "second.pem");
  EXPECT_NE(Version(), relisted) << "removed";
  const uint64_t after_removal = ListedVersion();

  // Same certificate, another name: its record names another key file.
  std::filesystem::rename(Base("base") / "certs" / "first.pem", Base("base") / "certs" / "one.pem");
  EXPECT_NE(Version(), after_removal) << "renamed";
}

TEST_F(HostListingVersionTest, AnAddedCaOrAChangedDefaultCaFileChangesTheVersion) {
  Chain chain = MakeChain(KeyKind::k_ec);
  const uint64_t listed = ListedVersion();
  const std::string pem = CertToPem(chain.root.get());
  ASSERT_EQ(X509_Auth_AddAdditionalCertificateAuthorityToStore(
                reinterpret_cast<const unsigned char*>(pem.data()), pem.size()),
            1);
  EXPECT_NE(Version(), listed) << "added CA";
  const uint64_t relisted = ListedVersion();
  WriteFile(temp_ / "bundle.pem", CertToPem(chain.intermediate.get()));
  EXPECT_NE(Version(), relisted) << "CA file";
}

TEST_F(HostListingVersionTest, NullOutputIsInvalidArgumentWithALine) {
  EXPECT_EQ(X509_Auth_GetListingVersion(nullptr), X509_Auth_ResultCode_InvalidArgument);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error, "%s: invalid argument",
                        "X509_Auth_GetListingVersion: invalid argument"))
      << rec().Dump();
}

}  // namespace
}  // namespace x509auth_test
