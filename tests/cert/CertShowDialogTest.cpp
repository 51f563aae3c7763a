#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "CertTestSupport.h"
#include "TestPki.h"
#include "ViewerTestDirectory.h"

namespace quorvant::shared::x509::test {
namespace {

namespace fs = std::filesystem;
using x509auth_test::KeyKind;

// Runs every test with TMPDIR and PATH pointing into a test directory, where
// a stand-in viewer records its arguments and copies the file it was given.
class CertShowDialogTest : public ViewerTest {
 protected:
  void SetUp() override {
    const std::string record = (tmp_ / "record").string();
    SetUpViewer(
        // Two viewers started in the same instant each claim their own number
        // (mkdir is atomic), or both would write the same record files.
        "#!/bin/sh\n"
        "n=0\n"
        "while ! mkdir '" +
            record +
            "'/.slot.$n 2>/dev/null; do n=$((n + 1)); done\n"
            "printf '%s\\n' \"$#\" \"$@\" > '" +
            record +
            "'/args.$n\n"
            "cp \"$1\" '" +
            record + "'/copy.$n\n",
        fs::perms::owner_all);
    fs::create_directories(tmp_ / "record");
    fs::create_directories(tmp_ / "empty-bin");
  }

  fs::path Record() const { return tmp_ / "record"; }
  // The log's one line of |k_name_failed|: an error saying |text|.
  void ExpectNameFailedLine(const std::string& text) const {
    const auto lines = recorder_->WithFormat(k_name_failed);
    ASSERT_EQ(lines.size(), 1u) << recorder_->Dump();
    EXPECT_EQ(lines[0].priority, X509_Auth_LogPriority_Error);
    EXPECT_EQ(lines[0].text, text);
  }
};

TEST_F(CertShowDialogTest, WritesOnePemFileAndStartsTheViewerOnIt) {
  const long before = NowSeconds();
  ASSERT_TRUE(Show()) << recorder_->Dump();
  const long after = NowSeconds();
  ASSERT_EQ(WaitForChild(), 0);

  ASSERT_TRUE(fs::is_directory(Folder()));
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(Folder())) files.push_back(entry.path());
  ASSERT_EQ(files.size(), 1u);
  const std::string name = files[0].filename().string();
  bool name_matches = false;
  for (long second = before; second <= after; ++second)
    name_matches |= name == "cert-" + std::to_string(second) + ".pem";
  EXPECT_TRUE(name_matches) << name;

