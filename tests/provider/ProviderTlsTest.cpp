// openssl s_client authenticating with x509auth: URIs against a real
// openssl s_server that requires and verifies a client certificate.
#include "ProviderFixture.h"

namespace x509auth_test {
namespace {

// Every kind of file key, at OpenSSL's defaults: s_client is given only the
// certificate, the key and (for an encrypted key file) -pass, and libssl
// picks the signature scheme itself (RSA-PSS for an RSA key).
struct DefaultsCase {
  KeyKind kind;
  KeyForm form;
  const char* version;
  const char* name;
};

void PrintTo(const DefaultsCase& c, std::ostream* out) { *out << c.name; }

class ProviderDefaultsTest : public ProviderTest,
                             public ::testing::WithParamInterface<DefaultsCase> {};

TEST_P(ProviderDefaultsTest, SClientWithOnlyCertKeyAndPassCompletesTheHandshake) {
  const DefaultsCase& c = GetParam();
  const std::string thumbprint = InstallClientWithKey(c.kind, "Client", c.form);
  auto server = StartReversingServer();
  ASSERT_NE(server, nullptr);
  std::vector<std::string> extra = {c.version};
  if (c.form == KeyForm::k_encrypted)
    extra.insert(extra.end(), {"-pass", std::string("pass:") + k_key_password});
  const ChildResult client = SendLine(thumbprint, extra);
  EXPECT_EQ(client.status, 0) << client.err;
  EXPECT_TRUE(LineCameBack(client)) << client.out << client.err;
  EXPECT_NE(client.out.find(std::string("New, TLSv1.") + (c.version[6])), std::string::npos)
      << client.out;
  // A completed handshake leaves nothing on OpenSSL's error queue for
  // s_client to report.
  EXPECT_EQ(client.err.find(":error:"), std::string::npos) << client.err;
  // Quiet by default: nothing of the library's reaches stderr.
  EXPECT_EQ(client.err.find("x509auth:"), std::string::npos) << client.err;
  EXPECT_TRUE(ServerVerified(*server, "Client")) << server->Output();
  if (c.kind == KeyKind::k_rsa) {
    EXPECT_NE(server->Output().find("RSA-PSS"), std::string::npos) << server->Output();
  }
}

INSTANTIATE_TEST_SUITE_P(
    EveryFileKey, ProviderDefaultsTest,
    ::testing::Values(
        DefaultsCase{KeyKind::k_rsa, KeyForm::k_pem, "-tls1_3", "RsaPemTls13"},
        DefaultsCase{KeyKind::k_rsa, KeyForm::k_pem, "-tls1_2", "RsaPemTls12"},
        DefaultsCase{KeyKind::k_rsa, KeyForm::k_der, "-tls1_3", "RsaDerTls13"},
        DefaultsCase{KeyKind::k_rsa, KeyForm::k_der, "-tls1_2", "RsaDerTls12"},
        DefaultsCase{KeyKind::k_rsa, KeyForm::k_encrypted, "-tls1_3", "RsaEncryptedTls13"},
        DefaultsCase{KeyKind::k_rsa, KeyForm::k_encrypted, "-tls1_2", "RsaEncryptedTls12"},
        DefaultsCase{KeyKind::k_ec, KeyForm::k_pem, "-tls1_3", "EcPemTls13"},
        DefaultsCase{KeyKind::k_ec, KeyForm::k_pem, "-tls1_2", "EcPemTls12"},
        DefaultsCase{KeyKind::k_ec, KeyForm::k_der, "-tls1_3", "EcDerTls13"},
        DefaultsCase{KeyKind::k_ec, KeyForm::k_der, "-tls1_2", "EcDerTls12"},
        DefaultsCase{KeyKind::k_ec, KeyForm::k_encrypted, "-tls1_3", "EcEncryptedTls13"},
        DefaultsCase{KeyKind::k_ec, KeyForm::k_encrypted, "-tls1_2", "EcEncryptedTls12"}),
    [](const ::testing::TestParamInfo<DefaultsCase>& info) {
      return std::string(info.param.name);
    });

TEST_F(ProviderTest, RsaPkcs1SignatureSchemesStillWorkWhenTheClientAsksForThem) {
  const std::string thumbprint = InstallClient(KeyKind::k_rsa, "RSA Client");
  auto server = StartServer(CasFile());
  ASSERT_NE(server, nullptr);
  const ChildResult client =
      Handshake(thumbprint, {"-tls1_2", "-client_sigalgs", "RSA+SHA256:RSA+SHA384:RSA+SHA512"});
  EXPECT_TRUE(Answered(client)) << client.err;
  EXPECT_TRUE(ServerVerified(*server, "RSA Client")) << server->Output();
}

TEST_F(ProviderTest, ServerThatDoesNotTrustTheIssuerRejectsTheHandshake) {
  const std::string thumbprint = InstallClient(KeyKind::k_ec, "EC Client");
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
  InstallClient(KeyKind::k_ec, "EC Client");
  const std::string unknown(40, 'a');
  auto server = StartServer(CasFile());
  ASSERT_NE(server, nullptr);
  const ChildResult client = Handshake(unknown, {"-tls1_2"});
  EXPECT_NE(client.status, 0);
  EXPECT_NE(client.err.find("no offered certificate has this thumbprint"), std::string::npos)
      << client.err;
  EXPECT_NE(client.err.find("thumbprint=" + unknown), std::string::npos) << client.err;
  // The error points at the place that failed, not at the raising helper.
  EXPECT_NE(client.err.find("provider/Store.cpp"), std::string::npos) << client.err;
  EXPECT_EQ(client.err.find("ProviderContext.cpp"), std::string::npos) << client.err;
}

}  // namespace
}  // namespace x509auth_test
