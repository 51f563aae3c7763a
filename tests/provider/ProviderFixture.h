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
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "ScopedTestEnvironment.h"
#include "TestPki.h"
#include "TlsTestServer.h"

namespace x509auth_test {

// How a key file is stored.
enum class KeyForm { k_pem, k_der, k_encrypted };
inline constexpr const char* k_key_password = "key-file-secret";

// How many times |what| stands in |text|, overlaps included.
inline std::size_t Count(const std::string& text, const std::string& what) {
  std::size_t count = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
    ++count;
  return count;
}

class ProviderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    work_ = temp_ / "work";
    base_ = temp_ / "base";
    std::filesystem::create_directories(work_);
    std::filesystem::create_directories(base_);
    // No module here: the provider takes Debian's OpenSC module by its
    // absolute path (no reader attached: no tokens, no error) and never
    // looks in the working directory.
    ASSERT_TRUE(env_.Enter(work_));
  }

  // A client certificate below a root and an intermediate CA, installed in
  // base/certs with its key in base/keys (encrypted with |password| when
  // given); both CAs are appended to cas.pem. Returns the thumbprint (hex).
  std::string InstallClient(KeyKind kind, const std::string& name, const char* password = nullptr) {
    return InstallClientWithKey(
        kind, name, password != nullptr ? KeyForm::k_encrypted : KeyForm::k_pem, password);
  }

  // The same with the key file in |form|; an encrypted one is PKCS#8 under
  // |password| (k_key_password by default).
  std::string InstallClientWithKey(KeyKind kind, const std::string& name, KeyForm form,
                                   const char* password = nullptr) {
    Chain chain = MakeChain(kind, name);
    const std::string file = name + ".pem";
    WriteFile(base_ / "certs" / file, CertToPem(chain.leaf.get()));
    const std::filesystem::path key_file = base_ / "keys" / (file + ".key");
    switch (form) {
      case KeyForm::k_pem: WriteFile(key_file, KeyToPem(chain.leaf_key.get())); break;
      case KeyForm::k_der: WriteFile(key_file, KeyToDer(chain.leaf_key.get())); break;
      case KeyForm::k_encrypted:
        WriteFile(key_file,
                  KeyToPem(chain.leaf_key.get(), password != nullptr ? password : k_key_password));
        break;
    }
    AddCas(chain);
    leaf_certs_[name] = CertToPem(chain.leaf.get());
    chains_.push_back(std::move(chain));
    return LowerHex(Sha1Thumbprint(chains_.back().leaf.get()));
  }

  void AddCas(const Chain& chain) {
    cas_pem_ += CertToPem(chain.root.get()) + CertToPem(chain.intermediate.get());
    WriteFile(temp_ / "cas.pem", cas_pem_);
  }

  std::filesystem::path CasFile() const { return temp_ / "cas.pem"; }

  // An openssl.cnf loading the module from the build tree with |settings|
  // in its section.
  std::filesystem::path WriteOpensslConfig(const std::string& settings) const {
    const std::filesystem::path cnf = temp_ / "openssl.cnf";
    std::ofstream(cnf) << "openssl_conf = openssl_init\n"
                          "[openssl_init]\nproviders = provider_sect\n"
                          "[provider_sect]\ndefault = default_sect\nx509auth = x509auth_sect\n"
                          "[default_sect]\nactivate = 1\n"
                          "[x509auth_sect]\nmodule = " X509AUTH_PROVIDER_DIR
                          "/x509auth.so\n"
                          "activate = 1\n" +
                              settings;
    return cnf;
  }

  // What every openssl child gets: the provider's settings in the
  // environment, and the sanitizer runtime when the module is instrumented.
  std::map<std::string, std::string> Environment() const {
    std::map<std::string, std::string> env = SanitizerEnvironment();
    env["X509AUTH_DIRS"] = base_.string();
    env["X509AUTH_CA_FILES"] = CasFile().string();
    return env;
  }

  static std::vector<std::string> ProviderArguments() {
    return {"-provider-path", X509AUTH_PROVIDER_DIR, "-provider",
            "x509auth",       "-provider",           "default"};
  }

  // openssl <command> <provider arguments> <arguments>
  ChildResult Openssl(const std::string& command, const std::vector<std::string>& arguments,
                      const std::string& input = "", bool with_provider = true) const {
    ChildRun run;
    run.argv = launcher_;
    run.argv.push_back(OpensslProgram());
    run.argv.push_back(command);
    if (with_provider)
      for (const std::string& a : ProviderArguments()) run.argv.push_back(a);
    run.argv.insert(run.argv.end(), arguments.begin(), arguments.end());
    run.env = Environment();
    run.input = input;
    run.cwd =
        cwd_override_.empty() ? std::filesystem::current_path().string() : cwd_override_.string();
    for (const auto& [name, value] : env_override_) run.env[name] = value;
    run.limit = std::chrono::seconds(40);
    return RunChild(run);
  }

  // A real TLS server demanding a client certificate issued by a CA of
  // |client_cas|; answers one HTTP request. Null (after a test failure) when
  // it would not start.
  std::unique_ptr<BackgroundChild> StartServer(const std::filesystem::path& client_cas) {
    return server_.Start(client_cas, {"-www"});
  }

  // A real TLS server demanding a client certificate that sends every line
  // back reversed.
  std::unique_ptr<BackgroundChild> StartReversingServer() {
    return server_.Start(CasFile(), {"-rev"});
  }

  // s_client with nothing but the provider's certificate and key (and
  // |extra|), sending one line to a reversing server; "CLOSE" makes the
  // server end the connection, and with it the client.
  ChildResult SendLine(const std::string& thumbprint, const std::vector<std::string>& extra) const {
    return Openssl("s_client", ClientArguments(thumbprint, extra),
                   "hello through x509auth\nCLOSE\n");
  }

  // The reversing server's answer came back.
  static bool LineCameBack(const ChildResult& client) {
    return client.out.find("htua905x hguorht olleh") != std::string::npos;
  }

  // s_client with the certificate and key of |thumbprint| from the provider.
  ChildResult Handshake(const std::string& thumbprint,
                        const std::vector<std::string>& extra) const {
    return Openssl("s_client", ClientArguments(thumbprint, extra), "GET / HTTP/1.0\r\n\r\n");
  }

  // s_client's arguments: the server, the provider's certificate and key of
  // |thumbprint|, the server's certificate to verify it with, then |extra|.
  std::vector<std::string> ClientArguments(const std::string& thumbprint,
                                           const std::vector<std::string>& extra) const {
    std::vector<std::string> args = {"-connect",
                                     server_.Address(),
                                     "-cert",
                                     "x509auth:thumbprint=" + thumbprint,
                                     "-key",
                                     "x509auth:thumbprint=" + thumbprint,
                                     "-CAfile",
                                     server_.CertificateFile().string(),
                                     "-verify_return_error",
                                     "-ign_eof"};
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
  }

  static bool ServerVerified(BackgroundChild& server, const std::string& name) {
    return TlsTestServer::Verified(server, name);
  }

  // The handshake was completed: the server answered the request.
  static bool Answered(const ChildResult& client) {
    return client.status == 0 && client.out.find("HTTP/1.0 200 ok") != std::string::npos;
  }

  // For one test: where the openssl children run, extra environment, and
  // what runs the openssl program (valgrind).
  std::filesystem::path cwd_override_;
  std::map<std::string, std::string> env_override_;
  std::vector<std::string> launcher_;

  TempDir temp_;
  TlsTestServer server_{temp_.path()};
  std::filesystem::path work_, base_;
  // After temp_: the working directory is left before the directory goes.
  ScopedTestEnvironment env_;
  std::vector<Chain> chains_;
  std::map<std::string, std::string> leaf_certs_;
  std::string cas_pem_;
};

}  // namespace x509auth_test
