// openssl s_client authenticating with x509auth: URIs against a real
// openssl s_server that requires and verifies a client certificate.
#include "ProviderFixture.h"

namespace x509auth_test {
namespace {

// RSA keys sign with PKCS#1 v1.5 only: a TLS 1.2 client must not offer
// RSA-PSS for its certificate, or libssl picks it.
const std::vector<std::string> k_tls12_rsa = {"-tls1_2", "-client_sigalgs",
                                              "RSA+SHA256:RSA+SHA384:RSA+SHA512"};

TEST_F(ProviderTest, SClientTls12WithRsaFileKeyIsVerifiedByServer) {
  const std::string thumbprint = InstallClient(KeyKind::kRsa, "RSA Client");
  auto server = StartServer(CasFile());
  ASSERT_NE(server, nullptr);
  const ChildResult client = Handshake(thumbprint, k_tls12_rsa);
  EXPECT_TRUE(Answered(client)) << client.err;
  EXPECT_NE(client.out.find("New, TLSv1.2"), std::string::npos) << client.out;
  EXPECT_TRUE(ServerVerified(*server, "RSA Client")) << server->Output();
}

TEST_F(ProviderTest, SClientTls12AndTls13WithEcFileKeyAreVerifiedByServer) {
  const std::string thumbprint = InstallClient(KeyKind::kEc, "EC Client");
  for (const char* version : {"-tls1_2", "-tls1_3"}) {
    auto server = StartServer(CasFile());
    ASSERT_NE(server, nullptr);
    const ChildResult client = Handshake(thumbprint, {version});
    EXPECT_TRUE(Answered(client)) << version << client.err;
    EXPECT_NE(client.out.find(std::string("New, TLSv1.") + version[6]), std::string::npos)
        << client.out;
    EXPECT_TRUE(ServerVerified(*server, "EC Client")) << version << server->Output();
  }
}

TEST_F(ProviderTest, RsaKeyRefusesPssWithAClearErrorAndNoHandshake) {
  const std::string thumbprint = InstallClient(KeyKind::kRsa, "RSA Client");
  // Without a sigalg restriction libssl chooses RSA-PSS for an RSA key.
  for (const char* version : {"-tls1_2", "-tls1_3"}) {
    auto server = StartServer(CasFile());
    ASSERT_NE(server, nullptr);
    const ChildResult client = Handshake(thumbprint, {version});
    EXPECT_FALSE(Answered(client)) << version;
    EXPECT_NE(client.err.find("x509auth has no RSA-PSS; RSA keys are for TLS 1.2"), std::string::npos)
        << client.err;
  }
}

TEST_F(ProviderTest, ServerThatDoesNotTrustTheIssuerRejectsTheHandshake) {
  const std::string thumbprint = InstallClient(KeyKind::kEc, "EC Client");
  // A CA the client's chain has nothing to do with: the server cannot
  // verify the client with it.
  WriteUnrelatedCa(temp_ / "other-ca.pem");
  auto server = StartServer(temp_ / "other-ca.pem");
  ASSERT_NE(server, nullptr);
  const ChildResult client = Handshake(thumbprint, {"-tls1_2"});
  EXPECT_FALSE(Answered(client)) << client.out;
  EXPECT_FALSE(ServerVerified(*server, "EC Client"));
  EXPECT_NE(server->Output().find("verify error"), std::string::npos) << server->Output();
}

TEST_F(ProviderTest, UnknownThumbprintFailsBeforeConnectingWithTheThumbprintNamed) {
  InstallClient(KeyKind::kEc, "EC Client");
  const std::string unknown(40, 'a');
  auto server = StartServer(CasFile());
  ASSERT_NE(server, nullptr);
  const ChildResult client = Handshake(unknown, {"-tls1_2"});
  EXPECT_NE(client.status, 0);
  EXPECT_NE(client.err.find("no offered certificate has this thumbprint"), std::string::npos)
      << client.err;
  EXPECT_NE(client.err.find("thumbprint=" + unknown), std::string::npos) << client.err;
}

}  // namespace
}  // namespace x509auth_test
