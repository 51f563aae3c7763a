// Token certificates through the provider: a SoftHSM2 token reached the way
// the library reaches a smart card ("./opensc-pkcs11.so" in the working
// directory of the openssl program), the PIN from the application's
// passphrase callback (-pass).
#include <memory>

#include "ProviderFixture.h"
#include "SoftHsmToken.h"

namespace x509auth_test {
namespace {

const std::vector<std::string> k_tls12_rsa = {"-tls1_2", "-client_sigalgs",
                                              "RSA+SHA256:RSA+SHA384:RSA+SHA512"};

class ProviderTokenTest : public ProviderTest {
 protected:
  void SetUp() override {
    ProviderTest::SetUp();
    hsm_ = std::make_unique<SoftHsmToken>();
    hsm_->InitToken("Card A");
    rsa_ = MakeChain(KeyKind::kRsa, "Token RSA");
    ec_ = MakeChain(KeyKind::kEc, "Token EC");
    hsm_->ImportCertAndKey("Card A", rsa_.leaf.get(), rsa_.leaf_key.get(), "01", "rsa");
    hsm_->ImportCertAndKey("Card A", ec_.leaf.get(), ec_.leaf_key.get(), "02", "ec");
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

TEST_F(ProviderTokenTest, RsaTokenKeyTls12WithPinFromPassArgument) {
  auto server = StartServer(CasFile());
  ASSERT_NE(server, nullptr);
  std::vector<std::string> args = k_tls12_rsa;
  args.insert(args.end(), {"-pass", "pass:1234"});
  const ChildResult client = Handshake(LowerHex(Sha1Thumbprint(rsa_.leaf.get())), args);
  EXPECT_TRUE(Answered(client)) << "status " << client.status << '\n' << client.err;
  EXPECT_TRUE(ServerVerified(*server, "Token RSA")) << server->Output();
}

TEST_F(ProviderTokenTest, EcTokenKeyTls13WithPinFromPassArgument) {
  auto server = StartServer(CasFile());
  ASSERT_NE(server, nullptr);
  const ChildResult client =
      Handshake(LowerHex(Sha1Thumbprint(ec_.leaf.get())), {"-tls1_3", "-pass", "pass:1234"});
  EXPECT_TRUE(Answered(client)) << client.err;
  EXPECT_NE(client.out.find("New, TLSv1.3"), std::string::npos);
  EXPECT_TRUE(ServerVerified(*server, "Token EC")) << server->Output();
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

TEST_F(ProviderTokenTest, ModuleSettingMakesTheTokenVisibleFromAnyDirectory) {
  // A directory without "./opensc-pkcs11.so": only the setting names the
  // module, which the provider links where the library looks for it.
  cwd_override_ = temp_.path();
  env_override_["X509AUTH_MODULE"] = SoftHsmToken::ModulePath().string();
  const std::filesystem::path tmp = temp_ / "tmp";
  std::filesystem::create_directories(tmp);
  env_override_["TMPDIR"] = tmp.string();
  auto server = StartServer(CasFile());
  ASSERT_NE(server, nullptr);
  const ChildResult client =
      Handshake(LowerHex(Sha1Thumbprint(ec_.leaf.get())), {"-tls1_2", "-pass", "pass:1234"});
  EXPECT_TRUE(Answered(client)) << client.err;
  EXPECT_TRUE(ServerVerified(*server, "Token EC")) << server->Output();
  // The private directory holding the link is gone with the provider.
  EXPECT_TRUE(std::filesystem::is_empty(tmp));
}

TEST_F(ProviderTokenTest, WithoutTheModuleTheTokenCertificateIsNotOffered) {
  cwd_override_ = temp_.path();
  const ChildResult listed = Openssl("storeutl", {"-noout", "x509auth:"});
  EXPECT_NE(listed.out.find("Total found: 0"), std::string::npos) << listed.out << listed.err;
}

}  // namespace
}  // namespace x509auth_test
