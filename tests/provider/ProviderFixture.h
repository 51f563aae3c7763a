#pragma once
// Tests of the provider through real OpenSSL programs: openssl s_client,
// pkeyutl and storeutl load the module from the build tree, and a real
// openssl s_server on 127.0.0.1 that requires and verifies a client
// certificate says which client it verified. Every child has a time limit,
// and the server is killed by the test at the latest.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "TestPki.h"

namespace x509auth_test {

class ProviderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    old_cwd_ = std::filesystem::current_path();
    work_ = temp_ / "work";
    base_ = temp_ / "base";
    std::filesystem::create_directories(work_);
    std::filesystem::create_directories(base_);
    // The real OpenSC module with no reader attached: no tokens, no error.
    std::filesystem::create_symlink(OPENSC_MODULE_PATH, work_ / "opensc-pkcs11.so");
    ASSERT_EQ(chdir(work_.c_str()), 0);
    MakeServerCertificate();
  }

  void TearDown() override {
    if (chdir(old_cwd_.c_str()) != 0) ADD_FAILURE() << "cannot restore the working directory";
  }

  // A client certificate below a root and an intermediate CA, installed in
  // base/certs with its key in base/keys (encrypted with |password| when
  // given); both CAs are appended to cas.pem. Returns the thumbprint (hex).
  std::string InstallClient(KeyKind kind, const std::string& name, const char* password = nullptr) {
    Chain chain = MakeChain(kind, name);
    const std::string file = name + ".pem";
    WriteFile(base_ / "certs" / file, CertToPem(chain.leaf.get()));
    WriteFile(base_ / "keys" / (file + ".key"), KeyToPem(chain.leaf_key.get(), password));
    AddCas(chain);
    leaf_certs_[name] = CertToPem(chain.leaf.get());
    chains_.push_back(std::move(chain));
    return Hex(Sha1Thumbprint(chains_.back().leaf.get()));
  }

  void AddCas(const Chain& chain) {
    cas_pem_ += CertToPem(chain.root.get()) + CertToPem(chain.intermediate.get());
    WriteFile(temp_ / "cas.pem", cas_pem_);
  }

  static std::string Hex(const Bytes& bytes) {
    std::string text;
    char pair[3];
    for (unsigned char b : bytes) {
      std::snprintf(pair, sizeof pair, "%02x", b);
      text += pair;
    }
    return text;
  }

  std::filesystem::path CasFile() const { return temp_ / "cas.pem"; }

  // What every openssl child gets: the provider's settings in the
  // environment, and the sanitizer runtime when the module is instrumented.
  std::map<std::string, std::string> Environment() const {
    std::map<std::string, std::string> env = SanitizerEnvironment();
    env["X509AUTH_DIRS"] = base_.string();
    env["X509AUTH_CA_FILES"] = CasFile().string();
    env["X509AUTH_LOG"] = "error";
    return env;
  }

  static std::vector<std::string> ProviderArguments() {
    return {"-provider-path", X509AUTH_PROVIDER_DIR, "-provider", "x509auth", "-provider", "default"};
  }

  // openssl <command> <provider arguments> <arguments>
  ChildResult Openssl(const std::string& command, const std::vector<std::string>& arguments,
                      const std::string& input = "", bool with_provider = true) const {
    ChildRun run;
    run.argv = {OpensslProgram(), command};
    if (with_provider)
      for (const std::string& a : ProviderArguments()) run.argv.push_back(a);
    run.argv.insert(run.argv.end(), arguments.begin(), arguments.end());
    run.env = Environment();
    run.input = input;
    run.cwd = cwd_override_.empty() ? std::filesystem::current_path().string() : cwd_override_.string();
    for (const auto& [name, value] : env_override_) run.env[name] = value;
    run.limit = std::chrono::seconds(40);
    return RunChild(run);
  }

  // A real TLS server demanding a client certificate issued by a CA of
  // |client_cas|; serves one connection. Null (after a test failure) when it
  // would not start.
  std::unique_ptr<BackgroundChild> StartServer(const std::filesystem::path& client_cas,
                                               const std::vector<std::string>& extra = {}) {
    for (int attempt = 0; attempt < 3; ++attempt) {
      port_ = FreeLoopbackPort();
      ChildRun run;
      run.argv = {OpensslProgram(), "s_server", "-accept", "127.0.0.1:" + std::to_string(port_),
                  "-cert", (temp_ / "server.pem").string(), "-key", (temp_ / "server.key").string(),
                  "-Verify", "1", "-verify_return_error", "-CAfile", client_cas.string(),
                  "-naccept", "1", "-www"};
      run.argv.insert(run.argv.end(), extra.begin(), extra.end());
      run.env = SanitizerEnvironment();
      auto server = std::make_unique<BackgroundChild>(
          run, (temp_ / ("server-" + std::to_string(attempt) + ".log")).string());
      if (server->WaitForOutput("ACCEPT", std::chrono::seconds(10))) return server;
    }
    ADD_FAILURE() << "openssl s_server would not start";
    return nullptr;
  }

  // s_client with the certificate and key of |thumbprint| from the provider.
  ChildResult Handshake(const std::string& thumbprint, const std::vector<std::string>& extra) const {
    std::vector<std::string> args = {"-connect", "127.0.0.1:" + std::to_string(port_),
                                     "-cert", "x509auth:thumbprint=" + thumbprint,
                                     "-key", "x509auth:thumbprint=" + thumbprint,
                                     "-CAfile", (temp_ / "server.pem").string(),
                                     "-verify_return_error", "-ign_eof"};
    args.insert(args.end(), extra.begin(), extra.end());
    return Openssl("s_client", args, "GET / HTTP/1.0\r\n\r\n");
  }

  // The client certificate the server verified: its depth-0 subject,
  // accepted. (The handshake itself may still fail after this.)
  static bool ServerVerified(BackgroundChild& server, const std::string& name) {
    server.Finish(std::chrono::seconds(10));
    const std::string log = server.Output();
    return log.find("depth=0 CN = " + name + "\nverify return:1") != std::string::npos;
  }

  // The handshake was completed: the server answered the request.
  static bool Answered(const ChildResult& client) {
    return client.status == 0 && client.out.find("HTTP/1.0 200 ok") != std::string::npos;
  }

  // For one test: where the openssl children run, and extra environment.
  std::filesystem::path cwd_override_;
  std::map<std::string, std::string> env_override_;

  TempDir temp_;
  std::filesystem::path work_, base_, old_cwd_;
  std::vector<Chain> chains_;
  std::map<std::string, std::string> leaf_certs_;
  std::string cas_pem_;
  int port_ = -1;

 private:
  void MakeServerCertificate() {
    TestKey key = SharedKey(KeyKind::kEc, 7);
    CertOptions options;
    options.common_name = "localhost";
    options.extended_key_usage = "serverAuth";
    options.key_usage = "critical,digitalSignature";
    TestX509 cert = MakeCert(options, key.get());
    WriteFile(temp_ / "server.pem", CertToPem(cert.get()));
    WriteFile(temp_ / "server.key", KeyToPem(key.get()));
  }
};

}  // namespace x509auth_test
