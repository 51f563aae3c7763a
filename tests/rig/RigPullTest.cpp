// The card pulled at the worst moments: in the middle of a signature (the
// card leaves as the signing command arrives), of a TLS handshake, and while
// the user types the PIN. Each ends with a defined result and says what
// happened.
#include "RigFixture.h"

namespace x509auth_test {
namespace {

using namespace std::chrono_literals;

// The CAC card's signature instruction (SIGN/DECRYPT). OpenSC sends a
// 2048-bit RSA block in two such APDUs: the card leaving at the second is
// gone in the middle of a signature, at the third in the middle of the
// second signature.
constexpr int k_sign_instruction = 0x42;
constexpr int k_second_half_of_first_signature = 2;
constexpr int k_start_of_second_signature = 3;

class RigPullTest : public RigTest {
 protected:
  // The tool with the rig's global options and |arguments|, as one shell
  // command.
  std::string ToolCommand(const std::vector<std::string>& arguments) {
    std::vector<std::string> argv = {X509_AUTH_TOOL_PATH};
    for (const std::string& a : ToolGlobals()) argv.push_back(a);
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return ShellCommand(argv);
  }

  // Runs |command| in a terminal, pulls the card when |prompt| shows, then
  // types the PIN; |screen| gets the terminal once the command has ended.
  void PullAtThePrompt(const std::string& command, const std::string& prompt, std::string* screen) {
    TmuxPane pane(temp_ / "tmux.sock");
    ASSERT_TRUE(pane.Start(command + "; echo \"exit=$?\""));
    ASSERT_TRUE(pane.WaitFor(prompt)) << pane.Screen();
    ASSERT_TRUE(rig_->Pull()) << rig_->Log();
    pane.TypeLine(VirtualCardRig::k_pin);
    ASSERT_TRUE(pane.WaitFor("exit=")) << pane.Screen();
    *screen = pane.Screen();
  }

