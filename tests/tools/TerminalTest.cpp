// The tool on a real terminal: it runs in a tmux pane, the test types with
// send-keys and reads the screen with capture-pane. The prompt names the
// key file or token, the typed PIN never appears, and the signature is made
// with it; the table is coloured there, unless NO_COLOR is set.
#include <openssl/evp.h>
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <thread>

#include "ShellOutput.h"
#include "SoftHsmToken.h"
#include "TlsTestServer.h"
#include "ToolFixture.h"

namespace x509auth_test {
namespace {

constexpr const char* k_pin = "86429731";

// "YYYYMMDDhhmmssZ" for |seconds| since the epoch.
std::string AsnTime(time_t seconds) {
  tm parts{};
  gmtime_r(&seconds, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y%m%d%H%M%SZ", &parts);
  return text;
}

std::string Quote(const std::string& text) {
  std::string quoted = "'";
  for (const char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

class TerminalTest : public ToolTest {
 protected:
  void TearDown() override {
    Tmux("kill-server");
    ToolTest::TearDown();
  }

  // Runs tmux on the test's own server socket; returns its output.
  std::string Tmux(const std::string& arguments) {
    return ShellOutput("tmux -S " + Quote((temp_ / "tmux.sock").string()) + " " + arguments +
                       " 2>&1");
  }

  // Runs |script| with sh in a new pane "prompt", |width| columns wide and
  // 40 lines high; tmux's output, empty when it started.
  std::string StartPrompt(const std::string& script, int width) {
    return Tmux("new-session -d -s prompt -x " + std::to_string(width) + " -y 40 " +
                Quote("sh -c " + Quote(script)));
  }

  std::string Screen() { return Tmux("capture-pane -p -t prompt"); }

  // Waits up to 10 s until no tmux server answers on the test's socket.
  bool WaitForServerGone() {
    for (int i = 0; i < 100; ++i) {
      const std::string answer = Tmux("list-sessions");
      if (answer.find("no server running") != std::string::npos ||
          answer.find("error connecting") != std::string::npos)
        return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
  }

  // Waits up to 20 s for |text| on the screen.
  bool WaitForScreen(const std::string& text) {
    for (int i = 0; i < 200; ++i) {
      if (Screen().find(text) != std::string::npos) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
  }
};

TEST_F(TerminalTest, PinTypedAtTheNoEchoPromptSignsAndNeverShows) {
  X509AUTH_SKIP_WITHOUT_SOFTHSM2();
  SoftHsmToken hsm;
  hsm.InitToken("Pane Card", k_pin);
  TestKey ec = SharedKey(KeyKind::k_ec, 1);
  TestX509 cert = ClientCert("Pane EC", ec.get());
  hsm.ImportCertAndKey("Pane Card", cert.get(), ec.get(), "01", "ec", k_pin);
  WriteFile(temp_ / "message.txt", std::string("typed at a terminal"));
  const std::string signature = (temp_ / "signature.bin").string();

  const std::string tool = std::string(ToolPath()) + " --module " +
                           Quote(SoftHsmToken::ModulePath().string()) + " sign " +
                           HexOf(Sha1Thumbprint(cert.get())).substr(0, 12) + " --in " +
                           Quote((temp_ / "message.txt").string()) + " --out " + Quote(signature);
  const std::string script = tool + "; echo \"EXIT=$?\"; sleep 60";
  const std::string started = StartPrompt(script, 160);
  ASSERT_EQ(started, "") << started;

  ASSERT_TRUE(WaitForScreen("(input hidden):")) << Screen();
  const std::string asked = Screen();
  // capture-pane drops the trailing space after the colon.
  EXPECT_NE(asked.find("PIN for the token \"Pane Card\" (input hidden):"), std::string::npos)
      << asked;
  EXPECT_EQ(asked.find("Enter"), std::string::npos) << asked;
  Tmux(std::string("send-keys -t prompt -l ") + k_pin);
  Tmux("send-keys -t prompt Enter");
  ASSERT_TRUE(WaitForScreen("EXIT=")) << Screen();

  const std::string screen = Screen();
  EXPECT_EQ(screen.find(k_pin), std::string::npos) << "the PIN was echoed:\n" << screen;
  EXPECT_NE(screen.find("EXIT=0"), std::string::npos) << screen;
  EXPECT_NE(screen.find("verified with the certificate's public key"), std::string::npos) << screen;
  const Bytes bytes = ReadFileBytes(signature);
  Bytes digest(32);
  EVP_Digest("typed at a terminal", 19, digest.data(), nullptr, EVP_sha256(), nullptr);
  EXPECT_TRUE(
      VerifiesWithCertificate(cert.get(), EVP_sha256(), digest, bytes.data(), bytes.size()));
}

TEST_F(TerminalTest, NothingTypedCancelsThePromptAndSaysWhich) {
  TestKey ec = SharedKey(KeyKind::k_ec, 1);
  TestX509 cert = ClientCert("Locked File", ec.get());
  WriteFile(Base("b") / "certs" / "locked.pem", CertToPem(cert.get()));
  const std::string key_path = (Base("b") / "keys" / "locked.pem.key").string();
  WriteFile(key_path, KeyToPem(ec.get(), "pw"));
  const std::string tool = std::string(ToolPath()) + " -q --dir " + Quote(Base("b").string()) +
                           " sign " + HexOf(Sha1Thumbprint(cert.get())) + " --in /dev/null";
  const std::string script = tool + "; echo \"EXIT=$?\"; sleep 60";
  ASSERT_EQ(StartPrompt(script, 250), "");
  ASSERT_TRUE(WaitForScreen("(input hidden):")) << Screen();
  EXPECT_NE(Screen().find("Password for the key file " + key_path + " (input hidden):"),
            std::string::npos)
      << Screen();
  Tmux("send-keys -t prompt Enter");
  ASSERT_TRUE(WaitForScreen("EXIT=")) << Screen();
  const std::string screen = Screen();
  EXPECT_NE(screen.find("EXIT=1"), std::string::npos) << screen;
  // An empty answer on a terminal is said as such, not as a missing source.
  EXPECT_NE(screen.find("went unanswered: nothing was entered"), std::string::npos) << screen;
  EXPECT_EQ(screen.find("--password-env"), std::string::npos) << screen;
}

TEST_F(TerminalTest, TlsAsksForAKeyFilesPasswordOnceWithACleanPrompt) {
  Chain chain = MakeChain(KeyKind::k_ec, "Pane TLS");
  WriteFile(Base("b") / "certs" / "tls.pem", CertToPem(chain.leaf.get()));
  const std::string key_path = (Base("b") / "keys" / "tls.pem.key").string();
  WriteFile(key_path, KeyToPem(chain.leaf_key.get(), "pw"));
  WriteFile(temp_ / "root.pem", CertToPem(chain.root.get()));
  WriteFile(temp_ / "intermediate.pem", CertToPem(chain.intermediate.get()));
  WriteFile(temp_ / "cas.pem", CertToPem(chain.root.get()) + CertToPem(chain.intermediate.get()));
  TlsTestServer server_files(temp_.path());
  auto server = server_files.Start(temp_ / "cas.pem", {"-rev"});
  ASSERT_NE(server, nullptr);
  const std::string tool = std::string(ToolPath()) + " --dir " + Quote(Base("b").string()) +
                           " --add-ca " + Quote((temp_ / "root.pem").string()) + " --add-ca " +
                           Quote((temp_ / "intermediate.pem").string()) + " tls " +
                           server_files.Address() + " --cert " +
                           HexOf(Sha1Thumbprint(chain.leaf.get())).substr(0, 8) + " --CAfile " +
                           Quote(server_files.CertificateFile().string());
  const std::string script = tool + "; echo \"EXIT=$?\"; sleep 60";
  ASSERT_EQ(StartPrompt(script, 250), "");
  ASSERT_TRUE(WaitForScreen("(input hidden):")) << Screen();
  Tmux("send-keys -t prompt -l pw");
  Tmux("send-keys -t prompt Enter");
  ASSERT_TRUE(WaitForScreen("EXIT=")) << Screen();
  const std::string screen = Screen();
  const std::string prompt = "Password for the key file " + key_path + " (input hidden):";
  const std::size_t first = screen.find(prompt);
  ASSERT_NE(first, std::string::npos) << screen;
  EXPECT_EQ(screen.find(prompt, first + 1), std::string::npos) << "asked twice:\n" << screen;
  EXPECT_EQ(screen.find("pass phrase"), std::string::npos) << screen;
  EXPECT_NE(screen.find("handshake:        accepted"), std::string::npos) << screen;
  EXPECT_NE(screen.find("EXIT=0"), std::string::npos) << screen;
}

TEST_F(TerminalTest, SignReadingTheTerminalSaysSoAndEndsAtCtrlD) {
  TestKey ec = SharedKey(KeyKind::k_ec, 1);
  TestX509 cert = ClientCert("Typed Data", ec.get());
  InstallFileCert(Base("b"), "typed.pem", cert.get(), ec.get());
  const std::string tool = std::string(ToolPath()) + " --dir " + Quote(Base("b").string()) +
                           " sign " + HexOf(Sha1Thumbprint(cert.get())).substr(0, 8);
  const std::string script = tool + "; echo \"EXIT=$?\"; sleep 60";
  ASSERT_EQ(StartPrompt(script, 200), "");
  ASSERT_TRUE(
      WaitForScreen("x509-auth: reading the data to sign from the terminal; end it with Ctrl-D"))
      << Screen();
  Tmux("send-keys -t prompt -l hello");
  Tmux("send-keys -t prompt Enter");
  ASSERT_TRUE(WaitForScreen("hello")) << Screen();
  Tmux("send-keys -t prompt C-d");
  ASSERT_TRUE(WaitForScreen("EXIT=")) << Screen();
  EXPECT_NE(Screen().find("EXIT=0"), std::string::npos) << Screen();
  EXPECT_NE(Screen().find("ECDSA signature over the sha256 digest, verified"), std::string::npos)
      << Screen();
}

TEST_F(TerminalTest, CtrlCAtThePromptRestoresEchoAndExitsAs130) {
  TestKey ec = SharedKey(KeyKind::k_ec, 1);
  TestX509 cert = ClientCert("Interrupted", ec.get());
  WriteFile(Base("b") / "certs" / "locked.pem", CertToPem(cert.get()));
  WriteFile(Base("b") / "keys" / "locked.pem.key", KeyToPem(ec.get(), "pw"));
  const std::string tool = std::string(ToolPath()) + " -q --dir " + Quote(Base("b").string()) +
                           " sign " + HexOf(Sha1Thumbprint(cert.get())) + " --in /dev/null";
  // The shell traps SIGINT so that it survives Ctrl-C; the tool, its child,
  // starts with the default action again.
  const std::string script = "trap : INT; " + tool +
                             "; echo \"EXIT=$?\"; stty -a | tr ' ' '\\n' | grep -x -- '-*echo' | "
                             "sed 's/^/MODE=/'; sleep 60";
  ASSERT_EQ(StartPrompt(script, 200), "");
  ASSERT_TRUE(WaitForScreen("(input hidden):")) << Screen();
  Tmux("send-keys -t prompt C-c");
  ASSERT_TRUE(WaitForScreen("MODE=")) << Screen();
  const std::string screen = Screen();
  EXPECT_NE(screen.find("EXIT=130"), std::string::npos) << screen;  // died of SIGINT
  EXPECT_NE(screen.find("MODE=echo"), std::string::npos) << screen;
}

TEST_F(TerminalTest, EverySignalThatEndsThePromptRestoresEchoAndEndsByThatSignal) {
  TestKey ec = SharedKey(KeyKind::k_ec, 1);
  TestX509 cert = ClientCert("Signalled", ec.get());
  WriteFile(Base("b") / "certs" / "locked.pem", CertToPem(cert.get()));
  WriteFile(Base("b") / "keys" / "locked.pem.key", KeyToPem(ec.get(), "pw"));
  // The tool, by way of a script that leaves its process id behind.
  const std::filesystem::path pid_file = temp_ / "tool.pid";
  WriteFile(temp_ / "tool.sh", "echo $$ > " + Quote(pid_file.string()) + "\nexec " +
                                   Quote(ToolPath()) + " -q --dir " + Quote(Base("b").string()) +
                                   " sign " + HexOf(Sha1Thumbprint(cert.get())) +
                                   " --in /dev/null\n");
  struct Case {
    int signal_number;
    const char* keys;  // typed at the prompt; else sent with kill
  };
  // SIGPIPE is not among them: a test's environment may ignore it, and an
  // ignored signal stays ignored for the tool.
  for (const Case& c : {Case{SIGQUIT, "C-\\\\"}, Case{SIGUSR1, nullptr}, Case{SIGALRM, nullptr},
                        Case{SIGUSR2, nullptr}, Case{SIGVTALRM, nullptr}, Case{SIGXFSZ, nullptr}}) {
    std::filesystem::remove(pid_file);
    // The shell survives the keyboard's signals; the tool, its child,
    // starts with the default actions again. No core file is left.
    const std::string script = "ulimit -c 0; trap : INT QUIT; sh " +
                               Quote((temp_ / "tool.sh").string()) +
                               "; echo \"EXIT=$?\"; stty -a | tr ' ' '\\n' | grep -x -- '-*echo' | "
                               "sed 's/^/MODE=/'; sleep 60";
    ASSERT_EQ(StartPrompt(script, 200), "");
    ASSERT_TRUE(WaitForScreen("(input hidden):")) << Screen();
    if (c.keys != nullptr) {
      Tmux(std::string("send-keys -t prompt ") + c.keys);
    } else {
      const Bytes pid = ReadFileBytes(pid_file);
      ASSERT_FALSE(pid.empty());
      ASSERT_EQ(kill(std::stoi(std::string(pid.begin(), pid.end())), c.signal_number), 0);
    }
    ASSERT_TRUE(WaitForScreen("MODE=")) << strsignal(c.signal_number) << "\n" << Screen();
    const std::string screen = Screen();
    EXPECT_NE(screen.find("EXIT=" + std::to_string(128 + c.signal_number)), std::string::npos)
        << strsignal(c.signal_number) << "\n"
        << screen;
    EXPECT_NE(screen.find("MODE=echo"), std::string::npos) << strsignal(c.signal_number) << "\n"
                                                           << screen;
    Tmux("kill-session -t prompt");
    // The last session gone, the server exits; the next case's new session
    // would otherwise reach it while it is exiting ("server exited
    // unexpectedly").
    ASSERT_TRUE(WaitForServerGone());
  }
}

TEST_F(TerminalTest, CtrlZAtThePromptGivesEchoBackUntilTheToolGoesOn) {
  constexpr const char* k_password = "Zq7Xv9";
  TestKey ec = SharedKey(KeyKind::k_ec, 1);
  TestX509 cert = ClientCert("Stopped", ec.get());
  WriteFile(Base("b") / "certs" / "locked.pem", CertToPem(cert.get()));
  WriteFile(Base("b") / "keys" / "locked.pem.key", KeyToPem(ec.get(), k_password));
  const std::string tool = std::string(ToolPath()) + " -q --dir " + Quote(Base("b").string()) +
                           " sign " + HexOf(Sha1Thumbprint(cert.get())) + " --in /dev/null";
  // With job control (set -m) the shell gets the terminal back when Ctrl-Z
  // stops the tool, shows its mode, and brings the tool back with fg.
  const std::string script =
      "set -m; " + tool +
      "; echo \"STOPPED=$?\"; stty -a | tr ' ' '\\n' | grep -x -- '-*echo' | "
      "sed 's/^/MODE=/'; fg; echo \"EXIT=$?\"; sleep 60";
  ASSERT_EQ(StartPrompt(script, 200), "");
  ASSERT_TRUE(WaitForScreen("(input hidden):")) << Screen();
  Tmux("send-keys -t prompt C-z");
  ASSERT_TRUE(WaitForScreen("MODE=")) << Screen();
  EXPECT_NE(Screen().find("STOPPED=" + std::to_string(128 + SIGTSTP)), std::string::npos)
      << Screen();
  EXPECT_NE(Screen().find("MODE=echo"), std::string::npos) << Screen();
  // Back at the prompt: echo is off again (the pane's terminal, read from
  // outside), and the password stays hidden.
  std::string tty = Tmux("display -p -t prompt '#{pane_tty}'");
  while (!tty.empty() && tty.back() == '\n') tty.pop_back();
  bool hidden = false;
  for (int i = 0; i < 200 && !hidden; ++i) {
    const std::string modes = ShellOutput("stty -a -F " + Quote(tty) + " 2>&1");
    hidden = modes.find(" -echo ") != std::string::npos;
    if (!hidden) std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  ASSERT_TRUE(hidden) << Screen();
  Tmux(std::string("send-keys -t prompt -l ") + k_password);
  Tmux("send-keys -t prompt Enter");
  ASSERT_TRUE(WaitForScreen("EXIT=")) << Screen();
  EXPECT_NE(Screen().find("EXIT=0"), std::string::npos) << Screen();
  EXPECT_EQ(Screen().find(k_password), std::string::npos) << "echoed:\n" << Screen();
}

TEST_F(TerminalTest, PromptShowsAKeyFileNameWithEscapesAsText) {
  TestKey ec = SharedKey(KeyKind::k_ec, 1);
  TestX509 cert = ClientCert("Painted", ec.get());
  // A colour sequence and a screen clear in the file name.
  const std::string name = "paint\x1b[31m\x1b[2J.pem";
  WriteFile(Base("b") / "certs" / name, CertToPem(cert.get()));
  WriteFile(Base("b") / "keys" / (name + ".key"), KeyToPem(ec.get(), "pw"));
  const std::string tool = std::string(ToolPath()) + " -q --dir " + Quote(Base("b").string()) +
                           " sign " + HexOf(Sha1Thumbprint(cert.get())) + " --in /dev/null";
  const std::string script = tool + "; echo \"EXIT=$?\"; sleep 60";
  ASSERT_EQ(StartPrompt(script, 250), "");
  ASSERT_TRUE(WaitForScreen("(input hidden):")) << Screen();
  const std::string key_path = (Base("b") / "keys").string() + "/paint\\x1b[31m\\x1b[2J.pem.key";
  EXPECT_NE(Screen().find("Password for the key file " + key_path + " (input hidden):"),
            std::string::npos)
      << Screen();
  // Nothing on the screen turned red.
  EXPECT_EQ(Tmux("capture-pane -e -p -t prompt").find("\033[31m"), std::string::npos);
  Tmux("send-keys -t prompt Enter");
  ASSERT_TRUE(WaitForScreen("EXIT=")) << Screen();
  EXPECT_NE(Screen().find("went unanswered: nothing was entered"), std::string::npos) << Screen();
}

TEST_F(TerminalTest, ListIsColouredOnATerminalUnlessNoColorIsSet) {
  TestKey ec = SharedKey(KeyKind::k_ec, 1);
  TestX509 soon =
      ClientCert("Soon Gone", ec.get(), "", AsnTime(std::time(nullptr) + 10 * 86400 + 3600));
  InstallFileCert(Base("b"), "soon.pem", soon.get(), ec.get());
  const std::string list =
      std::string(ToolPath()) + " -q --dir " + Quote(Base("b").string()) + " list";
  const std::string script = list + "; echo DONE1; NO_COLOR=1 " + list + "; echo DONE2; sleep 60";
  ASSERT_EQ(StartPrompt(script, 200), "");
  ASSERT_TRUE(WaitForScreen("DONE2")) << Screen();
  const std::string screen = Tmux("capture-pane -e -p -t prompt");
  const std::size_t split = screen.find("DONE1");
  ASSERT_NE(split, std::string::npos) << screen;
  const std::string coloured = screen.substr(0, split), plain = screen.substr(split);
  // tmux re-renders the attributes: bold is "1", yellow "33".
  EXPECT_NE(coloured.find("\033[1mTHUMBPRINT"), std::string::npos) << coloured;
  EXPECT_NE(coloured.find("\033[33m"), std::string::npos) << coloured;
  EXPECT_NE(coloured.find("(in 10 days)"), std::string::npos) << coloured;
  EXPECT_NE(plain.find("(in 10 days)"), std::string::npos) << plain;
  EXPECT_EQ(plain.find("\033["), std::string::npos) << plain;
}

}  // namespace
}  // namespace x509auth_test
