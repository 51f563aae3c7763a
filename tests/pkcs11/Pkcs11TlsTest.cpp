// TLS client authentication through the module: gnutls-cli against a real
// openssl s_server that demands and verifies a client certificate, and ssh
// logging in to a local sshd with a key the module holds.
#include <openssl/pem.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "Pkcs11Fixture.h"
#include "TlsTestServer.h"

namespace x509auth_test {
namespace {

class Pkcs11TlsTest : public Pkcs11Test {
 protected:
  // gnutls-cli with the certificate and key of |name| named by pkcs11: URIs;
  // sends one request. Its PIN comes from GNUTLS_PIN.
  ChildResult GnutlsHandshake(const std::string& name, const std::string& version,
                              const std::string& pin) {
    const std::string uri = "pkcs11:token=x509auth;object=" + name;
    return Run(
        {"gnutls-cli", "--provider", ModulePath(), "--x509certfile", uri + ";type=cert",
         "--x509keyfile", uri + ";type=private", "--x509cafile", server_.CertificateFile().string(),
         "--verify-hostname", "localhost", "--priority", "NORMAL:-VERS-ALL:+VERS-" + version,
         "--port", std::to_string(server_.Port()), "127.0.0.1"},
        "GET / HTTP/1.0\r\n\r\n", {{"GNUTLS_PIN", pin}});
  }

  // With the sanitizer's runtime preloaded, gnutls-cli deadlocks at exit in
  // p11-kit's destructor (freelocale under glibc's locale lock), with any
  // module or none: nothing to learn about this one. The module's own code
  // runs under the sanitizers in the in-process tests.
  static bool SanitizerRuntimePreloaded() {
#ifdef X509AUTH_TEST_ASAN_RUNTIME
    return true;
#else
    return false;
#endif
  }

  TlsTestServer server_{temp_.path()};
};

TEST_F(Pkcs11TlsTest,
       GnutlsCliCompletesTls13And12HandshakesWithRsaAndEcKeysPlainAndPasswordProtected) {
  if (!HaveProgram("gnutls-cli")) GTEST_SKIP() << "gnutls-cli (gnutls-bin) missing";
  if (SanitizerRuntimePreloaded())
    GTEST_SKIP() << "gnutls-cli hangs at exit with the sanitizer runtime preloaded, module or not";
  Install(KeyKind::k_rsa, "Alice");
  Install(KeyKind::k_ec, "Bob");
  Install(KeyKind::k_rsa, "Carol", "s3cret", 7);
  Install(KeyKind::k_ec, "Dave", "s3cret", 8);
  for (const char* name : {"Alice", "Bob", "Carol", "Dave"}) {
    for (const char* version : {"TLS1.3", "TLS1.2"}) {
      SCOPED_TRACE(std::string(name) + " " + version);
      auto server = server_.Start(CasFile(), {"-www"});
      ASSERT_NE(server, nullptr);
      const ChildResult client = GnutlsHandshake(name, version, "s3cret");
      EXPECT_NE(client.out.find("Handshake was completed"), std::string::npos)
          << client.out << client.err;
      EXPECT_NE(client.out.find("(" + std::string(version) + "-X.509)"), std::string::npos)
          << client.out;
      EXPECT_NE(client.out.find("HTTP/1.0 200 ok"), std::string::npos) << client.out;
      EXPECT_TRUE(TlsTestServer::Verified(*server, name)) << server->Output();
    }
  }
}

TEST_F(Pkcs11TlsTest, GnutlsCliWithAWrongPinCompletesNoHandshake) {
  if (!HaveProgram("gnutls-cli")) GTEST_SKIP() << "gnutls-cli (gnutls-bin) missing";
  if (SanitizerRuntimePreloaded())
    GTEST_SKIP() << "gnutls-cli hangs at exit with the sanitizer runtime preloaded, module or not";
  Install(KeyKind::k_ec, "Dave", "s3cret");
  auto server = server_.Start(CasFile(), {"-www"});
  ASSERT_NE(server, nullptr);
  const ChildResult client = GnutlsHandshake("Dave", "TLS1.3", "wrong");
  EXPECT_NE(client.status, 0);
  EXPECT_EQ(client.out.find("HTTP/1.0 200 ok"), std::string::npos) << client.out;
  // The client gives up before connecting: nothing to wait for.
  server->Finish(std::chrono::milliseconds(0));
  EXPECT_EQ(server->Output().find("CN = Dave"), std::string::npos) << server->Output();
}

// A throwaway sshd on 127.0.0.1: its own host key, configuration and
// authorized_keys for root, stopped by the destructor.
class LocalSshd {
 public:
  LocalSshd(const std::filesystem::path& directory, const std::string& authorized_keys)
      : directory_(directory) {
    std::filesystem::create_directories(directory_);
    WriteFile(directory_ / "authorized_keys", authorized_keys);
    chmod(directory_.c_str(), 0700);
    chmod((directory_ / "authorized_keys").c_str(), 0600);
    ChildRun keygen;
    keygen.argv = {"ssh-keygen", "-q", "-t", "ed25519",
                   "-N",         "",   "-f", (directory_ / "host_key").string()};
    EXPECT_EQ(RunChild(keygen).status, 0);
    port_ = FreeLoopbackPort();
    WriteFile(directory_ / "sshd_config",
              "Port " + std::to_string(port_) + "\nListenAddress 127.0.0.1\nHostKey " +
                  (directory_ / "host_key").string() + "\nAuthorizedKeysFile " +
                  (directory_ / "authorized_keys").string() +
                  "\nPubkeyAuthentication yes\nPasswordAuthentication "
                  "no\nKbdInteractiveAuthentication no\n"
                  "UsePAM no\nPermitRootLogin prohibit-password\nStrictModes no\nPidFile " +
                  (directory_ / "sshd.pid").string() + "\n");
    std::filesystem::create_directories("/run/sshd");  // sshd's privilege separation directory
    ChildRun run;
    run.argv = {"/usr/sbin/sshd", "-D", "-e", "-f", (directory_ / "sshd_config").string()};
    server_ = std::make_unique<BackgroundChild>(run, (directory_ / "sshd.log").string());
    // sshd says nothing when it is ready: wait for the port to answer.
    for (int i = 0; i < 100 && !Listening(); ++i) usleep(50000);
  }
  ~LocalSshd() {
    if (server_ != nullptr) server_->Finish(std::chrono::milliseconds(0));
  }
  int Port() const { return port_; }
  std::string Log() const { return server_->Output(); }
  std::filesystem::path KnownHosts() const { return directory_ / "known_hosts"; }

