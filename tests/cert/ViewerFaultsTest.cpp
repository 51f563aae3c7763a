// The viewer's folder and file under a hostile or broken temporary
// directory: planted links, another user's folder or file, a read-only or
// full disk, and no process left to fork.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "CertTestSupport.h"
#include "ForkedChild.h"
#include "TestPki.h"
#include "ViewerTestDirectory.h"

namespace quorvant::shared::x509::test {
namespace {

namespace fs = std::filesystem;
using x509auth_test::ChildOptions;
using x509auth_test::k_nobody;
using x509auth_test::RunInChild;

class ViewerFaultsTest : public ViewerTest {
 protected:
  void SetUp() override {
    // A stand-in viewer that does nothing: only whether it starts matters.
    SetUpViewer("#!/bin/sh\nexit 0\n", fs::perms::all);
    // nobody must reach the test directories for the children that drop root.
    fs::permissions(tmp_.path(), fs::perms::owner_all | fs::perms::group_read |
                                     fs::perms::group_exec | fs::perms::others_read |
                                     fs::perms::others_exec);
  }

  // The outcome, then every log line; for calls made in a child.
  std::string ShowAndDump() {
    const bool shown = Show();
    return std::string(shown ? "shown\n" : "refused\n") + recorder_->Dump();
  }

