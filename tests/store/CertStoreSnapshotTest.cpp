// A scan of an unchanged "certs" directory is taken from what the previous
// scan found, and every kind of change between two scans is still seen by the
// second: each case compares the scan with a full one made with nothing kept.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "ForkedChild.h"
#include "StoreTestSupport.h"
#include "files/CertificateFileCache.h"
#include "files/DirectorySnapshots.h"

namespace quorvant::shared::x509::test {
namespace {

using x509auth_test::WriteFile;

// Files changed within the last second are looked at again on every scan:
// the cases below make sure theirs are not.
void Settle() { std::this_thread::sleep_for(std::chrono::milliseconds(1100)); }

class SnapshotTest : public StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    DirectorySnapshots::GetInstance().Clear();
    base_ = tmp_ / "base";
    fs::create_directories(base_ / "certs");
    fs::create_directories(base_ / "keys");
    fs::create_directories(tmp_ / "outside");
    // Same-length certificates, so that a rewrite in place keeps the size.
    pem_ = x509auth_test::PemsOfOneLength({"Alpha", "Bravo", "Gamma", "Delta"},
                                          [](const std::string& name) { return NamedCert(name); });
    ASSERT_EQ(pem_.size(), 4u) << "no common PEM length";
  }
  void TearDown() override {
    DirectorySnapshots::GetInstance().Clear();
    StoreTest::TearDown();
  }

  // Each certificate's name, file and key path, in scan order, and the log.
  std::string Scan() {
    recorder_->Reset();
    CertStore store;
    EXPECT_EQ(store.Open(static_cast<ICertificateStore::CertStoreType>(1)), 0u);
    recorder_->Reset();
    store.LoadFileStoreCertsFromPath(base_);
    std::string found;
    for (const auto& cert : store.Certificates()) {
      const CertFileContext& context = FileContext(cert);
      found += cert->Name() + " " + context.cert_path.filename().string() + " " +
               context.key_path.string() + "\n";
    }
    return found + recorder_->Dump();
  }
  // The same with nothing kept from earlier scans. Two more scans follow,
  // so that the directory is watched again and the next scan may come from
  // a snapshot.
  std::string FullScan() {
    DirectorySnapshots::GetInstance().Clear();
    CertificateFileCache::GetInstance().Clear();
    const std::string found = Scan();
    Warm();
    return found;
  }
  // Scans until the directory is watched and its snapshot kept.
  void Warm() {
    for (unsigned i = 0; i < DirectorySnapshots::k_unwatched_scans; ++i) Scan();
  }
  // A scan that must have been taken from the snapshot: no file was looked up.
  std::string ScanFromSnapshot() {
    const std::uint64_t hits = CertificateFileCache::GetInstance().Hits();
    const std::string found = Scan();
    EXPECT_EQ(CertificateFileCache::GetInstance().Hits(), hits) << "files were looked at again";
    return found;
  }
  // Rewrites |path| in place with |pem|, giving it back its times, so that
  // only a report from the directory tells the change.
  static void RewriteKeepingTimes(const fs::path& path, const std::string& pem) {
    struct stat before {};
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    const int file = open(path.c_str(), O_WRONLY);
    ASSERT_GE(file, 0);
    ASSERT_EQ(pwrite(file, pem.data(), pem.size(), 0), static_cast<ssize_t>(pem.size()));
    close(file);
    const timespec times[2] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  }
  // Starts from two settled files, scanned until the next scan comes from
  // the snapshot.
  void Start() {
    WriteFile(base_ / "certs" / "a.pem", pem_["Alpha"]);
    WriteFile(base_ / "certs" / "b.pem", pem_["Bravo"]);
    Settle();
    first_ = Scan();
    EXPECT_EQ(DirectorySnapshots::GetInstance().Size(), 0u) << "watched from the first scan";
    Warm();
    ASSERT_EQ(DirectorySnapshots::GetInstance().Size(), 1u);
    ASSERT_EQ(ScanFromSnapshot(), first_);
  }
  // Adds b.pem beside what the test planted, lets both settle, and scans
  // until the directory is watched, the scans' results unchecked.
  void SettleWithBravo() {
    WriteFile(base_ / "certs" / "b.pem", pem_["Bravo"]);
    Settle();
    Scan();
    Warm();
  }
  // The scan now, which must equal a full scan and hold |expected|.
  void ExpectSeen(const std::string& expected) {
    const std::string found = Scan();
    EXPECT_NE(found.find(expected), std::string::npos) << found;
    EXPECT_EQ(found, FullScan());
  }

  fs::path base_;
  std::map<std::string, std::string> pem_;
  std::string first_;
};

