// Files put in the users' folders in place of a certificate or a key: a
// FIFO, a device reached through a link, a 2 GB file, and a FIFO swapped in
// between the library's look at a file and its open. Every listing and
// signature returns (each run is bounded by a child's alarm) with its
// defined result, and a file too large is named in one line.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <set>
#include <thread>

#include "ChildProcess.h"
#include "ForkedChild.h"
#include "HostFixture.h"

namespace x509auth_test {
namespace {

namespace fs = std::filesystem;

constexpr off_t k_two_gigabytes = 2LL * 1024 * 1024 * 1024;

// A sparse file of |size| bytes: no disk space, but a reader that trusted
// its size would allocate and read all of it.
void MakeSparseFile(const fs::path& path, off_t size) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0) << path;
  ASSERT_EQ(ftruncate(fd, size), 0);
  close(fd);
}

class HostPlantedFilesTest : public HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    key_ = SharedKey(KeyKind::k_ec, 2);
    kept_ = MakeClientCert("Kept", key_.get());
    victim_ = MakeClientCert("Victim", key_.get());
    InstallFileCert(Base("base"), "kept.pem", kept_.get(), key_.get());
    InstallFileCert(Base("base"), "victim.pem", victim_.get(), key_.get());
    certs_ = Base("base") / "certs";
    key_path_ = Base("base") / "keys" / "victim.pem.key";
    Init({Base("base").string()});
    // A first listing loads the PKCS#11 module, which then stays loaded, so
    // that the children's requests find it loaded.
    ASSERT_EQ(ListedNames(), "Kept,Victim");
  }

  // The names listed, sorted (the order is the directory's), or "failed".
  static std::string ListedNames() {
    uint64_t count = 0;
    const X509_Auth_Certificate* list = nullptr;
    if (!X509_Auth_LoadClientCertificates(&count, &list)) return "failed";
    std::set<std::string> sorted;
    for (uint64_t i = 0; i < count; ++i) sorted.insert(list[i].name);
    X509_Auth_Free(list);
    std::string names;
    for (const std::string& name : sorted) names += (names.empty() ? "" : ",") + name;
    return names;
  }

  // One listing in a child bounded by an alarm: the names it gave and the
  // warning lines naming a certificate file.
  std::string ListInChild() const {
    return RunInChild(
        [] {
          RecordingCallbacks::GetInstance().Reset();
          std::string report = ListedNames() + "\n";
          for (const LogEntry& entry : RecordingCallbacks::GetInstance().Logs())
            if (entry.text.find("certs/victim.pem") != std::string::npos)
              report += std::to_string(entry.priority) + " " + entry.text + "\n";
          return report;
        },
        ChildOptions{false, 30});
  }

  // Signs with the victim's key; the code and the error lines, and whether a
  // signature that was made verifies.
  std::string SignOnce() const {
    const Bytes thumbprint = Sha1Thumbprint(victim_.get());
    const uint32_t algorithms[] = {X509_Auth_Algorithm_Ec};
    const Bytes digest = DigestOf(X509_Auth_HashType_Sha256, "planted");
    const X509_Auth_Signature* signature = nullptr;
    RecordingCallbacks::GetInstance().Reset();
    const X509_Auth_Result result = X509_Auth_SignHash(
        thumbprint.data(), 1, algorithms, X509_Auth_HashType_Sha256, digest.data(), &signature);
    std::string report = "code " + std::to_string(result.code) + "\n";
    if (result.code == X509_Auth_ResultCode_Success) {
      const bool verifies =
          signature != nullptr && VerifiesWithCertificate(victim_.get(), EVP_sha256(), digest,
                                                          signature->data, signature->length);
      X509_Auth_Free(signature);
      if (!verifies) report += "signature does not verify\n";
    }
    for (const LogEntry& entry : RecordingCallbacks::GetInstance().Logs())
      if (entry.priority == X509_Auth_LogPriority_Error) report += entry.text + "\n";
    return report;
  }

  std::string SignInChild() const {
    return RunInChild([this] { return SignOnce(); }, ChildOptions{false, 30});
  }

  // What a failed key open reports after the key reader's own lines.
  std::string KeyOpenFailure() const {
    return "Failed to parse private key file [" + key_path_.string() +
           "]\nError loading private key for file system cert: [" +
           (certs_ / "victim.pem").string() +
           "]\nFailed to open private key for certificate (error: 1)\n";
  }

  // Replaces |target| by |first| and |second| in turn, each time through a
  // hard link renamed over it, until told to stop; counts the swaps.
  static void Swap(const fs::path& first, const fs::path& second, const fs::path& target,
                   const std::atomic<bool>& stop, std::atomic<int>& swaps) {
    const fs::path staging = target.string() + ".next";
    for (bool odd = false; !stop.load(); odd = !odd) {
      ::unlink(staging.c_str());
      if (::link((odd ? second : first).c_str(), staging.c_str()) == 0 &&
          ::rename(staging.c_str(), target.c_str()) == 0)
        ++swaps;
    }
  }

  TestKey key_;
  TestX509 kept_, victim_;
  fs::path certs_, key_path_;
};

