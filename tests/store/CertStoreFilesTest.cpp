#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <sstream>

#include "ForkedChild.h"
#include "StoreTestSupport.h"

namespace quorvant::shared::x509::test {
namespace {

constexpr const char* k_no_certs_directory =
    "Certificates directory [%s] does not exist so no certificates can be loaded from it";

std::string NoCertsDirectoryText(const fs::path& certs) {
  return "Certificates directory [" + certs.string() +
         "] does not exist so no certificates can be loaded from it";
}

// A store opened for another kind has an X509_STORE and nothing else, so the
// file scan can be driven on its own, without any token source.
class FileStoreTest : public CertStoreTest {
 protected:
  void SetUp() override {
    CertStoreTest::SetUp();
    ASSERT_EQ(store_.Open(static_cast<ICertificateStore::CertStoreType>(1)), 0u);
    recorder_->Reset();
  }
  // Scans tmp_/base and expects |name| alone, read from certs/|file| with
  // its key looked for at keys/|file|.key.
  void LoadBaseExpectingOnly(const std::string& name, const std::string& file) {
    store_.LoadFileStoreCertsFromPath(tmp_ / "base");
    const auto certs = store_.Certificates();
    ASSERT_EQ(Names(certs), std::vector<std::string>{name});
    EXPECT_EQ(FileContext(certs[0]).cert_path, tmp_ / "base" / "certs" / file);
    EXPECT_EQ(FileContext(certs[0]).key_path, tmp_ / "base" / "keys" / (file + ".key"));
  }
};

TEST_F(FileStoreTest, BaseWithoutCertsDirectoryIsLoggedAndTheNextBaseIsStillScanned) {
  fs::create_directories(tmp_ / "empty-base");
  x509auth_test::InstallFileCert(tmp_ / "base", "a.pem", NamedCert("Second Base").get());
  SetBaseDirectories({(tmp_ / "empty-base").string(), (tmp_ / "base").string()}, {});
  EXPECT_EQ(store_.OpenFileStore(), 0u);
  EXPECT_TRUE(recorder_->Has(X509_Auth_LogPriority_Warning, k_no_certs_directory,
                             NoCertsDirectoryText(tmp_ / "empty-base" / "certs")))
      << recorder_->Dump();
  EXPECT_EQ(Names(store_.Certificates()), std::vector<std::string>{"Second Base"});
}

TEST_F(FileStoreTest, CertsAsSymbolicLinkToADirectoryIsAccepted) {
  x509auth_test::InstallFileCert(tmp_ / "real", "a.pem", NamedCert("Via Link").get());
  fs::create_directories(tmp_ / "base");
  fs::create_directory_symlink(tmp_ / "real" / "certs", tmp_ / "base" / "certs");
  LoadBaseExpectingOnly("Via Link", "a.pem");
  EXPECT_TRUE(recorder_->Logs().empty()) << recorder_->Dump();
}

TEST_F(FileStoreTest, CertsAsRegularFileIsRefusedWithTheMissingDirectoryLine) {
  x509auth_test::WriteFile(tmp_ / "base" / "certs",
                           x509auth_test::CertToPem(NamedCert("In A File").get()));
  store_.LoadFileStoreCertsFromPath(tmp_ / "base");
  EXPECT_TRUE(store_.Certificates().empty());
  EXPECT_TRUE(recorder_->Has(X509_Auth_LogPriority_Warning, k_no_certs_directory,
                             NoCertsDirectoryText(tmp_ / "base" / "certs")))
      << recorder_->Dump();
}

TEST_F(FileStoreTest, MissingCertsDirectoryContributesNothing) {
  store_.LoadFileStoreCertsFromPath(tmp_ / "nowhere");
  EXPECT_TRUE(store_.Certificates().empty());
  ASSERT_EQ(recorder_->Logs().size(), 1u);
  EXPECT_TRUE(recorder_->Has(X509_Auth_LogPriority_Warning, k_no_certs_directory,
                             NoCertsDirectoryText(tmp_ / "nowhere" / "certs")));
}

TEST_F(FileStoreTest, DerFileIsListedWithItsKeyPathAndTextFileIsSkipped) {
  auto ca = NamedCert("Der Cert");
  x509auth_test::InstallFileCert(tmp_ / "base", "ca.der", ca.get(), nullptr, true);
  x509auth_test::WriteFile(tmp_ / "base" / "certs" / "notes.txt", std::string("just notes\n"));
  LoadBaseExpectingOnly("Der Cert", "ca.der");
  EXPECT_FALSE(fs::exists(tmp_ / "base" / "keys" / "ca.der.key"));
  EXPECT_TRUE(test::StoreHolds(store_.X509Store(), ca.get()));
  EXPECT_TRUE(recorder_->Logs().empty()) << recorder_->Dump();
}

TEST_F(FileStoreTest, EveryRegularFileIsTriedWhateverItsName) {
  x509auth_test::InstallFileCert(tmp_ / "base", "noextension", NamedCert("A").get());
  x509auth_test::InstallFileCert(tmp_ / "base", ".hidden", NamedCert("B", 1).get(), nullptr, true);
  x509auth_test::InstallFileCert(tmp_ / "base", "looks-like.key", NamedCert("C", 2).get());
  store_.LoadFileStoreCertsFromPath(tmp_ / "base");
  auto names = Names(store_.Certificates());
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"A", "B", "C"}));
  for (const auto& cert : store_.Certificates()) {
    const CertFileContext& context = FileContext(cert);
    EXPECT_EQ(context.key_path,
              tmp_ / "base" / "keys" / (context.cert_path.filename().string() + ".key"));
  }
}