TEST_F(SnapshotTest, AnUnchangedDirectoryIsTakenFromTheSnapshotWithTheSameResult) {
  Start();
  EXPECT_NE(first_.find("Alpha a.pem " + (base_ / "keys" / "a.pem.key").string()),
            std::string::npos)
      << first_;
  EXPECT_EQ(first_, FullScan());
  // A full scan keeps a new snapshot.
  EXPECT_EQ(DirectorySnapshots::GetInstance().Size(), 1u);
  EXPECT_EQ(ScanFromSnapshot(), first_);
}

TEST_F(SnapshotTest, TheFirstThreeScansOfADirectoryAreMadeWithoutAWatch) {
  WriteFile(base_ / "certs" / "a.pem", pem_["Alpha"]);
  Settle();
  const auto watches = [] {
    // inotify descriptors of this process: "anon_inode:inotify" links.
    int count = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
      std::error_code error;
      if (fs::read_symlink(entry.path(), error).string() == "anon_inode:inotify") ++count;
    }
    return count;
  };
  const std::string first = Scan();
  for (int i = 1; i < 3; ++i) EXPECT_EQ(Scan(), first);
  EXPECT_EQ(watches(), 0);
  EXPECT_EQ(DirectorySnapshots::GetInstance().Size(), 0u);
  EXPECT_EQ(Scan(), first);
  EXPECT_EQ(watches(), 1);
  EXPECT_EQ(DirectorySnapshots::GetInstance().Size(), 1u);
  EXPECT_EQ(ScanFromSnapshot(), first);
}

TEST_F(SnapshotTest, AFileRewrittenInPlaceWithItsTimesPutBackIsSeen) {
  Start();
  ASSERT_EQ(pem_["Alpha"].size(), pem_["Gamma"].size());
  RewriteKeepingTimes(base_ / "certs" / "a.pem", pem_["Gamma"]);
  ExpectSeen("Gamma a.pem");
}

TEST_F(SnapshotTest, FilesAddedRemovedAndRenamedAreSeen) {
  Start();
  WriteFile(base_ / "certs" / "c.pem", pem_["Gamma"]);
  ExpectSeen("Gamma c.pem");
  Settle();
  Scan();
  fs::remove(base_ / "certs" / "b.pem");
  const std::string removed = Scan();
  EXPECT_EQ(removed.find("Bravo"), std::string::npos) << removed;
  EXPECT_EQ(removed, FullScan());
  fs::rename(base_ / "certs" / "a.pem", base_ / "certs" / "renamed.pem");
  ExpectSeen("Alpha renamed.pem " + (base_ / "keys" / "renamed.pem.key").string());
}

TEST_F(SnapshotTest, AFileWrittenThroughADescriptorOpenedEarlierIsSeen) {
  WriteFile(base_ / "certs" / "a.pem", pem_["Alpha"]);
  const int file = open((base_ / "certs" / "a.pem").c_str(), O_WRONLY);
  ASSERT_GE(file, 0);
  SettleWithBravo();
  ASSERT_EQ(ScanFromSnapshot().find("Alpha"), 0u);
  ASSERT_EQ(pwrite(file, pem_["Delta"].data(), pem_["Delta"].size(), 0),
            static_cast<ssize_t>(pem_["Delta"].size()));
  close(file);
  ExpectSeen("Delta a.pem");
}

TEST_F(SnapshotTest, AHardLinkedFileWrittenThroughItsOtherNameIsSeen) {
  WriteFile(tmp_ / "outside" / "shared.pem", pem_["Alpha"]);
  fs::create_hard_link(tmp_ / "outside" / "shared.pem", base_ / "certs" / "a.pem");
  SettleWithBravo();
  Scan();
  // The report of this write goes to the other name's directory.
  RewriteKeepingTimes(tmp_ / "outside" / "shared.pem", pem_["Gamma"]);
  ExpectSeen("Gamma a.pem");
}

TEST_F(SnapshotTest, ALinkWhoseTargetIsRewrittenIsSeen) {
  WriteFile(tmp_ / "outside" / "target.pem", pem_["Alpha"]);
  fs::create_symlink(tmp_ / "outside" / "target.pem", base_ / "certs" / "link.pem");
  fs::create_symlink(tmp_ / "outside" / "later.pem", base_ / "certs" / "dangling.pem");
  SettleWithBravo();
  Scan();
  RewriteKeepingTimes(tmp_ / "outside" / "target.pem", pem_["Gamma"]);
  ExpectSeen("Gamma link.pem");
  // A dangling link whose target appears.
  WriteFile(tmp_ / "outside" / "later.pem", pem_["Delta"]);
  ExpectSeen("Delta dangling.pem");
}

