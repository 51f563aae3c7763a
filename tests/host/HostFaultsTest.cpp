// Faults a host may meet, through the C interface: a PKCS#11 module that
// fails, no file descriptors left, a certificates directory that is removed
// or replaced while it is scanned.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <set>
#include <thread>

#include "ForkedChild.h"
#include "HostFixture.h"

namespace x509auth_test {
namespace {

namespace fs = std::filesystem;

class HostFaultsTest : public HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    key_ = SharedKey(KeyKind::k_ec, 1);
  }

  // |count| certificates named "<prefix> <i>" in one base directory.
  void InstallMany(const fs::path& base, const std::string& prefix, int count) {
    for (int i = 0; i < count; ++i) {
      TestX509 cert = MakeClientCert(prefix + " " + std::to_string(i), key_.get());
      InstallFileCert(base, "c" + std::to_string(i) + ".pem", cert.get(), key_.get());
    }
  }

  TestKey key_;
};

TEST_F(HostFaultsTest, ModuleWhoseInitializeFailsStillLeavesTheFileCertificatesListed) {
  fs::remove(work_ / "opensc-pkcs11.so");
  fs::create_symlink(FAULT_MODULE_INITIALIZE_FAILS, work_ / "opensc-pkcs11.so");
  InstallMany(Base("base"), "File", 2);
  Init({Base("base").string()});
  const auto records = List();
  EXPECT_EQ(records.size(), 2u) << rec().Dump();
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error, "unable to load PKCS11_CTX [%i]",
                        "unable to load PKCS11_CTX [-1]"))
      << rec().Dump();
  if (!records.empty()) X509_Auth_Free(records[0]);
}

TEST_F(HostFaultsTest, ModuleWithoutGetFunctionListStillLeavesTheFileCertificatesListed) {
  fs::remove(work_ / "opensc-pkcs11.so");
  fs::create_symlink(FAULT_MODULE_NO_FUNCTION_LIST, work_ / "opensc-pkcs11.so");
  InstallMany(Base("base"), "File", 1);
  Init({Base("base").string()});
  const auto records = List();
  EXPECT_EQ(records.size(), 1u) << rec().Dump();
  EXPECT_EQ(rec().WithFormat("unable to load PKCS11_CTX [%i]").size(), 1u) << rec().Dump();
  if (!records.empty()) X509_Auth_Free(records[0]);
}

int OpenDescriptors() {
  int open = 0;
  for (auto it = fs::directory_iterator("/proc/self/fd"); it != fs::directory_iterator(); ++it)
    ++open;
  return open - 1;  // the iterator's own
}

// The limit under which exactly |spare| descriptors can still be opened:
// a new descriptor takes the lowest free number, and must stay below it.
int LimitLeaving(int spare) {
  for (int fd = 0;; ++fd)
    if (fcntl(fd, F_GETFD) == -1 && spare-- == 0) return fd;
}

// Lists with at most |spare| descriptors beyond those open now, then with
// the limit restored; reports both outcomes and every log line of the first.
std::string ListWithSpareDescriptors(int spare) {
  rlimit saved{};
  getrlimit(RLIMIT_NOFILE, &saved);
  const int before = OpenDescriptors();
  const rlimit tight{static_cast<rlim_t>(LimitLeaving(spare)), saved.rlim_max};
  uint64_t count = 99;
  const X509_Auth_Certificate* list = nullptr;
  RecordingCallbacks::GetInstance().Reset();
  if (setrlimit(RLIMIT_NOFILE, &tight) != 0) return "setrlimit failed";
  const bool listed = X509_Auth_LoadClientCertificates(&count, &list);
  setrlimit(RLIMIT_NOFILE, &saved);
  std::string report = std::string(listed ? "listed " : "failed ") + std::to_string(count) + "\n";
  for (const LogEntry& entry : RecordingCallbacks::GetInstance().Logs())
    if (entry.priority == X509_Auth_LogPriority_Error) report += entry.text + "\n";
  if (listed) X509_Auth_Free(list);
  // Nothing the failed listing opened is left open, and all is found again.
  const int after = OpenDescriptors();
  uint64_t again = 0;
  const bool relisted = X509_Auth_LoadClientCertificates(&again, &list);
  if (relisted) X509_Auth_Free(list);
  report += "then " + std::string(relisted ? "listed " : "failed ") + std::to_string(again) +
            (after == before
                 ? ""
                 : ", descriptors " + std::to_string(before) + " -> " + std::to_string(after));
  return report;
}

