#pragma once
// A real openssl s_server on 127.0.0.1 for TLS tests: it demands a client
// certificate issued by a CA of a given file, verifies it and serves one
// connection. Its log says which client it verified, which is how tests see
// the handshake from the server's side.
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "ChildProcess.h"

namespace x509auth_test {

class TlsTestServer {
 public:
  // Writes the server's certificate (CN=localhost, serverAuth) and key into
  // |directory|, where the server's logs go too.
  explicit TlsTestServer(std::filesystem::path directory);

  // The server's certificate: what a client passes as its -CAfile.
  std::filesystem::path CertificateFile() const { return directory_ / "server.pem"; }
  // The port of the last server started, or of none.
  int Port() const { return port_; }
  std::string Address() const { return "127.0.0.1:" + std::to_string(port_); }

  // Starts a server trusting the CAs in |client_cas|; |extra| is what it
  // does with the connection ("-www", "-rev"). Null, after a test failure,
  // when none would start in three tries on fresh ports.
  std::unique_ptr<BackgroundChild> Start(const std::filesystem::path& client_cas,
                                         const std::vector<std::string>& extra);

  // Waits for |server| to end, then whether it verified a client whose
  // subject is CN=|name|. (The handshake itself may still fail after this.)
  static bool Verified(BackgroundChild& server, const std::string& name);

 private:
  std::filesystem::path directory_;
  int port_ = -1;
  int started_ = 0;
};

// A CA named "Unrelated CA" with a key of its own, written to |file|: a
// server that trusts only it verifies none of the tests' clients.
void WriteUnrelatedCa(const std::filesystem::path& file);

}  // namespace x509auth_test