TEST_F(FileStoreTest, LinkToACertificateFileIsReadAndADanglingLinkIsSkipped) {
  auto cert = NamedCert("Linked");
  x509auth_test::WriteFile(tmp_ / "elsewhere" / "target.pem", x509auth_test::CertToPem(cert.get()));
  fs::create_directories(tmp_ / "base" / "certs");
  fs::create_symlink(tmp_ / "elsewhere" / "target.pem", tmp_ / "base" / "certs" / "link.pem");
  fs::create_symlink(tmp_ / "elsewhere" / "missing.pem", tmp_ / "base" / "certs" / "dangling.pem");
  LoadBaseExpectingOnly("Linked", "link.pem");
  EXPECT_TRUE(recorder_->Logs().empty()) << recorder_->Dump();
}

TEST_F(FileStoreTest, FifoAndSubdirectoryInsideCertsAreSkippedWithoutRecursion) {
  x509auth_test::InstallFileCert(tmp_ / "base", "top.pem", NamedCert("Top").get());
  x509auth_test::InstallFileCert(tmp_ / "base" / "certs" / "nested", "deep.pem",
                                 NamedCert("Deep", 1).get());
  // Opening a FIFO for reading would block, so reaching it would hang the test.
  ASSERT_EQ(mkfifo((tmp_ / "base" / "certs" / "pipe").c_str(), 0600), 0);
  fs::create_directories(tmp_ / "base" / "certs" / "empty-dir");
  store_.LoadFileStoreCertsFromPath(tmp_ / "base");
  EXPECT_EQ(Names(store_.Certificates()), std::vector<std::string>{"Top"});
  EXPECT_TRUE(recorder_->Logs().empty()) << recorder_->Dump();
}

TEST_F(FileStoreTest, SameCertificateFoundTwiceIsListedTwice) {
  auto cert = NamedCert("Twice");
  x509auth_test::InstallFileCert(tmp_ / "one", "a.pem", cert.get());
  x509auth_test::InstallFileCert(tmp_ / "one", "b.der", cert.get(), nullptr, true);
  x509auth_test::InstallFileCert(tmp_ / "two", "a.pem", cert.get());
  SetBaseDirectories({(tmp_ / "one").string(), (tmp_ / "two").string()}, {});
  store_.OpenFileStore();
  const auto certs = store_.Certificates();
  EXPECT_EQ(Names(certs), (std::vector<std::string>{"Twice", "Twice", "Twice"}));
  EXPECT_EQ(FileContext(certs[2]).cert_path, tmp_ / "two" / "certs" / "a.pem");
  EXPECT_EQ(sk_X509_OBJECT_num(X509_STORE_get0_objects(store_.X509Store())), 1);
}

TEST_F(FileStoreTest, FirstListAsGivenThenSecondListBelowHome) {
  x509auth_test::InstallFileCert(tmp_ / "abs", "a.pem", NamedCert("Absolute").get());
  x509auth_test::InstallFileCert(tmp_ / "home" / ".x509", "b.pem", NamedCert("Home", 1).get());
  x509auth_test::InstallFileCert(tmp_ / "other", "c.pem",
                                 NamedCert("Absolute Home Entry", 2).get());
  // An absolute entry of the second list replaces HOME when joined.
  SetBaseDirectories({(tmp_ / "abs").string()}, {".x509", (tmp_ / "other").string()});
  EXPECT_EQ(store_.OpenFileStore(), 0u);
  const auto certs = store_.Certificates();
  EXPECT_EQ(Names(certs), (std::vector<std::string>{"Absolute", "Home", "Absolute Home Entry"}));
  EXPECT_EQ(FileContext(certs[1]).key_path, tmp_ / "home" / ".x509" / "keys" / "b.pem.key");
  ASSERT_EQ(recorder_->Logs().size(), 1u) << recorder_->Dump();
  EXPECT_TRUE(recorder_->Has(X509_Auth_LogPriority_Warning, "CertStore::OpenFileStore",
                             "CertStore::OpenFileStore"));
}

