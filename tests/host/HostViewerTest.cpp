// Showing a certificate: the library writes it as PEM below the temporary
// directory and starts "gcr-viewer" on it. Once with a stand-in viewer that
// records what it was given, once with the real one under a virtual X server.
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <thread>

#include "HostFixture.h"
#include "ShellOutput.h"

namespace x509auth_test {
namespace {

std::string ReadText(const std::filesystem::path& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The second the library names its viewer file after. It reads the system
// clock; std::time() reads the kernel's coarse copy, which trails it by up
// to a tick, so a request made just after a second turns over would be
// named after a second that std::time() has not reached yet.
long SecondsNow() {
  return static_cast<long>(std::chrono::duration_cast<std::chrono::seconds>(
                               std::chrono::system_clock::now().time_since_epoch())
                               .count());
}

// Waits up to |seconds| for |done|.
template <typename Predicate>
bool WaitFor(double seconds, Predicate done) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (std::chrono::steady_clock::now() < end) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return done();
}

class HostViewerTest : public HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    tmp_ = temp_ / "tmp";
    std::filesystem::create_directories(tmp_);
    env_.Set("TMPDIR", tmp_.string());
    key_ = SharedKey(KeyKind::k_ec);
    cert_ = MakeClientCert("Viewer Subject", key_.get());
    InstallFileCert(Base("base"), "viewer.pem", cert_.get(), key_.get());
    Init({Base("base").string()});
    records_ = List();
    ASSERT_EQ(records_.size(), 1u);
  }

  // The viewer file written for a request made at |seconds|.
  std::filesystem::path ViewerFile(long seconds) const {
    return tmp_ / "Quorvant" / ("cert-" + std::to_string(seconds) + ".pem");
  }

  std::filesystem::path tmp_;
  TestKey key_;
  TestX509 cert_;
  std::vector<const X509_Auth_Certificate*> records_;
};

TEST_F(HostViewerTest, StandInViewerGetsOnePemFileOfTheCertificate) {
  const std::filesystem::path bin = temp_ / "bin";
  const std::filesystem::path seen = temp_ / "seen";
  std::filesystem::create_directories(seen);
  WriteFile(bin / "gcr-viewer", "#!/bin/sh\nprintf '%s\\n' \"$0\" \"$@\" > '" +
                                    (seen / "args").string() + "'\ncp \"$1\" '" +
                                    (seen / "file.pem").string() + "'\n");
  std::filesystem::permissions(bin / "gcr-viewer", std::filesystem::perms::owner_all);
  const std::string old_path = std::getenv("PATH") ? std::getenv("PATH") : "";
  env_.Set("PATH", bin.string() + ":" + old_path);

  const long before = SecondsNow();
  const bool started = X509_Auth_ShowCertificateDialog(records_[0], reinterpret_cast<void*>(0x99));
  const long after = SecondsNow();
  env_.Set("PATH", old_path);
  ASSERT_TRUE(started) << rec().Dump();

  ASSERT_TRUE(WaitFor(10, [&] { return std::filesystem::exists(seen / "file.pem"); }));
  WaitFor(2, [&] { return !ReadText(seen / "file.pem").empty(); });
  const std::string args = ReadText(seen / "args");
  std::filesystem::path file;
  for (long s = before; s <= after; ++s)
    if (args.find(ViewerFile(s).string()) != std::string::npos) file = ViewerFile(s);
  ASSERT_FALSE(file.empty()) << args;
  EXPECT_EQ(args, (bin / "gcr-viewer").string() + "\n" + file.string() + "\n");
  EXPECT_EQ(ReadText(seen / "file.pem"), CertToPem(cert_.get()));
  EXPECT_EQ(ReadText(file), CertToPem(cert_.get()));
  while (waitpid(-1, nullptr, WNOHANG) > 0) {
  }
}

TEST_F(HostViewerTest, UnknownThumbprintLogsAndWritesNoFile) {
  const Bytes unknown(20, 0);
  X509_Auth_Certificate record{};
  record.thumbprint = unknown.data();
  rec().Reset();
  EXPECT_FALSE(X509_Auth_ShowCertificateDialog(&record, nullptr));
  EXPECT_TRUE(rec().Has(
      X509_Auth_LogPriority_Error,
      "Failed to show certificate dialog. Failed to find certificate thumbprint (error: %d)",
      "Failed to show certificate dialog. Failed to find certificate thumbprint (error: 1)"));
  EXPECT_FALSE(std::filesystem::exists(tmp_ / "Quorvant"));
}

TEST_F(HostViewerTest, StoreOpenFailureLogsAndReturnsFalse) {
  const Bytes thumbprint = ThumbprintOf(records_[0]);
  // The library's context keeps the module loaded until DeInit; without the
  // module the next context has no token source and the store cannot open.
  X509_Auth_DeInit();
  std::filesystem::remove(work_ / "opensc-pkcs11.so");
  Init({Base("base").string()});
  X509_Auth_Certificate record{};
  record.thumbprint = thumbprint.data();
  rec().Reset();
  EXPECT_FALSE(X509_Auth_ShowCertificateDialog(&record, nullptr));
  EXPECT_TRUE(
      rec().Has(X509_Auth_LogPriority_Error,
                "Failed to show certificate dialog. Failed to open cert store (error: %d)",
                "Failed to show certificate dialog. Failed to open cert store (error: -1)"));
}