  TlsTestServer server_{temp_.path()};
};

TEST_F(RigPullTest, CardPulledMidSignatureFailsTheSignCommandWithoutAWrongPin) {
  ASSERT_TRUE(rig_->InsertPullingAt(k_sign_instruction, k_second_half_of_first_signature))
      << rig_->Log();
  const ChildResult result = Tool({"sign", thumbprint_}, VirtualCardRig::k_pin);
  EXPECT_FALSE(result.timed_out);
  EXPECT_EQ(result.status, 1) << result.out << result.err;
  EXPECT_NE(result.err.find("x509-auth: signing with Virtual Card User failed: "),
            std::string::npos)
      << result.err;
  EXPECT_EQ(result.err.find("wrong PIN"), std::string::npos) << result.err;
  EXPECT_EQ(result.out, "");
  EXPECT_TRUE(rig_->Pull()) << rig_->Log();
}

TEST_F(RigPullTest, CardPulledMidHandshakeIsReportedAsTheClientSignatureFailing) {
  // The provider signs once when it loads the key (checking the login), then
  // in the handshake: the card goes at the second.
  ASSERT_TRUE(rig_->InsertPullingAt(k_sign_instruction, k_start_of_second_signature))
      << rig_->Log();
  auto server = server_.Start(CasFile(), {"-rev"});
  ASSERT_NE(server, nullptr);
  const ChildResult result = Tool({"tls", server_.Address(), "--cert", thumbprint_, "--CAfile",
                                   server_.CertificateFile().string(), "--tls1_3"},
                                  VirtualCardRig::k_pin);
  EXPECT_FALSE(result.timed_out);
  EXPECT_EQ(result.status, 1) << result.out << result.err;
  EXPECT_EQ(result.out.find("rejected"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("handshake:        failed: the client's signature with its key "
                            "failed, so the handshake could not go on"),
            std::string::npos)
      << result.out << result.err;
  EXPECT_TRUE(rig_->Pull()) << rig_->Log();
}

TEST_F(RigPullTest, CardPulledWhileThePinIsTypedIsReportedAsRemovedNotAsAWrongPin) {
  if (std::system("command -v tmux > /dev/null") != 0) GTEST_SKIP() << "tmux missing";
  ASSERT_TRUE(rig_->Insert()) << rig_->Log();
  std::string screen;
  ASSERT_NO_FATAL_FAILURE(PullAtThePrompt(ToolCommand({"sign", thumbprint_, "--in", "/dev/null"}),
                                          "PIN for the token", &screen));
  EXPECT_NE(screen.find("exit=1"), std::string::npos) << screen;
  EXPECT_EQ(screen.find("wrong PIN"), std::string::npos) << screen;
  EXPECT_NE(screen.find("the card \"Virtual Card User\" was removed while its PIN was entered"),
            std::string::npos)
      << screen;
}

TEST_F(RigPullTest, CardPulledAtTheTlsCommandsPinPromptIsReportedAsRemoved) {
  if (std::system("command -v tmux > /dev/null") != 0) GTEST_SKIP() << "tmux missing";
  ASSERT_TRUE(rig_->Insert()) << rig_->Log();
  auto server = server_.Start(CasFile(), {"-rev"});
  ASSERT_NE(server, nullptr);
  std::string screen;
  ASSERT_NO_FATAL_FAILURE(
      PullAtThePrompt(ToolCommand({"tls", server_.Address(), "--cert", thumbprint_, "--CAfile",
                                   server_.CertificateFile().string()}),
                      "PIN for the token", &screen));
  EXPECT_NE(screen.find("exit=1"), std::string::npos) << screen;
  // The provider behind the command loads the key, and says it.
  EXPECT_NE(screen.find("the card was removed while its PIN was entered"), std::string::npos)
      << screen;
  EXPECT_EQ(screen.find("wrong PIN"), std::string::npos) << screen;
}

// The card still in: a wrong PIN is said as one (libcacard refuses it as a
// failed check of its database's password, which OpenSC passes on as a
// general error).
TEST_F(RigPullTest, WrongPinWithTheCardInIsStillSaidAsAWrongPin) {
  ASSERT_TRUE(rig_->Insert()) << rig_->Log();
  const ChildResult result = Tool({"sign", thumbprint_}, "999999");
  EXPECT_EQ(result.status, 1) << result.err;
  EXPECT_NE(result.err.find("wrong PIN for the token \"Virtual Card User\""), std::string::npos)
      << result.err;
  EXPECT_EQ(result.err.find("was removed"), std::string::npos) << result.err;
}

TEST_F(RigPullTest, CardPulledAtOpensslsPinPromptIsReportedByTheProviderAsRemoved) {
  if (std::system("command -v tmux > /dev/null") != 0) GTEST_SKIP() << "tmux missing";
  ASSERT_TRUE(rig_->Insert()) << rig_->Log();
  auto server = server_.Start(CasFile(), {"-rev"});
  ASSERT_NE(server, nullptr);
  std::string screen;
  ASSERT_NO_FATAL_FAILURE(PullAtThePrompt(
      ShellCommand({OpensslProgram(), "s_client", "-provider-path", X509AUTH_PROVIDER_DIR,
                    "-provider", "x509auth", "-provider", "default", "-connect", server_.Address(),
                    "-cert", "x509auth:thumbprint=" + thumbprint_, "-key",
                    "x509auth:thumbprint=" + thumbprint_, "-CAfile",
                    server_.CertificateFile().string(), "-quiet"}),
      "Enter pass phrase", &screen));
  EXPECT_EQ(screen.find("exit=0"), std::string::npos) << screen;
  EXPECT_NE(screen.find("the card was removed while its PIN was entered"), std::string::npos)
      << screen;
  EXPECT_EQ(screen.find("wrong PIN"), std::string::npos) << screen;
}

// The module's token is its own and stays: a login whose card went while the
// PIN was typed is no wrong PIN, and the card's key is gone with the card.
TEST_F(RigPullTest, CardPulledWhileThePinIsTypedLeavesNoWrongPinAndTakesTheCardKeyFromTheModule) {
  ASSERT_TRUE(rig_->Insert()) << rig_->Log();
  ChildRun run;
  run.argv = {RIG_PKCS11_LOOP_PATH, "1", std::string("x509auth=") + X509AUTH_PKCS11_MODULE_PATH};
  run.env = Environment();
  run.env["X509AUTH_TOKEN_CERTIFICATES"] = "on";
  run.env["X509AUTH_LOG"] = "error";
  run.env["RIG_PIN"] = VirtualCardRig::k_pin;
  run.env["RIG_LOGIN_GATE"] = (temp_ / "pin-typed").string();
  BackgroundChild loop(run, (temp_ / "loop.log").string());
  ASSERT_TRUE(loop.WaitForOutput("login pending", 30s)) << loop.Output();
  ASSERT_TRUE(rig_->Pull()) << rig_->Log();
  WriteFile(temp_ / "pin-typed", std::string());
  EXPECT_EQ(loop.Finish(30s), 0) << loop.Output();
  const std::string output = loop.Output();
  EXPECT_NE(output.find("sign=none logins=1"), std::string::npos) << output;
  EXPECT_EQ(output.find("login-rv:"), std::string::npos) << output;
}

}  // namespace
}  // namespace x509auth_test