  // Plants |make| at every file name the next 30 seconds could give.
  template <class Make>
  void PlantFileNames(Make make) {
    const long now = NowSeconds();
    for (long second = now; second <= now + 30; ++second)
      make(Folder() / ("cert-" + std::to_string(second) + ".pem"));
  }
};

TEST_F(ViewerFaultsTest, FolderPlantedAsLinkToAnotherDirectoryIsRefusedAndNothingIsWritten) {
  fs::create_directories(tmp_ / "elsewhere");
  fs::create_directory_symlink(tmp_ / "elsewhere", Folder());
  EXPECT_FALSE(Show());
  EXPECT_FALSE(HasChild());
  EXPECT_TRUE(fs::is_empty(tmp_ / "elsewhere"));
  EXPECT_TRUE(recorder_->Has(
      X509_Auth_LogPriority_Error, k_name_failed,
      FolderRefusedText("viewer folder is a symbolic link: Too many levels of symbolic links")))
      << recorder_->Dump();
  EXPECT_EQ(recorder_->Logs().size(), 1u) << recorder_->Dump();
}

TEST_F(ViewerFaultsTest, DanglingLinkAsFolderIsRefusedAndItsTargetNotCreated) {
  fs::create_directory_symlink(tmp_ / "not-yet", Folder());
  EXPECT_FALSE(Show());
  EXPECT_FALSE(fs::exists(tmp_ / "not-yet"));
  EXPECT_EQ(recorder_->WithFormat(k_name_failed).size(), 1u) << recorder_->Dump();
}

TEST_F(ViewerFaultsTest, FolderOfAnotherUserIsRefusedAndNothingIsWritten) {
  fs::create_directories(Folder());
  ASSERT_EQ(chown(Folder().c_str(), k_nobody, k_nobody), 0);
  EXPECT_FALSE(Show());
  EXPECT_FALSE(HasChild());
  EXPECT_TRUE(fs::is_empty(Folder()));
  EXPECT_TRUE(
      recorder_->Has(X509_Auth_LogPriority_Error, k_name_failed,
                     FolderRefusedText("viewer folder belongs to another user: Permission denied")))
      << recorder_->Dump();
}

TEST_F(ViewerFaultsTest, FilePlantedAsLinkIsNotWrittenThrough) {
  fs::create_directories(Folder());
  x509auth_test::WriteFile(tmp_ / "victim", std::string("keep me"));
  PlantFileNames([&](const fs::path& name) { fs::create_symlink(tmp_ / "victim", name); });
  EXPECT_FALSE(Show());
  EXPECT_FALSE(HasChild());
  EXPECT_EQ(ReadText(tmp_ / "victim"), "keep me");
  EXPECT_EQ(recorder_->WithFormat("Error opening file [%s]").size(), 1u) << recorder_->Dump();
  EXPECT_EQ(recorder_->Logs().size(), 1u) << recorder_->Dump();
}

TEST_F(ViewerFaultsTest, FileOfAnotherUserIsNeitherTruncatedNorWritten) {
  fs::create_directories(Folder());
  PlantFileNames([&](const fs::path& name) {
    x509auth_test::WriteFile(name, std::string("theirs"));
    ASSERT_EQ(chown(name.c_str(), k_nobody, k_nobody), 0);
  });
  EXPECT_FALSE(Show());
  EXPECT_FALSE(HasChild());
  for (const auto& entry : fs::directory_iterator(Folder()))
    EXPECT_EQ(ReadText(entry.path()), "theirs") << entry.path();
  EXPECT_EQ(recorder_->WithFormat("Error opening file [%s]").size(), 1u) << recorder_->Dump();
}

TEST_F(ViewerFaultsTest, FifoPlantedAsFileIsRefusedWithoutWaitingForAReader) {
  fs::create_directories(Folder());
  PlantFileNames([&](const fs::path& name) { ASSERT_EQ(mkfifo(name.c_str(), 0666), 0); });
  // Bounded: a blocking open would hang the child until its alarm.
  const std::string report = RunInChild([&] { return ShowAndDump(); }, ChildOptions{false, 20});
  EXPECT_EQ(report.rfind("refused\n", 0), 0u) << report;
  EXPECT_NE(report.find("Error opening file ["), std::string::npos) << report;
}

TEST_F(ViewerFaultsTest, ExistingOwnFileIsStillReplacedAsBefore) {
  fs::create_directories(Folder());
  PlantFileNames([&](const fs::path& name) { x509auth_test::WriteFile(name, std::string("old")); });
  ASSERT_TRUE(Show()) << recorder_->Dump();
  bool replaced = false;
  const std::string pem = x509auth_test::CertToPem(cert_.get());
  for (const auto& entry : fs::directory_iterator(Folder()))
    replaced |= ReadText(entry.path()) == pem;
  EXPECT_TRUE(replaced);
  EXPECT_TRUE(recorder_->Logs().empty()) << recorder_->Dump();
}

TEST_F(ViewerFaultsTest, ReadOnlyTemporaryDirectoryFailsTheFolderCreation) {
  // Root ignores permission bits, so the call runs as nobody.
  fs::permissions(tmp_ / "tmp", fs::perms::owner_all | fs::perms::group_read |
                                    fs::perms::group_exec | fs::perms::others_read |
                                    fs::perms::others_exec);
  const std::string report = RunInChild([&] { return ShowAndDump(); }, ChildOptions{true, 20});
  EXPECT_EQ(report, "refused\n3 | " +
                        FolderRefusedText("cannot create directory: Permission denied") + "\n");
  EXPECT_FALSE(fs::exists(Folder()));
}

TEST_F(ViewerFaultsTest, FullDiskFailsTheWriteAndStartsNoViewer) {
  // RLIMIT_FSIZE 0 makes every write of file data fail with EFBIG, as a full
  // disk fails with ENOSPC, without needing a mount.
  const std::string report = RunInChild(
      [&] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{0, 0};
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return std::string("setrlimit failed");
        const bool shown = Show();
        return std::string(shown ? "shown\n" : "refused\n") + (HasChild() ? "child\n" : "") +
               recorder_->Dump();
      },
      ChildOptions{false, 20});
  ASSERT_EQ(report.rfind("refused\n3 | Error writing cert to temporary file: [", 0), 0u) << report;
  EXPECT_NE(report.find("]. Error: [0]\n"), std::string::npos) << report;
  EXPECT_EQ(std::count(report.begin(), report.end(), '\n'), 2) << report;
}

TEST_F(ViewerFaultsTest, ForkFailureIsLoggedAndReturnsFalse) {
  // Without processes left to the user, fork fails with EAGAIN; root is not
  // bound by RLIMIT_NPROC, so the call runs as nobody.
  fs::permissions(tmp_ / "tmp", fs::perms::all);
  const std::string report = RunInChild(
      [&] {
        const rlimit limit{0, 0};
        if (setrlimit(RLIMIT_NPROC, &limit) != 0) return std::string("setrlimit failed");
        return ShowAndDump();
      },
      ChildOptions{true, 20});
  EXPECT_EQ(report, "refused\n3 | error forking process: [Resource temporarily unavailable]\n");
  // The file was written before the fork, in nobody's own folder.
  EXPECT_FALSE(fs::is_empty(Folder()));
}

}  // namespace
}  // namespace quorvant::shared::x509::test
