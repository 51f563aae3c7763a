// What a host pays per request: X509_Auth_SignHash (a fresh store scan, key
// file read and match, then the signature) and X509_Auth_LoadClientCertificates,
// each beside the bare OpenSSL work on the same key and certificate.
// Compare the pairs' ratio within one run, not absolute times.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <unistd.h>

#include <filesystem>

#include "TestPki.h"
#include "x509_auth.h"

namespace {

using namespace x509auth_test;

// One certificate directory with an RSA and an EC client certificate, and a
// working directory with the PKCS#11 module (no reader: no tokens).
struct Fixture {
  Fixture() {
    rsa_key = MakeKey(KeyKind::kRsa);
    ec_key = MakeKey(KeyKind::kEc);
    CertOptions options;
    options.extended_key_usage = "clientAuth";
    options.key_usage = "critical,digitalSignature,keyCertSign";
    options.common_name = "Bench RSA";
    rsa = MakeCert(options, rsa_key.get());
    options.common_name = "Bench EC";
    ec = MakeCert(options, ec_key.get());
    InstallFileCert(dir.path() / "base", "rsa.pem", rsa.get(), rsa_key.get());
    InstallFileCert(dir.path() / "base", "ec.pem", ec.get(), ec_key.get());
    std::filesystem::create_directories(dir.path() / "work");
    std::filesystem::create_symlink(OPENSC_MODULE_PATH, dir.path() / "work" / "opensc-pkcs11.so");
    if (chdir((dir.path() / "work").c_str()) != 0) std::abort();
    base = (dir.path() / "base").string();
    const char* dirs[] = {base.c_str()};
    const X509_Auth_Settings settings{dirs, 1, nullptr, 0};
    X509_Auth_Init(&settings, X509_Auth_Callbacks{});
    rsa_thumbprint = Sha1Thumbprint(rsa.get());
    ec_thumbprint = Sha1Thumbprint(ec.get());
  }
  TempDir dir;
  TestKey rsa_key, ec_key;
  TestX509 rsa, ec;
  std::string base;
  Bytes rsa_thumbprint, ec_thumbprint;
};

Fixture& Get() {
  static Fixture fixture;
  return fixture;
}

void SignThroughLibrary(benchmark::State& state, bool rsa) {
  Fixture& f = Get();
  const Bytes digest(32, 0x5a);
  const uint32_t algorithms[] = {1, 2};
  const Bytes& thumbprint = rsa ? f.rsa_thumbprint : f.ec_thumbprint;
  for (auto _ : state) {
    const X509_Auth_Signature* signature = nullptr;
    const X509_Auth_Result result = X509_Auth_SignHash(thumbprint.data(), 2, algorithms,
                                                       X509_Auth_HashType_Sha256, digest.data(),
                                                       &signature);
    if (result.code != 0) state.SkipWithError("signing failed");
    X509_Auth_Free(signature);
  }
}

void SignWithBareOpenSsl(benchmark::State& state, bool rsa) {
  Fixture& f = Get();
  EVP_PKEY* key = rsa ? f.rsa_key.get() : f.ec_key.get();
  const Bytes digest(32, 0x5a);
  Bytes signature(512);
  for (auto _ : state) {
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(key, nullptr);
    EVP_PKEY_sign_init(ctx);
    if (rsa) {
      EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING);
      EVP_PKEY_CTX_set_signature_md(ctx, EVP_sha256());
    }
    size_t length = signature.size();
    if (EVP_PKEY_sign(ctx, signature.data(), &length, digest.data(), digest.size()) <= 0)
      state.SkipWithError("bare signing failed");
    EVP_PKEY_CTX_free(ctx);
  }
}

void BM_SignHashRsa_Library(benchmark::State& state) { SignThroughLibrary(state, true); }
void BM_SignHashRsa_BareOpenSsl(benchmark::State& state) { SignWithBareOpenSsl(state, true); }
void BM_SignHashEc_Library(benchmark::State& state) { SignThroughLibrary(state, false); }
void BM_SignHashEc_BareOpenSsl(benchmark::State& state) { SignWithBareOpenSsl(state, false); }

void BM_LoadClientCertificates_Library(benchmark::State& state) {
  Get();
  for (auto _ : state) {
    uint64_t count = 0;
    const X509_Auth_Certificate* certificates = nullptr;
    if (!X509_Auth_LoadClientCertificates(&count, &certificates) || count != 2)
      state.SkipWithError("listing failed");
    X509_Auth_Free(certificates);
  }
}

// The least any listing must do: read both files, verify each self-signed
// chain, and take each thumbprint.
void BM_LoadClientCertificates_BareOpenSsl(benchmark::State& state) {
  Fixture& f = Get();
  const std::filesystem::path certs = std::filesystem::path(f.base) / "certs";
  for (auto _ : state) {
    for (const char* name : {"rsa.pem", "ec.pem"}) {
      FILE* file = std::fopen((certs / name).c_str(), "r");
      X509* cert = PEM_read_X509(file, nullptr, nullptr, nullptr);
      std::fclose(file);
      X509_STORE* store = X509_STORE_new();
      X509_STORE_add_cert(store, cert);
      X509_STORE_CTX* ctx = X509_STORE_CTX_new();
      X509_STORE_CTX_init(ctx, store, cert, nullptr);
      if (X509_verify_cert(ctx) != 1) state.SkipWithError("bare verify failed");
      unsigned char digest[EVP_MAX_MD_SIZE];
      unsigned int length = 0;
      X509_digest(cert, EVP_sha1(), digest, &length);
      X509_STORE_CTX_free(ctx);
      X509_STORE_free(store);
      X509_free(cert);
    }
  }
}

BENCHMARK(BM_SignHashRsa_Library);
BENCHMARK(BM_SignHashRsa_BareOpenSsl);
BENCHMARK(BM_SignHashEc_Library);
BENCHMARK(BM_SignHashEc_BareOpenSsl);
BENCHMARK(BM_LoadClientCertificates_Library);
BENCHMARK(BM_LoadClientCertificates_BareOpenSsl);

}  // namespace

BENCHMARK_MAIN();
