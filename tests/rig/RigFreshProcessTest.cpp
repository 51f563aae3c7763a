// Fresh processes on a real card stack: pcscd, a virtual reader, a CAC card,
// OpenSC's module. Each program starts with the card already in the reader.
#include <nlohmann/json.hpp>

#include "RigFixture.h"

namespace x509auth_test {
namespace {

using namespace std::chrono_literals;

class RigFreshProcessTest : public RigTest {
 protected:
  void SetUp() override {
    RigTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_TRUE(rig_->Insert()) << rig_->Log();
  }

  // s_server -rev, trusting the card certificate's CAs.
  std::unique_ptr<BackgroundChild> StartServer() { return server_.Start(CasFile(), {"-rev"}); }

  TlsTestServer server_{temp_.path()};
};

TEST_F(RigFreshProcessTest, ListShowsTheCardCertificateAsASmartcardEntry) {
  const ChildResult result = Tool({"list", "--json"});
  ASSERT_EQ(result.status, 0) << result.err;
  const nlohmann::json records = nlohmann::json::parse(result.out);
  ASSERT_EQ(records.size(), 1u) << result.out;
  EXPECT_EQ(records[0]["thumbprint"], thumbprint_);
  EXPECT_EQ(records[0]["source"], "smartcard");
  EXPECT_EQ(records[0]["key_algorithm"], "rsa");
  EXPECT_EQ(records[0]["subject"], k_card_name);
}

TEST_F(RigFreshProcessTest, DoctorOffersTheCardCertificate) {
  const ChildResult result = Tool({"doctor"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find(k_card_name), std::string::npos) << result.out;
  const ChildResult json = Tool({"doctor", "--json"});
  ASSERT_EQ(json.status, 0) << json.err;
  int cards = 0;
  for (const nlohmann::json& entry : nlohmann::json::parse(json.out)) {
    if (entry["kind"] != "smartcard") continue;
    ++cards;
    EXPECT_EQ(entry["offered"], true) << entry.dump();
    EXPECT_EQ(entry["subject"], k_card_name);
    EXPECT_EQ(entry["token"], k_card_name);
    EXPECT_EQ(entry["key"], "token");
    // OpenSC signs RSA-PSS for the CAC card from its raw RSA mechanism.
    EXPECT_NE(entry["tls"].dump().find("tls1.3"), std::string::npos) << entry.dump();
  }
  EXPECT_EQ(cards, 1) << json.out;
}

TEST_F(RigFreshProcessTest, SignWithThePinTypedAtThePromptVerifies) {
  if (std::system("command -v tmux > /dev/null") != 0) GTEST_SKIP() << "tmux missing";
  WriteFile(temp_ / "data", std::string("to be signed\n"));
  std::vector<std::string> argv = {X509_AUTH_TOOL_PATH};
  for (const std::string& a : ToolGlobals()) argv.push_back(a);
  for (const std::string& a :
       {std::string("sign"), thumbprint_, std::string("--in"), (temp_ / "data").string(),
        std::string("--out"), (temp_ / "sig").string()})
    argv.push_back(a);
  TmuxPane pane(temp_ / "tmux.sock");
  ASSERT_TRUE(pane.Start(ShellCommand(argv) + "; echo \"exit=$?\""));
  ASSERT_TRUE(pane.WaitFor("PIN for the token")) << pane.Screen();
  pane.TypeLine(VirtualCardRig::k_pin);
  ASSERT_TRUE(pane.WaitFor("exit=")) << pane.Screen();
  const std::string screen = pane.Screen();
  EXPECT_NE(screen.find("exit=0"), std::string::npos) << screen;
  EXPECT_NE(screen.find("verified with the certificate's public key"), std::string::npos) << screen;
  EXPECT_EQ(screen.find(VirtualCardRig::k_pin), std::string::npos) << screen;
  const Bytes signature = ReadFileBytes(temp_ / "sig");
  unsigned char digest[32];
  const std::string data = "to be signed\n";
  EVP_Digest(data.data(), data.size(), digest, nullptr, EVP_sha256(), nullptr);
  EXPECT_TRUE(VerifiesWithCertificate(chain_.leaf.get(), EVP_sha256(), Bytes(digest, digest + 32),
                                      signature.data(), signature.size()));
}

TEST_F(RigFreshProcessTest, SignPssWithThePinFromTheEnvironmentVerifies) {
  const ChildResult result = Tool({"sign", thumbprint_, "--pss"}, VirtualCardRig::k_pin);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.err.find("RSA-PSS signature over the sha256 digest, verified"),
            std::string::npos)
      << result.err;
}

TEST_F(RigFreshProcessTest, ToolTlsHandshakeWithTheCardKeyOverTls13AndTls12) {
  for (const char* version : {"--tls1_3", "--tls1_2"}) {
    auto server = StartServer();
    ASSERT_NE(server, nullptr);
    const ChildResult result =
        Tool({"tls", server_.Address(), "--cert", thumbprint_, "--CAfile",
              server_.CertificateFile().string(), version, "--send", "hello"},
             VirtualCardRig::k_pin);
    EXPECT_EQ(result.status, 0) << version << result.out << result.err;
    EXPECT_NE(result.out.find("handshake:        accepted"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("reply:            olleh"), std::string::npos) << result.out;
    EXPECT_TRUE(TlsTestServer::Verified(*server, k_card_name)) << server->Output();
  }
}

TEST_F(RigFreshProcessTest, OpensslSClientThroughTheProviderOverTls13AndTls12) {
  for (const char* version : {"-tls1_3", "-tls1_2"}) {
    auto server = StartServer();
    ASSERT_NE(server, nullptr);
    ChildRun run;
    run.argv = {OpensslProgram(),
                "s_client",
                "-provider-path",
                X509AUTH_PROVIDER_DIR,
                "-provider",
                "x509auth",
                "-provider",
                "default",
                "-connect",
                server_.Address(),
                "-cert",
                "x509auth:thumbprint=" + thumbprint_,
                "-key",
                "x509auth:thumbprint=" + thumbprint_,
                "-pass",
                std::string("pass:") + VirtualCardRig::k_pin,
                "-CAfile",
                server_.CertificateFile().string(),
                "-verify_return_error",
                "-quiet",
                version};
    run.env = Environment();
    // s_server -rev answers a line reversed and ends at CLOSE.
    run.input = "hello\nCLOSE\n";
    run.limit = 60s;
    const ChildResult result = RunChild(run);
    EXPECT_NE(result.out.find("olleh"), std::string::npos) << version << result.out << result.err;
    EXPECT_TRUE(TlsTestServer::Verified(*server, k_card_name)) << server->Output();
  }
}

// The PKCS#11 module with token_certificates on, to pkcs11-tool and
// gnutls-cli: the card's certificate and key as objects of its own token.
class RigPkcs11ModuleTest : public RigFreshProcessTest {
 protected:
  std::map<std::string, std::string> ModuleEnvironment() const {
    std::map<std::string, std::string> env = Environment();
    env["X509AUTH_TOKEN_CERTIFICATES"] = "on";
    env["X509AUTH_LOG"] = "error";
    return env;
  }
  ChildResult Pkcs11Tool(const std::vector<std::string>& args) const {
    ChildRun run;
    run.argv = {"pkcs11-tool", "--module", X509AUTH_PKCS11_MODULE_PATH};
    run.argv.insert(run.argv.end(), args.begin(), args.end());
    run.env = ModuleEnvironment();
    run.limit = 60s;
    return RunChild(run);
  }
};

TEST_F(RigPkcs11ModuleTest, Pkcs11ToolListsAndSignsWithTheCardKey) {
  const ChildResult objects = Pkcs11Tool({"--list-objects"});
  EXPECT_EQ(objects.status, 0) << objects.err;
  EXPECT_NE(objects.out.find("Certificate Object"), std::string::npos) << objects.out;
  EXPECT_NE(objects.out.find(k_card_name), std::string::npos) << objects.out;

  WriteFile(temp_ / "data", std::string("signed by the card\n"));
  const ChildResult sign = Pkcs11Tool(
      {"--sign", "--mechanism", "SHA256-RSA-PKCS", "--login", "--pin", VirtualCardRig::k_pin,
       "--input-file", (temp_ / "data").string(), "--output-file", (temp_ / "sig").string()});
  ASSERT_EQ(sign.status, 0) << sign.out << sign.err;
  const Bytes signature = ReadFileBytes(temp_ / "sig");
  unsigned char digest[32];
  const std::string data = "signed by the card\n";
  EVP_Digest(data.data(), data.size(), digest, nullptr, EVP_sha256(), nullptr);
  EXPECT_TRUE(VerifiesWithCertificate(chain_.leaf.get(), EVP_sha256(), Bytes(digest, digest + 32),
                                      signature.data(), signature.size()));
}

TEST_F(RigPkcs11ModuleTest, GnutlsCliAuthenticatesWithTheCardKey) {
  if (std::system("command -v gnutls-cli > /dev/null") != 0) GTEST_SKIP() << "gnutls-cli missing";
#ifdef X509AUTH_TEST_ASAN_RUNTIME
  // gnutls-cli with the sanitizer's runtime preloaded deadlocks at exit in
  // p11-kit's destructor, with any module (tests/pkcs11/Pkcs11TlsTest.cpp).
  GTEST_SKIP() << "gnutls-cli hangs at exit with the sanitizer runtime preloaded";
#endif
  auto server = StartServer();
  ASSERT_NE(server, nullptr);
  ChildRun run;
  // The module given to gnutls-cli for this run only; the URLs name the
  // card's certificate and key by their label, the PIN comes from GNUTLS_PIN.
  run.argv = {"gnutls-cli",
              "--provider",
              X509AUTH_PKCS11_MODULE_PATH,
              "--x509certfile",
              "pkcs11:object=Virtual%20Card%20User;type=cert",
              "--x509keyfile",
              "pkcs11:object=Virtual%20Card%20User;type=private",
              "--x509cafile",
              server_.CertificateFile().string(),
              "--verify-hostname",
              "localhost",
              "--port",
              std::to_string(server_.Port()),
              "127.0.0.1"};
  run.env = ModuleEnvironment();
  run.env["GNUTLS_PIN"] = VirtualCardRig::k_pin;
  run.input = "hello\n";
  run.limit = 60s;
  const ChildResult result = RunChild(run);
  EXPECT_NE(result.out.find("olleh"), std::string::npos) << result.out << result.err;
  EXPECT_TRUE(TlsTestServer::Verified(*server, k_card_name)) << server->Output();
}

}  // namespace
}  // namespace x509auth_test
