// The provider's private-key work as a long-lived program feels it, each
// beside its floor in the same library context: one digest-signature made
// as libssl makes it (EVP_DigestSignInit_ex then EVP_DigestSign), and 500
// TLS 1.3 handshakes with client authentication in one process, the client
// key through the provider (x509auth:thumbprint=...) or in memory. P-256,
// RSA-2048 and a password-protected RSA-2048 key file. Run with
// --benchmark_enable_random_interleaving=true --benchmark_repetitions=N so
// that the pairs are measured interleaved.
#include <benchmark/benchmark.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/provider.h>
#include <openssl/ssl.h>
#include <openssl/store.h>
#include <openssl/ui.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "BenchMain.h"
#include "MemoryHandshake.h"
#include "ProviderContext.h"
#include "TestPki.h"

namespace {

using namespace x509auth_test;
namespace fs = std::filesystem;

constexpr int k_handshakes = 500;
constexpr const char* k_password = "bench-secret";

enum Material { k_p256, k_rsa, k_rsa_locked };

int PemCallback(char* buffer, int size, int, void*) {
  return x509auth_bench::AnswerPassword(buffer, size, k_password);
}

using x509auth_bench::LoadKeyThroughStore;
using x509auth_bench::SslCtxPtr;

// One library context with the provider built in and OpenSSL's default
// provider, client certificates with key files in a "certs"/"keys" base,
// and a server that asks for a client certificate.
class Bench {
 public:
  static Bench& Get() {
    static Bench bench;
    return bench;
  }

  struct Client {
    TestKey key;
    TestX509 cert;
    EvpPkeyPtr through_provider;
    EvpPkeyPtr in_memory;
  };

  Client& ClientFor(Material material) { return clients_.at(material); }
  OSSL_LIB_CTX* Ctx() const { return ctx_.get(); }
  SSL_CTX* Server() const { return server_.get(); }

