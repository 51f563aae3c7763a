// x509-auth tls against a real openssl s_server that requires and verifies
// a client certificate; the server's own output says which client it
// verified. Every child has a time limit; the server is killed by the test.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <memory>

#include "ChildProcess.h"
#include "ScopedTestEnvironment.h"
#include "SoftHsmToken.h"
#include "TestPki.h"
#include "TlsTestServer.h"
#include "TokenClientChains.h"
#include "ToolRunner.h"

namespace x509auth_test {
namespace {

class TlsCommandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    work_ = temp_ / "work";
    ScopedTestEnvironment::LinkModule(work_, OPENSC_MODULE_PATH);
    ASSERT_TRUE(env_.Enter(work_));
  }

  // A client certificate with its chain's CAs in cas.pem; the key file is
  // encrypted with |password| when given. Returns the thumbprint.
  std::string InstallClient(KeyKind kind, const std::string& name, const char* password = nullptr) {
    Chain chain = MakeChain(kind, name);
    WriteFile(temp_ / "base" / "certs" / (name + ".pem"), CertToPem(chain.leaf.get()));
    WriteFile(temp_ / "base" / "keys" / (name + ".pem.key"),
              KeyToPem(chain.leaf_key.get(), password));
    AddCas(chain);
    return LowerHex(Sha1Thumbprint(chain.leaf.get()));
  }
  // cas.pem for the server; one file per CA for the tool (--add-ca takes one).
  void AddCas(const Chain& chain) {
    for (X509* ca : {chain.root.get(), chain.intermediate.get()}) {
      cas_ += CertToPem(ca);
      const std::filesystem::path file =
          temp_ / ("ca-" + std::to_string(ca_files_.size()) + ".pem");
      WriteFile(file, CertToPem(ca));
      ca_files_.push_back(file.string());
    }
    WriteFile(temp_ / "cas.pem", cas_);
  }

  // The server answers each line reversed, which --send shows.
  std::unique_ptr<BackgroundChild> StartServer(const std::filesystem::path& client_cas) {
    std::unique_ptr<BackgroundChild> server = server_.Start(client_cas, {"-rev"});
    address_ = server_.Address();
    return server;
  }

  // x509-auth <global> tls 127.0.0.1:PORT --cert T --CAfile server.pem <command>
  ChildResult Tls(const std::string& thumbprint, const std::vector<std::string>& extra,
                  const std::vector<std::string>& command = {},
                  const std::map<std::string, std::string>& env = {}) const {
    ToolRun run({"--dir", (temp_ / "base").string()});
    for (const std::string& file : ca_files_) {
      run.args.push_back("--add-ca");
      run.args.push_back(file);
    }
    run.args.insert(run.args.end(), extra.begin(), extra.end());
    for (const std::string& a : {std::string("tls"), address_, std::string("--cert"), thumbprint,
                                 std::string("--CAfile"), server_.CertificateFile().string()})
      run.args.push_back(a);
    run.args.insert(run.args.end(), command.begin(), command.end());
    run.env = env;
    return RunTool(run);
  }

  static bool ServerVerified(BackgroundChild& server, const std::string& name) {
    return TlsTestServer::Verified(server, name);
  }
  static bool Accepted(const ChildResult& result) {
    return result.status == 0 && result.out.find("handshake:        accepted") != std::string::npos;
  }

  TempDir temp_;
  TlsTestServer server_{temp_.path()};
  std::filesystem::path work_;
  // After temp_: the working directory is left before the directory goes.
  ScopedTestEnvironment env_;
  std::string cas_;
  std::vector<std::string> ca_files_;
  std::string address_;  // where the tool connects
};

TEST_F(TlsCommandTest, RsaFileKeysPlainAndPasswordProtectedOverTls12) {
  const std::string plain = InstallClient(KeyKind::k_rsa, "RSA Plain");
  const std::string locked = InstallClient(KeyKind::k_rsa, "RSA Locked", "s3cret");
  for (const auto& [thumbprint, name] :
       {std::pair{plain, "RSA Plain"}, std::pair{locked, "RSA Locked"}}) {
    auto server = StartServer(temp_ / "cas.pem");
    ASSERT_NE(server, nullptr);
    // A prefix, as every other command takes.
    const ChildResult result = Tls(thumbprint.substr(0, 8), {"--password-env", "KEY_PASSWORD"},
                                   {"--tls1_2"}, {{"KEY_PASSWORD", "s3cret"}});
    EXPECT_TRUE(Accepted(result)) << result.out << result.err;
    EXPECT_NE(result.out.find("version:          TLSv1.2"), std::string::npos) << result.out;
    // libssl prefers RSA-PSS in TLS 1.2 too, now that the provider signs it.
    EXPECT_NE(result.out.find("client signature: RSA-PSS with SHA256"), std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("server:           /CN=localhost"), std::string::npos);
    EXPECT_NE(result.out.find("server verified:  yes"), std::string::npos);
    EXPECT_TRUE(ServerVerified(*server, name)) << server->Output();
  }
}