class HostDescriptorTest : public HostFaultsTest {
 protected:
  void SetUp() override {
    HostFaultsTest::SetUp();
#ifdef __SANITIZE_ADDRESS__
    // The sanitizer runtime opens a pipe to check memory before each vptr
    // check, and reports a false error when no descriptor is left for it.
    GTEST_SKIP() << "needs the normal build";
#endif
    InstallMany(Base("base"), "File", 3);
    Init({Base("base").string()});
    // A first listing loads the PKCS#11 module, which then stays loaded.
    const auto records = List();
    ASSERT_EQ(records.size(), 3u) << rec().Dump();
    X509_Auth_Free(records[0]);
  }
  std::string Certs() const { return (Base("base") / "certs").string(); }
};

TEST_F(HostDescriptorTest, NoDescriptorLeftEndsTheScanWithTheDirectoryError) {
  const std::string report = RunInChild([] { return ListWithSpareDescriptors(0); });
  EXPECT_EQ(report,
            "listed 0\nfilesystem error: directory iterator cannot open directory: Too "
            "many open files [" +
                Certs() + "]\nthen listed 3");
}

TEST_F(HostDescriptorTest, OneDescriptorLeftEndsTheScanAtTheFirstCertificateFile) {
  const std::string report = RunInChild([] { return ListWithSpareDescriptors(1); });
  ASSERT_EQ(report.rfind("listed 0\nfilesystem error: cannot open certificate file: Too many "
                         "open files [" +
                             Certs() + "/c",
                         0),
            0u)
      << report;
  EXPECT_NE(report.find(".pem]\nthen listed 3"), std::string::npos) << report;
  EXPECT_EQ(report.find("descriptors"), std::string::npos) << report;
}

TEST_F(HostFaultsTest, CertsDirectoryRemovedOrReplacedDuringScansNeverBreaksAListing) {
  // Two folders trade places with "certs" and with nothing while the host
  // lists: every listing must return, with only certificates of the two.
  InstallMany(Base("one"), "One", 30);
  InstallMany(Base("two"), "Two", 5);
  const fs::path certs = Base("base") / "certs";
  fs::create_directories(Base("base") / "keys");
  fs::rename(Base("one") / "certs", certs);
  Init({Base("base").string()}, {}, X509_Auth_Callbacks{nullptr, nullptr, nullptr, nullptr});
  std::atomic<bool> stop{false};
  std::atomic<int> swaps{0};
  std::thread racer([&] {
    const fs::path aside = Base("base") / "aside";
    const fs::path other = Base("two") / "certs";
    std::error_code ignored;
    while (!stop.load()) {
      fs::rename(certs, aside, ignored);  // removed
      fs::rename(other, certs, ignored);  // replaced by another folder
      fs::rename(certs, other, ignored);  // removed again
      fs::rename(aside, certs, ignored);  // back
      swaps.fetch_add(1);
    }
  });
  std::set<uint64_t> counts;
  bool names_ok = true;
  for (int i = 0; i < 60; ++i) {
    uint64_t count = 0;
    const X509_Auth_Certificate* list = nullptr;
    if (!X509_Auth_LoadClientCertificates(&count, &list)) continue;
    counts.insert(count);
    for (uint64_t c = 0; c < count; ++c) {
      const std::string name = list[c].name;
      names_ok &= name.rfind("One ", 0) == 0 || name.rfind("Two ", 0) == 0;
    }
    X509_Auth_Free(list);
  }
  stop.store(true);
  racer.join();
  EXPECT_TRUE(names_ok);
  EXPECT_GT(swaps.load(), 0);
  for (uint64_t count : counts) EXPECT_LE(count, 30u);
  std::printf("[ race ] %d swaps; %zu distinct listing sizes\n", swaps.load(), counts.size());
}

// A key file swapped for something that is no key file after the listing:
// the request fails with the key-open code and the key reader's own line,
// and returns (bounded by the child's alarm) instead of blocking.
class HostKeyFileReplacedTest : public HostFaultsTest {
 protected:
  void SetUp() override {
    HostFaultsTest::SetUp();
    cert_ = MakeClientCert("Replaced Key", key_.get());
    InstallFileCert(Base("base"), "k.pem", cert_.get(), key_.get());
    key_path_ = Base("base") / "keys" / "k.pem.key";
    Init({Base("base").string()});
    const auto records = List();
    ASSERT_EQ(records.size(), 1u) << rec().Dump();
    X509_Auth_Free(records[0]);
    fs::remove(key_path_);
  }

