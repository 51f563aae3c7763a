// Token certificates through the provider: a SoftHSM2 token whose module the
// provider's setting names (X509AUTH_MODULE or pkcs11_module), the PIN from
// the application's passphrase callback (-pass).
#include <memory>

#include "ProviderFixture.h"
#include "SoftHsmToken.h"
#include "TokenClientChains.h"

namespace x509auth_test {
namespace {

class ProviderTokenTest : public ProviderTest {
 protected:
  void SetUp() override {
    X509AUTH_SKIP_WITHOUT_SOFTHSM2();
    ProviderTest::SetUp();
    SoftHsmToken::Options options;
    options.module_link_directory.clear();
    hsm_ = std::make_unique<SoftHsmToken>(options);
    env_override_["X509AUTH_MODULE"] = SoftHsmToken::ModulePath().string();
    hsm_->InitToken("Card A");
    ImportTokenClientChains(*hsm_, "Card A", &rsa_, &ec_);
    AddCas(rsa_);
    AddCas(ec_);
  }

  void TearDown() override {
    hsm_.reset();
    ProviderTest::TearDown();
  }

  std::unique_ptr<SoftHsmToken> hsm_;
  Chain rsa_, ec_;
};

TEST_F(ProviderTokenTest, RsaAndEcTokenKeysAtTheDefaultsWithPinFromPassArgument) {
  const struct {
    const Chain* chain;
    const char* name;
  } keys[] = {{&rsa_, "Token RSA"}, {&ec_, "Token EC"}};
  for (const auto& key : keys) {
    for (const char* version : {"-tls1_3", "-tls1_2"}) {
      auto server = StartReversingServer();
      ASSERT_NE(server, nullptr);
      const ChildResult client = SendLine(LowerHex(Sha1Thumbprint(key.chain->leaf.get())),
                                          {version, "-pass", "pass:1234"});
      EXPECT_EQ(client.status, 0) << key.name << version << client.err;
      EXPECT_TRUE(LineCameBack(client)) << key.name << version << client.out << client.err;
      EXPECT_NE(client.out.find(std::string("New, TLSv1.") + version[6]), std::string::npos)
          << client.out;
      EXPECT_EQ(client.err.find(":error:"), std::string::npos) << client.err;
      EXPECT_TRUE(ServerVerified(*server, key.name)) << server->Output();
    }
  }
}

// At exit the provider ends the library (logging out of the token and
// unloading the module) before the module's own static objects are destroyed:
// a client that signed with a token key reads no freed memory on its way out.
// (It did, and crashed now and then, while the exit handler ran last.)
TEST_F(ProviderTokenTest, ExitAfterATokenHandshakeReadsNoFreedMemory) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "valgrind cannot run a program that loads the instrumented module";
#else
  if (std::system("command -v valgrind > /dev/null") != 0) GTEST_SKIP() << "valgrind missing";
  launcher_ = {"valgrind", "--quiet", "--error-exitcode=99"};
  auto server = StartServer(CasFile());
  ASSERT_NE(server, nullptr);
  const ChildResult client =
      Handshake(LowerHex(Sha1Thumbprint(ec_.leaf.get())), {"-tls1_3", "-pass", "pass:1234"});
  EXPECT_FALSE(client.timed_out);
  EXPECT_EQ(client.status, 0) << client.err;
  EXPECT_EQ(client.err.find("Invalid read"), std::string::npos) << client.err;
  EXPECT_TRUE(Answered(client)) << client.err;
  EXPECT_TRUE(ServerVerified(*server, "Token EC")) << server->Output();
#endif
}

TEST_F(ProviderTokenTest, WrongPinFailsClearlyBeforeAnyHandshake) {
  auto server = StartServer(CasFile());
  ASSERT_NE(server, nullptr);
  const std::string thumbprint = LowerHex(Sha1Thumbprint(ec_.leaf.get()));
  const ChildResult client = Handshake(thumbprint, {"-tls1_3", "-pass", "pass:0000"});
  EXPECT_FALSE(Answered(client));
  EXPECT_NE(client.err.find("thumbprint=" + thumbprint), std::string::npos) << client.err;
  EXPECT_NE(client.err.find("wrong PIN or password"), std::string::npos) << client.err;
  // s_client gave up while loading the key: the server never saw a client.
  EXPECT_EQ(server->Output().find("depth=0"), std::string::npos) << server->Output();
}

TEST_F(ProviderTokenTest, WithoutTheModuleTheTokenCertificateIsNotOffered) {
  env_override_["X509AUTH_MODULE"] = "none";
  const ChildResult listed = Openssl("storeutl", {"-noout", "x509auth:"});
  EXPECT_NE(listed.out.find("Total found: 0"), std::string::npos) << listed.out << listed.err;
}

}  // namespace
}  // namespace x509auth_test
