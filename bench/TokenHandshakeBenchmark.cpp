// 500 TLS 1.3 handshakes with client authentication in one process, the
// client key on a SoftHSM2 token: through the x509auth provider (an open
// token key, the token watch on, as the provider runs it) beside libp11's
// engine holding the same key. Client and server in memory, both in the
// default library context (the engine knows no other). A process of its
// own: SOFTHSM2_CONF, the provider's settings and the engine are
// process-wide. Run with --benchmark_enable_random_interleaving=true
// --benchmark_repetitions=N so that the pairs are measured interleaved.
#include <benchmark/benchmark.h>
#include <openssl/engine.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/provider.h>
#include <openssl/ssl.h>
#include <openssl/store.h>
#include <openssl/ui.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>

#include "BenchMain.h"
#include "BenchMaterial.h"
#include "MemoryHandshake.h"
#include "ProviderContext.h"
#include "SoftHsmToken.h"
#include "TestPki.h"

namespace {

using namespace x509auth_test;
using namespace x509auth_bench;

constexpr int k_handshakes = 500;

enum Kind { k_p256, k_rsa };

int PinCallback(char* buffer, int size, int, void*) {
  return x509auth_bench::AnswerPassword(buffer, size, SoftHsmToken::k_default_pin);
}

// Releases the engine's functional and structural references.
struct EngineRelease {
  void operator()(ENGINE* engine) const {
    ENGINE_finish(engine);
    ENGINE_free(engine);
  }
};

class Bench {
 public:
  static Bench& Get() {
    static Bench bench;
    return bench;
  }

  struct Client {
    TestX509 cert;
    EvpPkeyPtr through_provider;
    EvpPkeyPtr through_engine;
  };

  Client& ClientFor(Kind kind) { return clients_.at(kind); }
  SSL_CTX* Server() const { return server_.get(); }

 private:
  Bench() {
    hsm_.InitToken("Bench");
    Keys& keys = SharedKeys();
    const struct {
      Kind kind;
      EVP_PKEY* key;
      const char* name;
      const char* id;
    } made[] = {{k_p256, keys.ec_key.get(), "ec", "02"}, {k_rsa, keys.rsa_key.get(), "rsa", "01"}};
    for (const auto& m : made) {
      CertOptions options;
      options.common_name = std::string("Token ") + m.name;
      options.extended_key_usage = "clientAuth";
      options.key_usage = "critical,digitalSignature";
      Client client;
      client.cert = MakeCert(options, m.key, keys.ca.get(), keys.ca_key.get());
      hsm_.ImportCertAndKey("Bench", client.cert.get(), m.key, m.id, m.name);
      clients_.emplace(m.kind, std::move(client));
    }
    WriteFile(dir_.path() / "ca.pem", CertToPem(keys.ca.get()));
    const std::string module = SoftHsmToken::ModulePath().string();
    setenv("X509AUTH_DIRS", dir_.path().c_str(), 1);  // no certs folder: token only
    setenv("X509AUTH_CA_FILES", (dir_.path() / "ca.pem").c_str(), 1);
    setenv("X509AUTH_MODULE", module.c_str(), 1);
    setenv("X509AUTH_LOG", "none", 1);

    if (OSSL_PROVIDER_add_builtin(nullptr, "x509auth", x509auth_provider::X509AuthProviderInit) !=
        1)
      throw std::runtime_error("provider not added");
    default_.reset(OSSL_PROVIDER_load(nullptr, "default"));
    x509auth_.reset(OSSL_PROVIDER_load(nullptr, "x509auth"));
    if (!x509auth_ || !default_) throw std::runtime_error("providers not loaded");
    ui_.reset(UI_UTIL_wrap_read_pem_callback(PinCallback, 0));

    engine_.reset(ENGINE_by_id("pkcs11"));
    if (!engine_ || ENGINE_ctrl_cmd_string(engine_.get(), "MODULE_PATH", module.c_str(), 0) != 1 ||
        ENGINE_ctrl_cmd_string(engine_.get(), "PIN", SoftHsmToken::k_default_pin, 0) != 1 ||
        ENGINE_init(engine_.get()) != 1)
      throw std::runtime_error("libp11's engine (libengine-pkcs11-openssl) did not start");

    for (const auto& m : made) {
      Client& client = clients_.at(m.kind);
      client.through_provider.reset(LoadThroughProvider(client.cert.get()));
      const std::string uri = std::string("pkcs11:token=Bench;object=") + m.name + ";type=private";
      client.through_engine.reset(
          ENGINE_load_private_key(engine_.get(), uri.c_str(), nullptr, nullptr));
      if (!client.through_provider || !client.through_engine)
        throw std::runtime_error("a token key did not load");
    }

    server_key_ = MakeKey(KeyKind::k_ec);
    CertOptions server_options;
    server_options.common_name = "localhost";
    server_cert_ = MakeCert(server_options, server_key_.get());
    server_.reset(SSL_CTX_new(TLS_server_method()));
    SSL_CTX_set_min_proto_version(server_.get(), TLS1_3_VERSION);
    SSL_CTX_use_certificate(server_.get(), server_cert_.get());
    SSL_CTX_use_PrivateKey(server_.get(), server_key_.get());
    SSL_CTX_set_verify(server_.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    X509_STORE_add_cert(SSL_CTX_get_cert_store(server_.get()), keys.ca.get());
    SSL_CTX_set_session_cache_mode(server_.get(), SSL_SESS_CACHE_OFF);
    SSL_CTX_set_num_tickets(server_.get(), 0);
  }

  EVP_PKEY* LoadThroughProvider(X509* cert) {
    return LoadKeyThroughStore("x509auth:thumbprint=" + LowerHex(Sha1Thumbprint(cert)), nullptr,
                               ui_.get());
  }

  SoftHsmToken hsm_;
  TempDir dir_;
  OsslProviderPtr default_, x509auth_;
  UiMethodPtr ui_;
  std::unique_ptr<ENGINE, EngineRelease> engine_;
  std::map<Kind, Client> clients_;
  TestKey server_key_;
  TestX509 server_cert_;
  SslCtxPtr server_;
};

void Handshakes(benchmark::State& state, Kind kind, bool provider) {
  Bench& bench = Bench::Get();
  Bench::Client& client = bench.ClientFor(kind);
  x509auth_bench::ClientHandshakes(
      state, nullptr, client.cert.get(),
      provider ? client.through_provider.get() : client.through_engine.get(), bench.Server(),
      k_handshakes);
}

BENCHMARK_CAPTURE(Handshakes, TokenP256_Provider, k_p256, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Handshakes, TokenP256_Engine, k_p256, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Handshakes, TokenRsa2048_Provider, k_rsa, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Handshakes, TokenRsa2048_Engine, k_rsa, false)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  return x509auth_bench::RunBenchmarks(argc, argv, [] { Bench::Get(); });
}