  std::string SignInChild() {
    return RunInChild(
        [&] {
          const Bytes thumbprint = Sha1Thumbprint(cert_.get());
          const uint32_t algorithms[] = {2};
          const Bytes digest(32, 1);
          const X509_Auth_Signature* signature = nullptr;
          RecordingCallbacks::GetInstance().Reset();
          const X509_Auth_Result result =
              X509_Auth_SignHash(thumbprint.data(), 1, algorithms, X509_Auth_HashType_Sha256,
                                 digest.data(), &signature);
          std::string report = "code " + std::to_string(result.code) + "\n";
          for (const LogEntry& entry : RecordingCallbacks::GetInstance().Logs())
            if (entry.priority == X509_Auth_LogPriority_Error) report += entry.text + "\n";
          return report;
        },
        ChildOptions{false, 20});
  }

  TestX509 cert_;
  fs::path key_path_;
};

TEST_F(HostKeyFileReplacedTest, ByADanglingLinkIsAMissingKey) {
  fs::create_symlink(Base("base") / "gone.key", key_path_);
  EXPECT_EQ(SignInChild(),
            "code 4\nPrivate key file [" + key_path_.string() +
                "] does not exist\nError loading private key for file system cert: [" +
                (Base("base") / "certs" / "k.pem").string() +
                "]\nFailed to open private key for certificate (error: 1)\n");
}

TEST_F(HostKeyFileReplacedTest, ByADirectoryFailsToParseWithoutReadingIt) {
  fs::create_directory(key_path_);
  const std::string report = SignInChild();
  EXPECT_EQ(report.rfind("code 4\n", 0), 0u) << report;
  EXPECT_NE(report.find("Failed to parse private key file [" + key_path_.string() + "]\n"),
            std::string::npos)
      << report;
}

TEST_F(HostKeyFileReplacedTest, ByAFifoFailsToParseWithoutWaitingForAWriter) {
  ASSERT_EQ(mkfifo(key_path_.c_str(), 0600), 0);
  const std::string report = SignInChild();
  EXPECT_EQ(report, "code 4\nFailed to parse private key file [" + key_path_.string() +
                        "]\nError loading private key for file system cert: [" +
                        (Base("base") / "certs" / "k.pem").string() +
                        "]\nFailed to open private key for certificate (error: 1)\n");
}

TEST_F(HostKeyFileReplacedTest, ByAFileNobodyMayReadIsReportedByBothReaders) {
  // Root reads anything, so the request runs as nobody.
  WriteFile(key_path_, KeyToPem(key_.get()));
  fs::permissions(key_path_, fs::perms::owner_read | fs::perms::owner_write);
  fs::permissions(temp_.path(),
                  fs::perms::owner_all | fs::perms::others_exec | fs::perms::group_exec);
  const std::string report = RunInChild(
      [&] {
        if (setresgid(k_nobody, k_nobody, k_nobody) != 0 ||
            setresuid(k_nobody, k_nobody, k_nobody) != 0)
          return std::string("could not drop privileges");
        const Bytes thumbprint = Sha1Thumbprint(cert_.get());
        const uint32_t algorithms[] = {2};
        const Bytes digest(32, 1);
        const X509_Auth_Signature* signature = nullptr;
        RecordingCallbacks::GetInstance().Reset();
        const X509_Auth_Result result = X509_Auth_SignHash(
            thumbprint.data(), 1, algorithms, X509_Auth_HashType_Sha256, digest.data(), &signature);
        std::string text = "code " + std::to_string(result.code) + "\n";
        for (const LogEntry& entry : RecordingCallbacks::GetInstance().Logs())
          if (entry.format.rfind("Could not open private key", 0) == 0 ||
              entry.format.rfind("Failed to parse", 0) == 0)
            text += entry.text + "\n";
        return text;
      },
      ChildOptions{false, 20});
  const std::string denied = "Could not open private key file [" + key_path_.string() +
                             "]. Error message [Permission denied]\n";
  EXPECT_EQ(report, "code 4\n" + denied + denied + "Failed to parse private key file [" +
                        key_path_.string() + "]\n");
}

}  // namespace
}  // namespace x509auth_test
