#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "CertTestSupport.h"
#include "TestPki.h"

namespace quorvant::shared::x509 {
namespace {

namespace fs = std::filesystem;
using test::MakeFileCert;
using test::X509OnlyStore;
using x509auth_test::KeyKind;

constexpr const char* k_name_failed = "Error geting temporary filename for cert: [%s]";

long NowSeconds() {
  return static_cast<long>(std::chrono::duration_cast<std::chrono::seconds>(
                               std::chrono::system_clock::now().time_since_epoch())
                               .count());
}

std::string ReadText(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Exit status of the one child the test started, or -1.
int WaitForChild() {
  int status = 0;
  if (waitpid(-1, &status, 0) <= 0) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool HasChild() {
  int status = 0;
  return waitpid(-1, &status, WNOHANG) != -1;
}

// Runs every test with TMPDIR and PATH pointing into a test directory, where
// a stand-in viewer records its arguments and copies the file it was given.
class CertShowDialogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    recorder_ = &test::InstallRecorder();
    saved_path_ = std::getenv("PATH") ? std::getenv("PATH") : "";
    fs::create_directories(tmp_ / "tmp");
    fs::create_directories(tmp_ / "bin");
    fs::create_directories(tmp_ / "record");
    fs::create_directories(tmp_ / "empty-bin");
    const std::string record = (tmp_ / "record").string();
    x509auth_test::WriteFile(tmp_ / "bin" / "gcr-viewer",
                             // Two viewers started in the same instant each claim
                             // their own number (mkdir is atomic), or both would
                             // write the same record files.
                             "#!/bin/sh\n"
                             "n=0\n"
                             "while ! mkdir '" +
                                 record +
                                 "'/.slot.$n 2>/dev/null; do n=$((n + 1)); done\n"
                                 "printf '%s\\n' \"$#\" \"$@\" > '" +
                                 record +
                                 "'/args.$n\n"
                                 "cp \"$1\" '" +
                                 record + "'/copy.$n\n");
    fs::permissions(tmp_ / "bin" / "gcr-viewer", fs::perms::owner_all);
    setenv("TMPDIR", (tmp_ / "tmp").c_str(), 1);
    setenv("PATH", ((tmp_ / "bin").string() + ":/usr/bin:/bin").c_str(), 1);
    key_ = x509auth_test::SharedKey(KeyKind::k_rsa);
    cert_ = x509auth_test::MakeCert(x509auth_test::CertOptions(), key_.get());
  }
  void TearDown() override {
    while (HasChild()) WaitForChild();
    setenv("PATH", saved_path_.c_str(), 1);
    unsetenv("TMPDIR");
  }

  fs::path Folder() const { return tmp_ / "tmp" / "Quorvant"; }
  fs::path Record() const { return tmp_ / "record"; }

  x509auth_test::TempDir tmp_;
  x509auth_test::RecordingCallbacks* recorder_ = nullptr;
  std::string saved_path_;
  X509OnlyStore store_;
  x509auth_test::TestKey key_;
  x509auth_test::TestX509 cert_;
};

TEST_F(CertShowDialogTest, WritesOnePemFileAndStartsTheViewerOnIt) {
  const long before = NowSeconds();
  ASSERT_TRUE(MakeFileCert(&store_, cert_.get())->ShowDialog(nullptr)) << recorder_->Dump();
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
  ASSERT_TRUE(MakeFileCert(&store_, cert_.get())->ShowDialog(nullptr));
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
  EXPECT_FALSE(MakeFileCert(&store_, cert_.get())->ShowDialog(nullptr));
  EXPECT_FALSE(HasChild());
  const auto lines = recorder_->WithFormat(k_name_failed);
  ASSERT_EQ(lines.size(), 1u) << recorder_->Dump();
  EXPECT_EQ(lines[0].priority, X509_Auth_LogPriority_Error);
  EXPECT_EQ(lines[0].text,
            "Error geting temporary filename for cert: [filesystem error: cannot create "
            "directory: File exists [" +
                Folder().string() + "]]");
  EXPECT_EQ(recorder_->Logs().size(), 1u);
  EXPECT_EQ(ReadText(Folder()), "not a folder");
}

TEST_F(CertShowDialogTest, MissingTemporaryDirectoryFailsTheFileName) {
  setenv("TMPDIR", (tmp_ / "no-such-dir").c_str(), 1);
  EXPECT_FALSE(MakeFileCert(&store_, cert_.get())->ShowDialog(nullptr));
  EXPECT_FALSE(HasChild());
  const auto lines = recorder_->WithFormat(k_name_failed);
  ASSERT_EQ(lines.size(), 1u) << recorder_->Dump();
  EXPECT_EQ(lines[0].priority, X509_Auth_LogPriority_Error);
  EXPECT_EQ(lines[0].text,
            "Error geting temporary filename for cert: [filesystem error: temp_directory_path: No "
            "such file or directory]");
}

TEST_F(CertShowDialogTest, UnopenableFileIsReportedWithItsPath) {
  // A directory where the file should go makes fopen fail, even for root.
  fs::create_directories(Folder());
  const long now = NowSeconds();
  for (long second = now; second <= now + 30; ++second)
    fs::create_directory(Folder() / ("cert-" + std::to_string(second) + ".pem"));
  EXPECT_FALSE(MakeFileCert(&store_, cert_.get())->ShowDialog(nullptr));
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
  const bool result = MakeFileCert(&store_, cert_.get())->ShowDialog(nullptr);
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
}  // namespace quorvant::shared::x509