  const std::string pem = x509auth_test::CertToPem(cert_.get());
  EXPECT_EQ(ReadText(files[0]), pem);
  EXPECT_EQ(ReadText(Record() / "args.0"), "1\n" + files[0].string() + "\n");
  EXPECT_EQ(ReadText(Record() / "copy.0"), pem);
  EXPECT_TRUE(recorder_->Logs().empty()) << recorder_->Dump();
}

TEST_F(CertShowDialogTest, SecondCallInTheSameSecondOverwritesTheFirstFile) {
  x509auth_test::TestKey other_key = x509auth_test::SharedKey(KeyKind::k_ec);
  x509auth_test::CertOptions options;
  options.common_name = "Second";
  x509auth_test::TestX509 second = x509auth_test::MakeCert(options, other_key.get());
  auto first_cert = MakeFileCert(&store_, cert_.get());
  auto second_cert = MakeFileCert(&store_, second.get());
  // Retry until both calls fall within one wall-clock second.
  for (int attempt = 0; attempt < 5; ++attempt) {
    fs::remove_all(Folder());
    fs::remove_all(Record());
    fs::create_directories(Record());
    const long before = NowSeconds();
    ASSERT_TRUE(first_cert->ShowDialog(nullptr));
    ASSERT_TRUE(second_cert->ShowDialog(nullptr));
    const long after = NowSeconds();
    EXPECT_EQ(WaitForChild(), 0);
    EXPECT_EQ(WaitForChild(), 0);
    if (before != after) continue;
    const fs::path file = Folder() / ("cert-" + std::to_string(before) + ".pem");
    std::size_t count = 0;
    for (auto it = fs::directory_iterator(Folder()); it != fs::directory_iterator(); ++it) ++count;
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(ReadText(file), x509auth_test::CertToPem(second.get()));
    // Both viewers were given the same path.
    for (const char* args : {"args.0", "args.1"}) {
      const std::string recorded = ReadText(Record() / args);
      EXPECT_TRUE(recorded.empty() || recorded == "1\n" + file.string() + "\n") << recorded;
    }
    return;
  }
  FAIL() << "could not make two calls within one second";
}

TEST_F(CertShowDialogTest, ExistingFolderIsReused) {
  fs::create_directories(Folder());
  x509auth_test::WriteFile(Folder() / "unrelated.txt", std::string("keep"));
  ASSERT_TRUE(Show());
  EXPECT_EQ(WaitForChild(), 0);
  EXPECT_EQ(ReadText(Folder() / "unrelated.txt"), "keep");
  std::size_t count = 0;
  for (auto it = fs::directory_iterator(Folder()); it != fs::directory_iterator(); ++it) ++count;
  EXPECT_EQ(count, 2u);
}

TEST_F(CertShowDialogTest, OpaqueHostPointerHasNoEffect) {
  int host_object = 0;
  ASSERT_TRUE(MakeFileCert(&store_, cert_.get())->ShowDialog(&host_object));
  EXPECT_EQ(WaitForChild(), 0);
  EXPECT_EQ(ReadText(Record() / "copy.0"), x509auth_test::CertToPem(cert_.get()));
  EXPECT_EQ(host_object, 0);
}

TEST_F(CertShowDialogTest, RegularFileNamedQuorvantFailsTheFolderCreation) {
  x509auth_test::WriteFile(Folder(), std::string("not a folder"));
  EXPECT_FALSE(Show());
  EXPECT_FALSE(HasChild());
  ExpectNameFailedLine(FolderRefusedText("cannot create directory: File exists"));
  EXPECT_EQ(recorder_->Logs().size(), 1u);
  EXPECT_EQ(ReadText(Folder()), "not a folder");
}

TEST_F(CertShowDialogTest, MissingTemporaryDirectoryFailsTheFileName) {
  setenv("TMPDIR", (tmp_ / "no-such-dir").c_str(), 1);
  EXPECT_FALSE(Show());
  EXPECT_FALSE(HasChild());
  ExpectNameFailedLine(
      "Error geting temporary filename for cert: [filesystem error: temp_directory_path: No "
      "such file or directory]");
}

TEST_F(CertShowDialogTest, UnopenableFileIsReportedWithItsPath) {
  // A directory where the file should go makes fopen fail, even for root.
  fs::create_directories(Folder());
  const long now = NowSeconds();
  for (long second = now; second <= now + 30; ++second)
    fs::create_directory(Folder() / ("cert-" + std::to_string(second) + ".pem"));
  EXPECT_FALSE(Show());
  EXPECT_FALSE(HasChild());
  const auto lines = recorder_->WithFormat("Error opening file [%s]");
  ASSERT_EQ(lines.size(), 1u) << recorder_->Dump();
  EXPECT_EQ(lines[0].priority, X509_Auth_LogPriority_Error);
  bool matches = false;
  for (long second = now; second <= now + 30; ++second)
    matches |= lines[0].text ==
               "Error opening file [" +
                   (Folder() / ("cert-" + std::to_string(second) + ".pem")).string() + "]";
  EXPECT_TRUE(matches) << lines[0].text;
}

TEST_F(CertShowDialogTest, ViewerThatCannotBeExecutedLeavesTheChildReturningFalse) {
  setenv("PATH", (tmp_ / "empty-bin").c_str(), 1);
  const pid_t parent = getpid();
  const bool result = Show();
  if (getpid() != parent) {
    // The child carries on here. It checks its own outcome and leaves at once,
    // so the test process is not duplicated.
    const bool logged =
        recorder_->Has(X509_Auth_LogPriority_Error, "error calling execv for [%s]: [%s]",
                       "error calling execv for [gcr-viewer]: [No such file or directory]") &&
        recorder_->Logs().size() == 1;
    _exit(!result && logged ? 42 : 43);
  }
  EXPECT_TRUE(result);
  EXPECT_EQ(WaitForChild(), 42);
  EXPECT_TRUE(recorder_->Logs().empty()) << recorder_->Dump();
  // The file was still written for the viewer.
  std::size_t count = 0;
  for (auto it = fs::directory_iterator(Folder()); it != fs::directory_iterator(); ++it) ++count;
  EXPECT_EQ(count, 1u);
}

}  // namespace
}  // namespace quorvant::shared::x509::test
