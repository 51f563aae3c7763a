// openssl s_client on a real terminal with a password-protected key file and
// no -pass: OpenSSL's own prompt asks once, naming the key file, and the
// answer serves the load and the handshake's signature.
#include <algorithm>

#include "ProviderFixture.h"
#include "TmuxPane.h"

namespace x509auth_test {
namespace {

TEST_F(ProviderTest, PasswordTypedAtOpensslsPromptIsAskedOnceAndServesTheHandshake) {
  if (std::system("command -v tmux > /dev/null") != 0) GTEST_SKIP() << "tmux missing";
  const std::string thumbprint =
      InstallClientWithKey(KeyKind::k_rsa, "Typed Client", KeyForm::k_encrypted);
  auto server = StartReversingServer();
  ASSERT_NE(server, nullptr);
  std::string command = "cd " + TmuxPane::Quote(work_.string()) + " &&";
  for (const auto& [name, value] : Environment())
    command += " " + name + "=" + TmuxPane::Quote(value);
  command += " " + TmuxPane::Quote(OpensslProgram()) + " s_client";
  for (const std::string& a : ProviderArguments()) command += " " + TmuxPane::Quote(a);
  for (const std::string& a : {std::string("-connect"), server_.Address(), std::string("-cert"),
                               "x509auth:thumbprint=" + thumbprint, std::string("-key"),
                               "x509auth:thumbprint=" + thumbprint, std::string("-CAfile"),
                               server_.CertificateFile().string(),
                               std::string("-verify_return_error"), std::string("-quiet")})
    command += " " + TmuxPane::Quote(a);
  TmuxPane pane(temp_ / "tmux.sock");
  ASSERT_TRUE(pane.Start(command));
  const std::string key_file = (base_ / "keys" / "Typed Client.pem.key").string();
  ASSERT_TRUE(pane.WaitFor("Enter pass phrase for " + key_file + ":")) << pane.Screen();
  pane.TypeLine(k_key_password);
  // Connected: the line typed next comes back reversed.
  ASSERT_TRUE(pane.WaitFor("Can't use SSL_get_servername")) << pane.Screen();
  pane.TypeLine("typed line");
  EXPECT_TRUE(pane.WaitFor("enil depyt")) << pane.Screen();
  const std::string screen = pane.Screen();
  EXPECT_EQ(Count(screen, "Enter pass phrase"), 1u) << screen;
  EXPECT_EQ(screen.find(k_key_password), std::string::npos) << screen;
  pane.TypeLine("CLOSE");
  EXPECT_TRUE(ServerVerified(*server, "Typed Client")) << server->Output();
}

}  // namespace
}  // namespace x509auth_test
