// The certificate readers and the thumbprint against bare OpenSSL on the same
// data.
// Compare the pairs' ratio within one run, not absolute times.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include "TestPki.h"
#include "files/CertificateFiles.h"

namespace {

using namespace x509auth_test;
using quorvant::shared::x509::GetThumbprintForX509Cert;
using quorvant::shared::x509::ReadX509FromDerOrPemFile;
using quorvant::shared::x509::Thumbprint;

struct Files {
  Files() {
    key = MakeKey(KeyKind::k_ec);
    CertOptions options;
    cert = MakeCert(options, key.get());
    WriteFile(dir / "cert.pem", CertToPem(cert.get()));
    WriteFile(dir / "cert.der", CertToDer(cert.get()));
    der = CertToDer(cert.get());
  }
  TempDir dir;
  TestKey key;
  TestX509 cert;
  Bytes der;
};

Files& Get() {
  static Files files;
  return files;
}

void BM_ReadDerFile_Library(benchmark::State& state) {
  const auto path = Get().dir / "cert.der";
  for (auto _ : state) benchmark::DoNotOptimize(ReadX509FromDerOrPemFile(path));
}

void BM_ReadDerFile_BareOpenSsl(benchmark::State& state) {
  const auto path = Get().dir / "cert.der";
  for (auto _ : state) {
    FILE* file = std::fopen(path.c_str(), "rb");
    const X509Ptr cert(d2i_X509_fp(file, nullptr));
    std::fclose(file);
  }
}

void BM_ReadPemFile_Library(benchmark::State& state) {
  const auto path = Get().dir / "cert.pem";
  for (auto _ : state) benchmark::DoNotOptimize(ReadX509FromDerOrPemFile(path));
}

void BM_ReadPemFile_BareOpenSsl(benchmark::State& state) {
  const auto path = Get().dir / "cert.pem";
  for (auto _ : state) {
    FILE* file = std::fopen(path.c_str(), "r");
    const X509Ptr cert(PEM_read_X509(file, nullptr, nullptr, nullptr));
    std::fclose(file);
  }
}

void BM_Thumbprint_Library(benchmark::State& state) {
  X509* cert = Get().cert.get();
  Thumbprint thumbprint{};
  for (auto _ : state) benchmark::DoNotOptimize(GetThumbprintForX509Cert(cert, &thumbprint));
}

void BM_Thumbprint_BareOpenSsl(benchmark::State& state) {
  X509* cert = Get().cert.get();
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  for (auto _ : state) benchmark::DoNotOptimize(X509_digest(cert, EVP_sha1(), digest, &length));
}

BENCHMARK(BM_ReadDerFile_Library);
BENCHMARK(BM_ReadDerFile_BareOpenSsl);
BENCHMARK(BM_ReadPemFile_Library);
BENCHMARK(BM_ReadPemFile_BareOpenSsl);
BENCHMARK(BM_Thumbprint_Library);
BENCHMARK(BM_Thumbprint_BareOpenSsl);

}  // namespace

BENCHMARK_MAIN();