TEST_F(SnapshotTest, ACertsDirectorySwappedForAnotherIsSeen) {
  Start();
  fs::create_directories(tmp_ / "other");
  WriteFile(tmp_ / "other" / "d.pem", pem_["Delta"]);
  Settle();
  fs::rename(base_ / "certs", tmp_ / "old-certs");
  fs::rename(tmp_ / "other", base_ / "certs");
  const std::string found = Scan();
  EXPECT_EQ(found.find("Alpha"), std::string::npos) << found;
  ExpectSeen("Delta d.pem");
}

TEST_F(SnapshotTest, AChangeMadeInAForkedChildIsSeenByTheChildAndTheParent) {
  Start();
  const std::string report = x509auth_test::RunInChild([&] {
    // The child must not take the parent's reports, nor trust its snapshot.
    RewriteKeepingTimes(base_ / "certs" / "b.pem", pem_["Delta"]);
    return Scan();
  });
  EXPECT_NE(report.find("Delta b.pem"), std::string::npos) << report;
  EXPECT_EQ(report.find("Bravo"), std::string::npos) << report;
  ExpectSeen("Delta b.pem");
}

TEST_F(SnapshotTest, LostReportsDropEverySnapshot) {
  Start();
  // More reports than the kernel queues: the rest are lost, the rewrite's
  // among them, and only the loss is reported.
  int queued = 16384;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> queued;
  WriteFile(base_ / "certs" / "noise1", std::string("x"));
  WriteFile(base_ / "certs" / "noise2", std::string("y"));
  for (int i = 0; i <= queued; ++i) {
    // Alternating, so that the kernel cannot merge them.
    const fs::path noise = base_ / "certs" / (i % 2 == 0 ? "noise1" : "noise2");
    ASSERT_EQ(utimensat(AT_FDCWD, noise.c_str(), nullptr, 0), 0);
  }
  RewriteKeepingTimes(base_ / "certs" / "a.pem", pem_["Gamma"]);
  ExpectSeen("Gamma a.pem");
}

TEST_F(SnapshotTest, ClearingStopsWatchingAndTheNextScanReadsEverything) {
  Start();
  DirectorySnapshots::GetInstance().Clear();
  EXPECT_EQ(DirectorySnapshots::GetInstance().Size(), 0u);
  const std::uint64_t hits = CertificateFileCache::GetInstance().Hits();
  EXPECT_EQ(Scan(), first_);
  EXPECT_EQ(CertificateFileCache::GetInstance().Hits(), hits + 2) << "both files looked up";
}

TEST_F(SnapshotTest, AFileTooLargeIsNamedOnEveryScanAlsoFromTheSnapshot) {
  WriteFile(base_ / "certs" / "a.pem", pem_["Alpha"]);
  const int file = open((base_ / "certs" / "huge.pem").c_str(), O_WRONLY | O_CREAT, 0600);
  ASSERT_GE(file, 0);
  ASSERT_EQ(ftruncate(file, 5 * 1024 * 1024), 0);
  close(file);
  Settle();
  const std::string first = Scan();
  const std::string line = "2 | Skipping certificate file [" +
                           (base_ / "certs" / "huge.pem").string() +
                           "]: larger than 4 MiB (5242880 bytes)";
  EXPECT_NE(first.find("Alpha a.pem"), std::string::npos) << first;
  EXPECT_NE(first.find(line), std::string::npos) << first;
  EXPECT_EQ(first.find(line), first.rfind(line)) << first;
  Warm();
  ASSERT_EQ(DirectorySnapshots::GetInstance().Size(), 1u);
  // Looked at again, opened and refused, and named again.
  EXPECT_EQ(Scan(), first);
  EXPECT_EQ(first, FullScan());
}

TEST_F(SnapshotTest, AFifoRenamedOverAKeptFileIsSkippedAndTheFileFoundAgainWhenBack) {
  Start();
  const fs::path fifo = tmp_ / "outside" / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  ASSERT_EQ(rename((base_ / "certs" / "a.pem").c_str(), (tmp_ / "outside" / "a.pem").c_str()), 0);
  ASSERT_EQ(rename(fifo.c_str(), (base_ / "certs" / "a.pem").c_str()), 0);
  const std::string with_fifo =
      x509auth_test::RunInChild([&] { return Scan(); }, x509auth_test::ChildOptions{false, 20});
  EXPECT_EQ(with_fifo.find("Alpha"), std::string::npos) << with_fifo;
  EXPECT_NE(with_fifo.find("Bravo b.pem"), std::string::npos) << with_fifo;
  ASSERT_EQ(rename((tmp_ / "outside" / "a.pem").c_str(), (base_ / "certs" / "a.pem").c_str()), 0);
  ExpectSeen("Alpha a.pem");
}

}  // namespace
}  // namespace quorvant::shared::x509::test