TEST_F(FileStoreTest, HomeUnsetSkipsOnlyTheHomeRelativeDirectories) {
  x509auth_test::InstallFileCert(tmp_ / "abs", "a.pem", NamedCert("Absolute").get());
  x509auth_test::InstallFileCert(tmp_ / "home" / ".x509", "b.pem", NamedCert("Home", 1).get());
  SetBaseDirectories({(tmp_ / "abs").string()}, {".x509"});
  env_->Unset("HOME");
  EXPECT_EQ(store_.OpenFileStore(), 0u);
  EXPECT_EQ(Names(store_.Certificates()), std::vector<std::string>{"Absolute"});
  ASSERT_EQ(recorder_->Logs().size(), 2u) << recorder_->Dump();
  EXPECT_EQ(recorder_->IndexOf("Unable to read HOME environment variable"), 1);
  EXPECT_TRUE(recorder_->Has(X509_Auth_LogPriority_Error,
                             "Unable to read HOME environment variable",
                             "Unable to read HOME environment variable"));
}

// Runs |scan| in a child that has dropped root for nobody, so permissions
// apply, and returns what it wrote.
std::string RunAsNobody(const std::function<std::string()>& scan) {
  x509auth_test::ChildOptions options;
  options.as_nobody = true;
  return x509auth_test::RunInChild(scan, options);
}

std::string Report(const x509auth_test::RecordingCallbacks& recorder,
                   const std::vector<std::unique_ptr<ICertificate>>& certs) {
  std::ostringstream out;
  for (const auto& entry : recorder.Logs())
    out << "log " << entry.priority << '|' << entry.format << '|' << entry.text << '\n';
  for (const auto& cert : certs) out << "cert " << cert->Name() << '\n';
  return out.str();
}

class FileStorePermissionTest : public FileStoreTest {
 protected:
  void SetUp() override {
    FileStoreTest::SetUp();
    // nobody must be able to reach the test directories.
    fs::permissions(tmp_.path(), fs::perms::owner_all | fs::perms::group_read |
                                     fs::perms::group_exec | fs::perms::others_read |
                                     fs::perms::others_exec);
  }
  // The report of a scan of |base| by nobody.
  std::string LoadAsNobody(const fs::path& base) {
    return RunAsNobody([&] {
      store_.LoadFileStoreCertsFromPath(base);
      return Report(*recorder_, store_.Certificates());
    });
  }
};

TEST_F(FileStorePermissionTest, UnreadableCertsDirectoryLogsItsErrorAndOnlyThatBaseIsSkipped) {
  x509auth_test::InstallFileCert(tmp_ / "locked", "a.pem", NamedCert("Locked").get());
  x509auth_test::InstallFileCert(tmp_ / "open", "b.pem", NamedCert("Open", 1).get());
  fs::permissions(tmp_ / "locked" / "certs", fs::perms::owner_all);
  SetBaseDirectories({(tmp_ / "locked").string(), (tmp_ / "open").string()}, {});
  const std::string report = RunAsNobody([&] {
    store_.OpenFileStore();
    return Report(*recorder_, store_.Certificates());
  });
  const std::string certs = (tmp_ / "locked" / "certs").string();
  EXPECT_EQ(report,
            "log 2|CertStore::OpenFileStore|CertStore::OpenFileStore\n"
            "log 3|%s|filesystem error: directory iterator cannot open directory: Permission "
            "denied [" +
                certs +
                "]\n"
                "cert Open\n");
}

TEST_F(FileStorePermissionTest, UnreadableSubdirectoryInsideCertsIsSkippedUnopened) {
  x509auth_test::InstallFileCert(tmp_ / "base", "a.pem", NamedCert("Readable").get());
  x509auth_test::InstallFileCert(tmp_ / "base" / "certs" / "locked", "b.pem",
                                 NamedCert("Hidden", 1).get());
  fs::permissions(tmp_ / "base" / "certs" / "locked", fs::perms::owner_all);
  const std::string report = LoadAsNobody(tmp_ / "base");
  EXPECT_EQ(report, "cert Readable\n");
}

TEST_F(FileStorePermissionTest, UnreadableCertificateFileIsSkippedSilently) {
  x509auth_test::InstallFileCert(tmp_ / "base", "a.pem", NamedCert("Readable").get());
  x509auth_test::InstallFileCert(tmp_ / "base", "b.pem", NamedCert("Private", 1).get());
  fs::permissions(tmp_ / "base" / "certs" / "b.pem", fs::perms::owner_read);
  const std::string report = LoadAsNobody(tmp_ / "base");
  EXPECT_EQ(report, "cert Readable\n");
}

TEST_F(FileStorePermissionTest, UntraversableBaseLogsTheStatusError) {
  x509auth_test::InstallFileCert(tmp_ / "closed", "a.pem", NamedCert("Behind").get());
  fs::permissions(tmp_ / "closed", fs::perms::owner_all);
  const std::string report = LoadAsNobody(tmp_ / "closed");
  EXPECT_EQ(report, "log 3|%s|filesystem error: status: Permission denied [" +
                        (tmp_ / "closed" / "certs").string() + "]\n");
}

}  // namespace
}  // namespace quorvant::shared::x509::test