 private:
  bool Listening() const {
    ChildRun probe;
    probe.argv = {"ssh-keyscan", "-p", std::to_string(port_), "-T", "1", "127.0.0.1"};
    const ChildResult result = RunChild(probe);
    if (result.out.empty()) return false;
    WriteFile(KnownHosts(), result.out);
    return true;
  }

  std::filesystem::path directory_;
  int port_ = -1;
  std::unique_ptr<BackgroundChild> server_;
};

// The OpenSSH public key line of a key, made by ssh-keygen from its PEM.
std::string SshPublicKey(const TempDir& temp, EVP_PKEY* key, const std::string& name) {
  const std::filesystem::path pem = temp / (name + ".pub.pem");
  const BioPtr bio(BIO_new(BIO_s_mem()));
  PEM_write_bio_PUBKEY(bio.get(), key);
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &data);
  WriteFile(pem, std::string(data, static_cast<std::size_t>(length)));
  ChildRun run;
  run.argv = {"ssh-keygen", "-i", "-m", "PKCS8", "-f", pem.string()};
  const ChildResult result = RunChild(run);
  EXPECT_EQ(result.status, 0) << result.err;
  return result.out;
}

TEST_F(Pkcs11TlsTest, SshLogsInWithRsaAndEcKeysOfTheModule) {
  if (!HaveProgram("ssh") || access("/usr/sbin/sshd", X_OK) != 0) GTEST_SKIP() << "openssh missing";
  if (getuid() != 0) GTEST_SKIP() << "the local sshd runs as root";
  for (const KeyKind kind : {KeyKind::k_rsa, KeyKind::k_ec}) {
    const std::string name = kind == KeyKind::k_rsa ? "Alice" : "Bob";
    SCOPED_TRACE(name);
    std::filesystem::remove_all(base_ / "certs");
    std::filesystem::create_directories(base_ / "certs");
    const InstalledClient& client = Install(kind, name);
    LocalSshd sshd(temp_ / ("sshd-" + name), SshPublicKey(temp_, client.key.get(), name));
    const ChildResult login =
        Run({"ssh", "-F", "/dev/null", "-I", ModulePath(), "-p", std::to_string(sshd.Port()), "-o",
             "BatchMode=yes", "-o", "IdentityFile=/dev/null", "-o",
             "UserKnownHostsFile=" + sshd.KnownHosts().string(), "-o", "StrictHostKeyChecking=yes",
             "-o", "ConnectTimeout=10", "root@127.0.0.1", "echo logged-in-as-$(id -un)"});
    EXPECT_EQ(login.status, 0) << login.err << sshd.Log();
    EXPECT_EQ(login.out, "logged-in-as-root\n") << login.err;
  }
}

}  // namespace
}  // namespace x509auth_test