TEST_F(TlsCommandTest, EcFileKeyOverTls12AndTls13AndSendPrintsTheReply) {
  const std::string thumbprint = InstallClient(KeyKind::k_ec, "EC Client");
  for (const std::string version : {"1.2", "1.3"}) {
    auto server = StartServer(temp_ / "cas.pem");
    ASSERT_NE(server, nullptr);
    const std::string flag = version == "1.2" ? "--tls1_2" : "--tls1_3";
    const ChildResult result = Tls(thumbprint, {}, {flag, "--send", "hello"});
    EXPECT_TRUE(Accepted(result)) << result.out << result.err;
    EXPECT_NE(result.out.find("version:          TLSv" + version), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("client signature: ECDSA with SHA256"), std::string::npos)
        << result.out;
    // s_server -rev answers each line reversed.
    EXPECT_NE(result.out.find("reply:            olleh"), std::string::npos) << result.out;
    EXPECT_TRUE(ServerVerified(*server, "EC Client")) << server->Output();
  }
}

TEST_F(TlsCommandTest, RsaKeyIsNotHeldToTls12) {
  const std::string thumbprint = InstallClient(KeyKind::k_rsa, "RSA Client");
  auto server = StartServer(temp_ / "cas.pem");
  ASSERT_NE(server, nullptr);
  const ChildResult result = Tls(thumbprint, {}, {});
  EXPECT_TRUE(Accepted(result)) << result.out << result.err;
  EXPECT_NE(result.out.find("version:          TLSv1.3"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("client signature: RSA-PSS"), std::string::npos) << result.out;
  EXPECT_TRUE(ServerVerified(*server, "RSA Client")) << server->Output();
}

TEST_F(TlsCommandTest, ServerThatAsksForNoCertificateIsAFailureUnlessAllowed) {
  const std::string thumbprint = InstallClient(KeyKind::k_ec, "EC Client");
  for (const bool allow : {false, true}) {
    // s_server without -Verify sends no CertificateRequest.
    std::unique_ptr<BackgroundChild> server;
    for (int attempt = 0; attempt < 3 && server == nullptr; ++attempt) {
      address_ = "127.0.0.1:" + std::to_string(FreeLoopbackPort());
      ChildRun run;
      run.argv = {OpensslProgram(),
                  "s_server",
                  "-accept",
                  address_,
                  "-cert",
                  server_.CertificateFile().string(),
                  "-key",
                  (temp_ / "server.key").string(),
                  "-naccept",
                  "1",
                  "-rev"};
      server = std::make_unique<BackgroundChild>(run, (temp_ / "plain-server.log").string());
      if (!server->WaitForOutput("ACCEPT", std::chrono::seconds(10))) server.reset();
    }
    ASSERT_NE(server, nullptr);
    const ChildResult result = Tls(
        thumbprint, {},
        allow ? std::vector<std::string>{"--allow-no-client-auth"} : std::vector<std::string>{});
    EXPECT_EQ(result.status, allow ? 0 : 1) << result.out << result.err;
    EXPECT_NE(result.out.find(
                  "handshake:        completed, but the server asked for no client certificate"),
              std::string::npos)
        << result.out;
    if (!allow) {
      EXPECT_NE(
          result.err.find("did not ask for a client certificate, so the certificate was not tried "
                          "(--allow-no-client-auth accepts that)"),
          std::string::npos)
          << result.err;
    }
  }
}

TEST_F(TlsCommandTest, SuccessIsQuietAndAFailureShowsTheProvidersLinesUnderIt) {
  const std::string thumbprint = InstallClient(KeyKind::k_ec, "EC Client", "s3cret");
  auto server = StartServer(temp_ / "cas.pem");
  ASSERT_NE(server, nullptr);
  const ChildResult ok =
      Tls(thumbprint, {"--password-env", "KEY_PASSWORD"}, {}, {{"KEY_PASSWORD", "s3cret"}});
  EXPECT_TRUE(Accepted(ok)) << ok.out << ok.err;
  EXPECT_EQ(ok.err, "");
  server->Finish(std::chrono::seconds(5));
  auto second = StartServer(temp_ / "cas.pem");
  ASSERT_NE(second, nullptr);
  const ChildResult wrong =
      Tls(thumbprint, {"--password-env", "KEY_PASSWORD"}, {}, {{"KEY_PASSWORD", "nope"}});
  EXPECT_EQ(wrong.status, 1);
  const std::vector<std::string> lines = Lines(wrong.err);
  ASSERT_GE(lines.size(), 2u) << wrong.err;
  EXPECT_EQ(lines[0], "x509-auth: tls: cannot load the certificate and key of " + thumbprint +
                          ": wrong password for the key file " +
                          (temp_ / "base" / "keys" / "EC Client.pem.key").string())
      << wrong.err;
  EXPECT_NE(wrong.err.find("  [provider] Failed to parse private key file ["), std::string::npos)
      << wrong.err;
  for (const std::string& line : lines)
    EXPECT_TRUE(line.rfind("x509-auth: ", 0) == 0 || line.rfind("  [", 0) == 0) << line;
}

TEST_F(TlsCommandTest, ServerThatDoesNotTrustTheIssuerRejectsAndTheToolSaysSo) {
  const std::string thumbprint = InstallClient(KeyKind::k_ec, "EC Client");
  WriteUnrelatedCa(temp_ / "other-ca.pem");
  for (const char* version : {"--tls1_2", "--tls1_3"}) {
    auto server = StartServer(temp_ / "other-ca.pem");
    ASSERT_NE(server, nullptr);
    const ChildResult result = Tls(thumbprint, {}, {version});
    EXPECT_EQ(result.status, 1) << version << result.out;
    EXPECT_NE(result.out.find("handshake:        rejected"), std::string::npos)
        << version << result.out;
    EXPECT_NE(result.err.find("the handshake with 127.0.0.1:"), std::string::npos) << result.err;
    EXPECT_FALSE(ServerVerified(*server, "EC Client"));
  }
}

class TlsTokenTest : public TlsCommandTest {
 protected:
  void SetUp() override {
    X509AUTH_SKIP_WITHOUT_SOFTHSM2();
    TlsCommandTest::SetUp();
    hsm_ = std::make_unique<SoftHsmToken>();
    hsm_->InitToken("Card A");
    ImportTokenClientChains(*hsm_, "Card A", &rsa_, &ec_);
    AddCas(rsa_);
    AddCas(ec_);
    std::filesystem::create_directories(temp_ / "base");
  }
  void TearDown() override {
    hsm_.reset();
    TlsCommandTest::TearDown();
  }
  std::unique_ptr<SoftHsmToken> hsm_;
  Chain rsa_, ec_;
};

TEST_F(TlsTokenTest, TokenRsaAndEcCertificatesInBothKeyModes) {
  struct Case {
    Chain* chain;
    const char* name;
    const char* version;
  };
  for (const Case& c : {Case{&rsa_, "Token RSA", "--tls1_2"}, Case{&rsa_, "Token RSA", "--tls1_3"},
                        Case{&ec_, "Token EC", "--tls1_3"}}) {
    for (const char* mode : {"library", "export"}) {
      auto server = StartServer(temp_ / "cas.pem");
      ASSERT_NE(server, nullptr);
      const ChildResult result =
          Tls(LowerHex(Sha1Thumbprint(c.chain->leaf.get())),
              {"--module", SoftHsmToken::ModulePath().string(), "--pin-env", "TOKEN_PIN"},
              {c.version, "--token-key", mode}, {{"TOKEN_PIN", "1234"}});
      EXPECT_TRUE(Accepted(result)) << c.name << " " << mode << result.out << result.err;
      EXPECT_NE(result.out.find(std::string("client key:       ") +
                                (std::string(mode) == "library" ? "x509auth provider"
                                                                : "exported from the token")),
                std::string::npos)
          << result.out;
      EXPECT_TRUE(ServerVerified(*server, c.name)) << c.name << " " << mode << server->Output();
    }
  }
}

TEST_F(TlsTokenTest, WrongPinFailsClearlyWithoutAHandshake) {
  for (const char* mode : {"library", "export"}) {
    auto server = StartServer(temp_ / "cas.pem");
    ASSERT_NE(server, nullptr);
    const ChildResult result =
        Tls(LowerHex(Sha1Thumbprint(ec_.leaf.get())),
            {"--module", SoftHsmToken::ModulePath().string(), "--pin-env", "TOKEN_PIN"},
            {"--tls1_3", "--token-key", mode}, {{"TOKEN_PIN", "0000"}});
    EXPECT_EQ(result.status, 1) << mode << result.out;
    EXPECT_EQ(result.out.find("handshake:"), std::string::npos) << mode << result.out;
    EXPECT_NE(result.err.find("x509-auth: tls: "), std::string::npos) << mode << result.err;
    server->Finish(std::chrono::milliseconds(200));
    EXPECT_EQ(server->Output().find("depth=0"), std::string::npos) << mode << server->Output();
  }
}

}  // namespace
}  // namespace x509auth_test