TEST_F(HostPlantedFilesTest, FifoAsCertificateFileIsSkippedAndTheOthersAreListed) {
  fs::remove(certs_ / "victim.pem");
  ASSERT_EQ(mkfifo((certs_ / "victim.pem").c_str(), 0600), 0);
  EXPECT_EQ(ListInChild(), "Kept\n");
}

TEST_F(HostPlantedFilesTest, LinkToDevZeroAsCertificateFileIsSkippedAndTheOthersAreListed) {
  fs::remove(certs_ / "victim.pem");
  fs::create_symlink("/dev/zero", certs_ / "victim.pem");
  EXPECT_EQ(ListInChild(), "Kept\n");
}

TEST_F(HostPlantedFilesTest, TwoGigabyteCertificateFileIsSkippedWithOneWarningNamingIt) {
  MakeSparseFile(certs_ / "victim.pem", k_two_gigabytes);
  const std::string line = std::to_string(X509_Auth_LogPriority_Warning) +
                           " Skipping certificate file [" + (certs_ / "victim.pem").string() +
                           "]: larger than 4 MiB (2147483648 bytes)\n";
  EXPECT_EQ(ListInChild(), "Kept\n" + line);
  // Every listing names it again, also when the directory is unchanged.
  EXPECT_EQ(ListInChild(), "Kept\n" + line);
}

TEST_F(HostPlantedFilesTest, FifoAsKeyFileFailsTheSignatureWithTheKeyOpenCode) {
  fs::remove(key_path_);
  ASSERT_EQ(mkfifo(key_path_.c_str(), 0600), 0);
  EXPECT_EQ(SignInChild(), "code 4\n" + KeyOpenFailure());
}

TEST_F(HostPlantedFilesTest, LinkToDevZeroAsKeyFileFailsTheSignatureWithTheKeyOpenCode) {
  fs::remove(key_path_);
  fs::create_symlink("/dev/zero", key_path_);
  EXPECT_EQ(SignInChild(), "code 4\n" + KeyOpenFailure());
}

TEST_F(HostPlantedFilesTest, TwoGigabyteKeyFileFailsTheSignatureWithOneLineNamingIt) {
  MakeSparseFile(key_path_, k_two_gigabytes);
  EXPECT_EQ(SignInChild(), "code 4\nCould not open private key file [" + key_path_.string() +
                               "]. Error message [larger than 4 MiB (2147483648 bytes)]\n" +
                               KeyOpenFailure());
}

TEST_F(HostPlantedFilesTest, CertificateFileSwappedWithAFifoWhileListingNeverBlocksAListing) {
  const fs::path regular = Base("spare") / "victim.pem";
  const fs::path fifo = Base("spare") / "fifo";
  fs::create_directories(Base("spare"));
  fs::copy_file(certs_ / "victim.pem", regular);
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  // 300 listings in one child, its alarm ending it if one of them blocks.
  const std::string report = RunInChild(
      [&] {
        std::atomic<bool> stop{false};
        std::atomic<int> swaps{0};
        std::thread racer(Swap, regular, fifo, certs_ / "victim.pem", std::cref(stop),
                          std::ref(swaps));
        int with_victim = 0, without_victim = 0;
        std::string unexpected;
        for (int i = 0; i < 300; ++i) {
          const std::string names = ListedNames();
          if (names == "Kept,Victim")
            ++with_victim;
          else if (names == "Kept")
            ++without_victim;
          else
            unexpected += names + "\n";
        }
        stop.store(true);
        racer.join();
        std::printf("[ race ] %d swaps; %d listings with the file, %d without\n", swaps.load(),
                    with_victim, without_victim);
        std::fflush(stdout);
        return "listed " + std::to_string(with_victim + without_victim) + "\n" + unexpected +
               (swaps.load() > 0 ? "" : "never swapped\n");
      },
      ChildOptions{false, 100});
  EXPECT_EQ(report, "listed 300\n");
}

