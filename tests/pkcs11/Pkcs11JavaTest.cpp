// Java 17 with the module: SunPKCS11 configured with it, keytool listing its
// entries, and JSSE completing TLS 1.3 and 1.2 handshakes with client
// authentication against openssl s_server, which verifies the client. The
// Java program (java/Pkcs11Client.java) is compiled by the test.
#include "Pkcs11Fixture.h"
#include "TlsTestServer.h"

namespace x509auth_test {
namespace {

class Pkcs11JavaTest : public Pkcs11Test {
 protected:
  void SetUp() override {
    Pkcs11Test::SetUp();
#ifdef X509AUTH_TEST_ASAN_RUNTIME
    GTEST_SKIP() << "the JVM does not run with the sanitizer runtime preloaded";
#endif
    if (!HaveProgram("javac") || !HaveProgram("keytool"))
      GTEST_SKIP() << "no JDK (openjdk-17-jdk-headless): javac or keytool missing";
    config_ = temp_ / "x509auth-java.cfg";
    WriteFile(config_, "name = x509auth\nlibrary = " + ModulePath() + "\n");
  }

  // A JVM program with the test's environment and a time limit that allows
  // for its slow start on a loaded machine.
  ChildResult RunJdk(const std::vector<std::string>& argv) const {
    ChildRun run;
    run.argv = argv;
    run.env = Environment();
    run.cwd = temp_.path().string();
    run.limit = std::chrono::seconds(120);
    return RunChild(run);
  }

  // The client's classes, compiled into the test's directory.
  std::string CompileClient() const {
    const std::string classes = (temp_ / "classes").string();
    const ChildResult compiled = RunJdk(
        {"javac", "-d", classes, std::string(X509AUTH_PKCS11_JAVA_DIR) + "/Pkcs11Client.java"});
    EXPECT_EQ(compiled.status, 0) << compiled.out << compiled.err;
    return classes;
  }

  std::filesystem::path config_;
  TlsTestServer server_{temp_.path()};
};

TEST_F(Pkcs11JavaTest, KeytoolListsTheModulesKeysAsPrivateKeyEntries) {
  Install(KeyKind::k_rsa, "Alice");
  Install(KeyKind::k_ec, "Bob", "s3cret");
  const ChildResult listed = RunJdk({"keytool", "-list", "-storetype", "PKCS11", "-providerClass",
                                     "sun.security.pkcs11.SunPKCS11", "-providerArg",
                                     config_.string(), "-storepass", "s3cret"});
  ASSERT_EQ(listed.status, 0) << listed.out << listed.err;
  EXPECT_NE(listed.out.find("Alice, PrivateKeyEntry"), std::string::npos) << listed.out;
  EXPECT_NE(listed.out.find("Bob, PrivateKeyEntry"), std::string::npos) << listed.out;
}

TEST_F(Pkcs11JavaTest, KeytoolWithAWrongPinOpensNoKeyStore) {
  Install(KeyKind::k_ec, "Bob", "s3cret");
  const ChildResult listed = RunJdk({"keytool", "-list", "-storetype", "PKCS11", "-providerClass",
                                     "sun.security.pkcs11.SunPKCS11", "-providerArg",
                                     config_.string(), "-storepass", "wrong"});
  EXPECT_NE(listed.status, 0) << listed.out;
  EXPECT_EQ(listed.out.find("PrivateKeyEntry"), std::string::npos) << listed.out;
}

TEST_F(Pkcs11JavaTest,
       JsseCompletesTls13And12HandshakesWithRsaEcAndPasswordProtectedKeysVerifiedByTheServer) {
  Install(KeyKind::k_rsa, "Alice");
  Install(KeyKind::k_ec, "Bob");
  Install(KeyKind::k_rsa, "Carol", "s3cret", 7);
  const std::string classes = CompileClient();
  // One server per handshake, all started first: one JVM does them all.
  struct Handshake {
    std::string name, protocol;
    std::unique_ptr<BackgroundChild> server;
  };
  std::vector<Handshake> handshakes;
  std::vector<std::string> argv = {"java",
                                   "-cp",
                                   classes,
                                   "Pkcs11Client",
                                   config_.string(),
                                   "s3cret",
                                   server_.CertificateFile().string()};
  for (const char* name : {"Alice", "Bob", "Carol"}) {
    for (const char* protocol : {"TLSv1.3", "TLSv1.2"}) {
      auto server = server_.Start(CasFile(), {"-www"});
      ASSERT_NE(server, nullptr);
      argv.push_back(std::string(name) + ":" + protocol + ":" + std::to_string(server_.Port()));
      handshakes.push_back(Handshake{name, protocol, std::move(server)});
    }
  }
  const ChildResult client = RunJdk(argv);
  EXPECT_EQ(client.status, 0) << client.out << client.err;
  for (Handshake& handshake : handshakes) {
    SCOPED_TRACE(handshake.name + " " + handshake.protocol);
    EXPECT_NE(client.out.find(handshake.name + " " + handshake.protocol + ": OK " +
                              handshake.protocol + " TLS_"),
              std::string::npos)
        << client.out << client.err;
    EXPECT_TRUE(TlsTestServer::Verified(*handshake.server, handshake.name))
        << handshake.server->Output();
  }
}

}  // namespace
}  // namespace x509auth_test
