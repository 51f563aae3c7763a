#pragma once
// What both viewer suites set up: TMPDIR and PATH pointing into a test
// directory whose "bin" holds a stand-in viewer, the log recorded, and a
// certificate to show; every child the test started is waited for after.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "CertTestSupport.h"
#include "TestPki.h"

namespace quorvant::shared::x509::test {

// The line logged when no file name can be had for the viewer.
constexpr const char* k_name_failed = "Error geting temporary filename for cert: [%s]";

inline std::string ReadText(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline long NowSeconds() {
  return static_cast<long>(std::chrono::duration_cast<std::chrono::seconds>(
                               std::chrono::system_clock::now().time_since_epoch())
                               .count());
}

// Exit status of the one child the test started, or -1.
inline int WaitForChild() {
  int status = 0;
  if (waitpid(-1, &status, 0) <= 0) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

inline bool HasChild() {
  int status = 0;
  return waitpid(-1, &status, WNOHANG) != -1;
}

class ViewerTest : public ::testing::Test {
 protected:
  // Called first by each suite's SetUp, with the viewer it needs.
  void SetUpViewer(const std::string& viewer_script, std::filesystem::perms viewer_mode) {
    recorder_ = &InstallRecorder();
    saved_path_ = std::getenv("PATH") ? std::getenv("PATH") : "";
    std::filesystem::create_directories(tmp_ / "tmp");
    std::filesystem::create_directories(tmp_ / "bin");
    x509auth_test::WriteFile(tmp_ / "bin" / "gcr-viewer", viewer_script);
    std::filesystem::permissions(tmp_ / "bin" / "gcr-viewer", viewer_mode);
    setenv("TMPDIR", (tmp_ / "tmp").c_str(), 1);
    setenv("PATH", ((tmp_ / "bin").string() + ":/usr/bin:/bin").c_str(), 1);
    key_ = x509auth_test::SharedKey(x509auth_test::KeyKind::k_rsa);
    cert_ = x509auth_test::MakeCert(x509auth_test::CertOptions(), key_.get());
  }
  void TearDown() override {
    while (HasChild()) WaitForChild();
    setenv("PATH", saved_path_.c_str(), 1);
    unsetenv("TMPDIR");
  }

  std::filesystem::path Folder() const { return tmp_ / "tmp" / "Quorvant"; }
  bool Show() { return MakeFileCert(&store_, cert_.get())->ShowDialog(nullptr); }
  // The line logged when the viewer's folder cannot be had, for the
  // filesystem error |error| on that folder.
  std::string FolderRefusedText(const std::string& error) const {
    return "Error geting temporary filename for cert: [filesystem error: " + error + " [" +
           Folder().string() + "]]";
  }

  x509auth_test::TempDir tmp_;
  x509auth_test::RecordingCallbacks* recorder_ = nullptr;
  std::string saved_path_;
  X509OnlyStore store_;
  x509auth_test::TestKey key_;
  x509auth_test::TestX509 cert_;
};

}  // namespace quorvant::shared::x509::test