 private:
  Bench() {
    const fs::path base = dir_.path() / "base";
    fs::create_directories(base / "certs");
    fs::create_directories(base / "keys");
    ca_key_ = MakeKey(KeyKind::k_ec);
    CertOptions ca_options;
    ca_options.common_name = "Bench CA";
    ca_options.is_ca = true;
    ca_options.key_usage = "critical,keyCertSign";
    ca_ = MakeCert(ca_options, ca_key_.get());
    WriteFile(dir_.path() / "ca.pem", CertToPem(ca_.get()));
    setenv("X509AUTH_DIRS", base.c_str(), 1);
    setenv("X509AUTH_CA_FILES", (dir_.path() / "ca.pem").c_str(), 1);
    setenv("X509AUTH_MODULE", "none", 1);
    setenv("X509AUTH_LOG", "none", 1);

    ctx_.reset(OSSL_LIB_CTX_new());
    if (OSSL_PROVIDER_add_builtin(ctx_.get(), "x509auth",
                                  x509auth_provider::X509AuthProviderInit) != 1)
      throw std::runtime_error("provider not added");
    x509auth_.reset(OSSL_PROVIDER_load(ctx_.get(), "x509auth"));
    default_.reset(OSSL_PROVIDER_load(ctx_.get(), "default"));
    if (!x509auth_ || !default_) throw std::runtime_error("providers not loaded");
    ui_.reset(UI_UTIL_wrap_read_pem_callback(PemCallback, 0));

    const struct {
      Material material;
      KeyKind kind;
      const char* name;
      const char* password;
    } made[] = {{k_p256, KeyKind::k_ec, "p256", nullptr},
                {k_rsa, KeyKind::k_rsa, "rsa", nullptr},
                {k_rsa_locked, KeyKind::k_rsa, "rsa-locked", k_password}};
    for (const auto& m : made) {
      Client client;
      client.key = MakeKey(m.kind);
      CertOptions options;
      options.common_name = m.name;
      options.extended_key_usage = "clientAuth";
      options.key_usage = "critical,digitalSignature,keyEncipherment";
      client.cert = MakeCert(options, client.key.get(), ca_.get(), ca_key_.get());
      WriteFile(base / "certs" / (std::string(m.name) + ".pem"), CertToPem(client.cert.get()));
      WriteFile(base / "keys" / (std::string(m.name) + ".pem.key"),
                KeyToPem(client.key.get(), m.password));
      clients_.emplace(m.material, std::move(client));
    }
    // Files changed within the last two seconds are compared byte for byte
    // at each use; a long-lived program's key files are older than that.
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    for (auto& [material, client] : clients_) {
      client.through_provider.reset(LoadThroughProvider(client.cert.get()));
      // The floor: the same key parsed once into the same library context.
      const std::string pem = KeyToPem(client.key.get());
      BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
      client.in_memory.reset(
          PEM_read_bio_PrivateKey_ex(bio.get(), nullptr, nullptr, nullptr, ctx_.get(), nullptr));
      if (!client.through_provider || !client.in_memory)
        throw std::runtime_error("a client key did not load");
    }

    server_key_ = MakeKey(KeyKind::k_ec);
    CertOptions server_options;
    server_options.common_name = "localhost";
    server_cert_ = MakeCert(server_options, server_key_.get());
    server_.reset(SSL_CTX_new_ex(ctx_.get(), nullptr, TLS_server_method()));
    SSL_CTX_set_min_proto_version(server_.get(), TLS1_3_VERSION);
    SSL_CTX_use_certificate(server_.get(), server_cert_.get());
    SSL_CTX_use_PrivateKey(server_.get(), server_key_.get());
    SSL_CTX_set_verify(server_.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    X509_STORE_add_cert(SSL_CTX_get_cert_store(server_.get()), ca_.get());
    SSL_CTX_set_session_cache_mode(server_.get(), SSL_SESS_CACHE_OFF);
    SSL_CTX_set_num_tickets(server_.get(), 0);
  }

  EVP_PKEY* LoadThroughProvider(X509* cert) {
    return LoadKeyThroughStore("x509auth:thumbprint=" + LowerHex(Sha1Thumbprint(cert)), ctx_.get(),
                               ui_.get());
  }

  TempDir dir_;
  TestKey ca_key_, server_key_;
  TestX509 ca_, server_cert_;
  LibCtxPtr ctx_;
  OsslProviderPtr x509auth_, default_;
  UiMethodPtr ui_;
  std::map<Material, Client> clients_;
  SslCtxPtr server_;
};

EVP_PKEY* KeyOf(Material material, bool provider) {
  Bench::Client& client = Bench::Get().ClientFor(material);
  return provider ? client.through_provider.get() : client.in_memory.get();
}

void DigestSign(benchmark::State& state, Material material, bool provider) {
  OSSL_LIB_CTX* ctx = Bench::Get().Ctx();
  EVP_PKEY* key = KeyOf(material, provider);
  unsigned char data[128] = {1, 2, 3};
  unsigned char signature[512];
  for (auto _ : state) {
    EvpMdCtxPtr md(EVP_MD_CTX_new());
    std::size_t length = sizeof signature;
    if (EVP_DigestSignInit_ex(md.get(), nullptr, "SHA256", ctx, nullptr, key, nullptr) != 1 ||
        EVP_DigestSign(md.get(), signature, &length, data, sizeof data) != 1) {
      state.SkipWithError("signature failed");
      break;
    }
    benchmark::DoNotOptimize(signature[0]);
  }
}

void Handshakes(benchmark::State& state, Material material, bool provider) {
  Bench& bench = Bench::Get();
  Bench::Client& client = bench.ClientFor(material);
  x509auth_bench::ClientHandshakes(state, bench.Ctx(), client.cert.get(), KeyOf(material, provider),
                                   bench.Server(), k_handshakes);
}

BENCHMARK_CAPTURE(DigestSign, P256_Provider, k_p256, true);
BENCHMARK_CAPTURE(DigestSign, P256_InMemory, k_p256, false);
BENCHMARK_CAPTURE(DigestSign, Rsa2048_Provider, k_rsa, true);
BENCHMARK_CAPTURE(DigestSign, Rsa2048_InMemory, k_rsa, false);
BENCHMARK_CAPTURE(Handshakes, P256_Provider, k_p256, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Handshakes, P256_InMemory, k_p256, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Handshakes, Rsa2048_Provider, k_rsa, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Handshakes, Rsa2048_InMemory, k_rsa, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Handshakes, Rsa2048Locked_Provider, k_rsa_locked, true)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Handshakes, Rsa2048Locked_InMemory, k_rsa_locked, false)
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  return x509auth_bench::RunBenchmarks(argc, argv, [] { Bench::Get(); });
}
