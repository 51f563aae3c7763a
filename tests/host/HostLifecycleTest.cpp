// Starting, reconfiguring and stopping the library, as a host sees it.
#include <openssl/err.h>

#include "HostFixture.h"

namespace x509auth_test {
namespace {

class HostLifecycleTest : public HostTest {};

TEST_F(HostLifecycleTest, GetApiVersionIsThreeBeforeInitAndAfterDeInit) {
  EXPECT_EQ(X509_Auth_GetApiVersion(), 3);
  Init({});
  X509_Auth_DeInit();
  EXPECT_EQ(X509_Auth_GetApiVersion(), 3);
}

TEST_F(HostLifecycleTest, InitLogsInitialisedAtInfo) {
  Init({});
  ASSERT_FALSE(rec().Logs().empty());
  EXPECT_EQ(rec().Logs()[0].priority, X509_Auth_LogPriority_Info);
  EXPECT_EQ(rec().Logs()[0].format, "Initialised");
  EXPECT_EQ(rec().Logs()[0].text, "Initialised");
}

TEST_F(HostLifecycleTest, InitWithNullSettingsKeepsTheDirectoriesGivenEarlier) {
  TestKey key = SharedKey(KeyKind::k_ec);
  TestX509 cert = MakeClientCert("Kept Directory", key.get());
  InstallFileCert(Base("base"), "kept.pem", cert.get(), key.get());
  Init({Base("base").string()});
  X509_Auth_Init(nullptr, rec().Callbacks());
  const auto records = List();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_STREQ(records[0]->name, "Kept Directory");
}

TEST_F(HostLifecycleTest, InitWithZeroCountsClearsBothLists) {
  TestKey key = SharedKey(KeyKind::k_ec);
  TestX509 cert = MakeClientCert("Cleared", key.get());
  InstallFileCert(Base("base"), "a.pem", cert.get());
  InstallFileCert(home_ / "rel", "b.pem", cert.get());
  Init({Base("base").string()}, {"rel"});
  EXPECT_EQ(List().size(), 2u);
  Init({}, {});
  EXPECT_EQ(List().size(), 0u);
}

TEST_F(HostLifecycleTest, PostInitUpdateSettingsTakesEffectOnTheNextList) {
  TestKey key = SharedKey(KeyKind::k_ec);
  TestX509 cert = MakeClientCert("Later", key.get());
  InstallFileCert(Base("later"), "later.pem", cert.get());
  Init({});
  EXPECT_EQ(List().size(), 0u);
  const std::string dir = Base("later").string();
  const char* dirs[] = {dir.c_str()};
  const X509_Auth_Settings settings{dirs, 1, nullptr, 0};
  X509_Auth_PostInitUpdateSettings(&settings);
  EXPECT_EQ(List().size(), 1u);
  X509_Auth_PostInitUpdateSettings(nullptr);
  EXPECT_EQ(List().size(), 1u);
}

TEST_F(HostLifecycleTest, AllNullCallbacksStillListCertificatesSilently) {
  TestKey key = SharedKey(KeyKind::k_ec);
  TestX509 cert = MakeClientCert("Silent", key.get());
  InstallFileCert(Base("base"), "silent.pem", cert.get(), key.get());
  Init({Base("base").string()}, {}, X509_Auth_Callbacks{});
  EXPECT_EQ(List().size(), 1u);
  EXPECT_TRUE(rec().Logs().empty());
  EXPECT_TRUE(rec().Prompts().empty());
}

TEST_F(HostLifecycleTest, ASecondInitWithNullLogSilencesLogging) {
  Init({});
  EXPECT_FALSE(rec().Logs().empty());
  rec().Reset();
  Init({}, {}, rec().Callbacks(false, true, true, true));
  List();
  EXPECT_TRUE(rec().Logs().empty());
}

TEST_F(HostLifecycleTest, ReInitDestroysEarlierResults) {
  TestKey key = SharedKey(KeyKind::k_ec);
  TestX509 cert = MakeClientCert("Earlier", key.get());
  InstallFileCert(Base("base"), "e.pem", cert.get());
  Init({Base("base").string()});
  const X509_Auth_Certificate* first = nullptr;
  ASSERT_EQ(List(&first).size(), 1u);
  Init({Base("base").string()});
  rec().Reset();
  // The earlier list belonged to the destroyed key store: the new one does
  // not know its address, so freeing it is ignored and logs nothing.
  X509_Auth_Free(first);
  EXPECT_TRUE(rec().Logs().empty());
  const X509_Auth_Certificate* second = nullptr;
  ASSERT_EQ(List(&second).size(), 1u);
  X509_Auth_Free(second);
}

TEST_F(HostLifecycleTest, DeInitTwiceOnlyChecksTheOpenSslQueueTheSecondTime) {
  Init({});
  X509_Auth_DeInit();
  rec().Reset();
  X509_Auth_DeInit();
  EXPECT_TRUE(rec().Logs().empty());
  ERR_put_error(ERR_LIB_X509, 0, 100, "file.c", 1);
  X509_Auth_DeInit();
  ASSERT_EQ(rec().Logs().size(), 1u);
  EXPECT_EQ(rec().Logs()[0].priority, X509_Auth_LogPriority_Info);
  EXPECT_EQ(rec().Logs()[0].format, "%s");
  ERR_clear_error();
}

}  // namespace
}  // namespace x509auth_test
