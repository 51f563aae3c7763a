#include "TlsTestServer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <utility>

#include "TestPki.h"

namespace x509auth_test {

TlsTestServer::TlsTestServer(std::filesystem::path directory) : directory_(std::move(directory)) {
  TestKey key = SharedKey(KeyKind::k_ec, 7);
  CertOptions options;
  options.common_name = "localhost";
  options.extended_key_usage = "serverAuth";
  options.key_usage = "critical,digitalSignature";
  TestX509 cert = MakeCert(options, key.get());
  WriteFile(CertificateFile(), CertToPem(cert.get()));
  WriteFile(directory_ / "server.key", KeyToPem(key.get()));
}

std::unique_ptr<BackgroundChild> TlsTestServer::Start(const std::filesystem::path& client_cas,
                                                      const std::vector<std::string>& extra) {
  // The port was free a moment ago; another process may take it first.
  for (int attempt = 0; attempt < 3; ++attempt) {
    port_ = FreeLoopbackPort();
    ChildRun run;
    run.argv = {OpensslProgram(),
                "s_server",
                "-accept",
                Address(),
                "-cert",
                CertificateFile().string(),
                "-key",
                (directory_ / "server.key").string(),
                "-Verify",
                "1",
                "-verify_return_error",
                "-CAfile",
                client_cas.string(),
                "-naccept",
                "1"};
    run.argv.insert(run.argv.end(), extra.begin(), extra.end());
    auto server = std::make_unique<BackgroundChild>(
        run, (directory_ / ("server-" + std::to_string(++started_) + ".log")).string());
    if (server->WaitForOutput("ACCEPT", std::chrono::seconds(10))) return server;
  }
  ADD_FAILURE() << "openssl s_server would not start";
  return nullptr;
}

bool TlsTestServer::Verified(BackgroundChild& server, const std::string& name) {
  server.Finish(std::chrono::seconds(10));
  return server.Output().find("depth=0 CN = " + name + "\nverify return:1") != std::string::npos;
}

void WriteUnrelatedCa(const std::filesystem::path& file) {
  TestKey key = MakeKey(KeyKind::k_ec);
  CertOptions options;
  options.common_name = "Unrelated CA";
  options.is_ca = true;
  options.key_usage = "critical,keyCertSign,cRLSign";
  TestX509 ca = MakeCert(options, key.get());
  WriteFile(file, CertToPem(ca.get()));
}

}  // namespace x509auth_test