TEST_F(HostPlantedFilesTest, KeyFileSwappedWithAFifoWhileSigningNeverBlocksASignature) {
  const fs::path regular = Base("spare") / "victim.pem.key";
  const fs::path fifo = Base("spare") / "fifo";
  fs::create_directories(Base("spare"));
  fs::copy_file(key_path_, regular);
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::string failed = "code 4\n" + KeyOpenFailure();
  // 200 signatures in one child, its alarm ending it if one of them blocks.
  const std::string report = RunInChild(
      [&] {
        std::atomic<bool> stop{false};
        std::atomic<int> swaps{0};
        std::thread racer(Swap, regular, fifo, key_path_, std::cref(stop), std::ref(swaps));
        int signed_count = 0, refused = 0;
        std::string unexpected;
        for (int i = 0; i < 200; ++i) {
          const std::string outcome = SignOnce();
          if (outcome == "code 0\n")
            ++signed_count;
          else if (outcome == failed)
            ++refused;
          else
            unexpected += outcome;
        }
        stop.store(true);
        racer.join();
        std::printf("[ race ] %d swaps; %d signed, %d refused\n", swaps.load(), signed_count,
                    refused);
        std::fflush(stdout);
        return "returned " + std::to_string(signed_count + refused) + "\n" + unexpected +
               (swaps.load() > 0 ? "" : "never swapped\n");
      },
      ChildOptions{false, 100});
  EXPECT_EQ(report, "returned 200\n");
}

// A host installed set-user-ID takes no settings from its caller's
// environment: HOME, which names the directories below it, is not read.
class HostSetUidTest : public HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    if (geteuid() != 0) GTEST_SKIP() << "needs root to make a set-user-ID program";
    const TestKey key = SharedKey(KeyKind::k_ec, 3);
    InstallFileCert(home_ / "rel", "mine.pem", MakeClientCert("Mine", key.get()).get(), key.get());
    // The caller (nobody) reaches the probe, its working directory and HOME.
    fs::permissions(temp_.path(),
                    fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec);
    fs::create_directories(Base("probe"));
    fs::copy_file(HOME_PROBE_PATH, Base("probe") / "plain");
    fs::copy_file(HOME_PROBE_PATH, Base("probe") / "setuid");
    ASSERT_EQ(chown((Base("probe") / "setuid").c_str(), 0, 0), 0);
    ASSERT_EQ(chmod((Base("probe") / "setuid").c_str(), 04755), 0);
  }

  // Runs the probe |name| as nobody, with HOME set, in the working directory.
  std::string RunProbeAsNobody(const std::string& name) const {
    const std::string program = (Base("probe") / name).string();
    return RunInChild(
        [&] {
          ChildRun run;
          run.argv = {program, "rel"};
          run.cwd = work_.string();
          run.env = {{"HOME", home_.string()}};
          const ChildResult result = RunChild(run);
          return "status " + std::to_string(result.status) + ": " + result.out + result.err;
        },
        ChildOptions{true, 60});
  }
};

TEST_F(HostSetUidTest, HomeIsReadByAPlainHostRunAsItsCaller) {
  EXPECT_EQ(RunProbeAsNobody("plain"), "status 0: listed 1, HOME read\n");
}

TEST_F(HostSetUidTest, HomeIsNotReadByASetUserIdHost) {
  EXPECT_EQ(RunProbeAsNobody("setuid"), "status 0: listed 0, HOME unread\n");
}

}  // namespace
}  // namespace x509auth_test
