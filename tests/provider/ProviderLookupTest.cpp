// A thumbprint URI is one lookup of one certificate: s_client given the same
// URI for -cert and -key lists no certificate, builds no other chain and,
// for a file certificate, loads no PKCS#11 module.
#include "ProviderFixture.h"

namespace x509auth_test {
namespace {

class ProviderLookupTest : public ProviderTest {};

TEST_F(ProviderLookupTest, SClientWithOneUriForCertAndKeyListsNothingAndLoadsNoModule) {
  const std::string thumbprint = InstallClient(KeyKind::k_ec, "Looked Up");
  InstallClient(KeyKind::k_rsa, "Never Looked At");
  auto server = StartServer(CasFile());
  ASSERT_NE(server, nullptr);
  env_override_["X509AUTH_LOG"] = "info";
  const ChildResult client = Handshake(thumbprint, {"-tls1_3"});
  EXPECT_TRUE(Answered(client)) << client.err;
  EXPECT_TRUE(ServerVerified(*server, "Looked Up")) << server->Output();
  // Each open of the URI reads the certificate files once and describes the
  // one certificate only; opening its key reads them once more.
  EXPECT_EQ(Count(client.err, "x509auth: CertStore::OpenFileStore\n"), 3u) << client.err;
  EXPECT_EQ(Count(client.err, "x509auth: cert: [Looked Up]\n"), 2u) << client.err;
  EXPECT_EQ(Count(client.err, "Never Looked At"), 0u) << client.err;
  EXPECT_EQ(Count(client.err, "Total Client Certificates"), 0u) << client.err;
  EXPECT_EQ(Count(client.err, "CertStore::OpenSmartCardStore"), 0u) << client.err;
}

TEST_F(ProviderLookupTest, AThumbprintOfAnAddedCaIsNoClientCertificate) {
  InstallClient(KeyKind::k_ec, "Client");
  const std::string ca = LowerHex(Sha1Thumbprint(chains_.back().root.get()));
  const ChildResult stored = Openssl("storeutl", {"-noout", "x509auth:thumbprint=" + ca});
  EXPECT_EQ(stored.out.find("Total found: 1"), std::string::npos) << stored.out;
  EXPECT_NE(stored.err.find("no offered certificate has this thumbprint"), std::string::npos)
      << stored.err;
  EXPECT_NE(stored.err.find("thumbprint=" + ca), std::string::npos) << stored.err;
}

}  // namespace
}  // namespace x509auth_test