TEST_F(HostViewerTest, RealViewerOpensAWindowUnderAVirtualXServer) {
  if (std::system("command -v Xvfb > /dev/null && command -v gcr-viewer > /dev/null") != 0)
    GTEST_SKIP() << "Xvfb or gcr-viewer is not installed; scripts/install-deps.sh installs both";
  // Xvfb picks a free display and writes its number to the pipe.
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  const pid_t xvfb = fork();
  ASSERT_GE(xvfb, 0);
  if (xvfb == 0) {
    close(fds[0]);
    std::FILE* log = std::freopen((temp_ / "xvfb.log").c_str(), "w", stderr);
    (void)log;
    const std::string fd = std::to_string(fds[1]);
    execlp("Xvfb", "Xvfb", "-displayfd", fd.c_str(), "-screen", "0", "1024x768x24", "-nolisten",
           "tcp", static_cast<char*>(nullptr));
    _exit(127);
  }
  close(fds[1]);
  // Read up to the newline and keep our end open: Xvfb writes the number
  // and the newline separately and gives up if the pipe has closed.
  std::string number;
  char c = 0;
  while (read(fds[0], &c, 1) == 1 && c != '\n') number += c;
  if (number.empty()) {
    close(fds[0]);
    kill(xvfb, SIGTERM);
    waitpid(xvfb, nullptr, 0);
    GTEST_SKIP() << "no X server could be started (Xvfb gave no display): "
                 << ShellOutput("cat " + (temp_ / "xvfb.log").string());
  }
  const std::string display = ":" + number;
  env_.Set("DISPLAY", display);
  // The server announces its display before every client can connect.
  const bool ready = WaitFor(15, [&] {
    return std::system(("xdpyinfo -display " + display + " > /dev/null 2>&1").c_str()) == 0;
  });
  if (!ready) {
    close(fds[0]);
    kill(xvfb, SIGTERM);
    waitpid(xvfb, nullptr, 0);
    GTEST_SKIP() << "the X server on " << display << " never accepted a connection: "
                 << ShellOutput("xdpyinfo -display " + display + " 2>&1") << "\nXvfb said:\n"
                 << ShellOutput("cat " + (temp_ / "xvfb.log").string());
  }

  const long before = SecondsNow();
  long after = before;
  // gcr-viewer titles its window with the file's name.
  std::string tree;
  std::string title;
  const auto request_and_wait = [&] {
    const bool shown = X509_Auth_ShowCertificateDialog(records_[0], nullptr);
    EXPECT_TRUE(shown) << rec().Dump();
    if (!shown) return false;
    after = SecondsNow();
    return WaitFor(30, [&] {
      tree = ShellOutput("DISPLAY=" + display + " xwininfo -root -tree 2>/dev/null");
      for (long s = before; s <= after; ++s) {
        const std::string name = "\"" + ViewerFile(s).filename().string() + "\"";
        if (tree.find(name) != std::string::npos) title = name;
      }
      return !title.empty();
    });
  };
  bool appeared = request_and_wait();
  // On a machine loaded to its limit the viewer has been seen to fail to
  // open a display that answers (GTK's "Cannot open display"); a second
  // request shows whether the library's launch works. A launch that never
  // works fails both.
  if (!appeared && std::system(("xdpyinfo -display " + display + " > /dev/null 2>&1").c_str()) == 0)
    appeared = request_and_wait();
  const std::filesystem::path shot = temp_ / "viewer.png";
  if (appeared) {
    std::this_thread::sleep_for(std::chrono::seconds(1));  // let it paint
    std::system(
        ("DISPLAY=" + display + " import -window root " + shot.string() + " 2>/dev/null").c_str());
  }
  const std::string mean =
      appeared ? ShellOutput("convert " + shot.string() + " -format '%[fx:mean]' info: 2>/dev/null")
               : "";

  std::system(("pkill -f '" + (tmp_ / "Quorvant").string() + "' 2>/dev/null").c_str());
  kill(xvfb, SIGTERM);
  waitpid(xvfb, nullptr, 0);
  close(fds[0]);
  while (waitpid(-1, nullptr, WNOHANG) > 0) {
  }
  env_.Unset("DISPLAY");

  std::string written;
  for (const auto& entry : std::filesystem::directory_iterator(tmp_ / "Quorvant"))
    written += entry.path().filename().string() + " ";
  ASSERT_TRUE(appeared) << "no viewer window appeared for a request made in seconds " << before
                        << " to " << after << "; files written: " << written << "; windows:\n"
                        << tree;
  ASSERT_TRUE(std::filesystem::exists(shot));
  // A black screen would mean nothing was drawn; the viewer paints white.
  EXPECT_GT(std::stod(mean.empty() ? "0" : mean), 0.05) << "screenshot mean " << mean;
}

}  // namespace
}  // namespace x509auth_test
