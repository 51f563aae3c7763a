// What a host pays per request through the exported API, each beside its
// floor: the least OpenSSL work any implementation that keeps nothing between
// requests must do on the same files. Every benchmark takes N, the number of
// distinct client certificates in the "certs" directory (10, 100, 1000), all
// issued by one CA that the host adds; the real OpenSC module is linked into
// the working directory with no reader, as on a new user's machine.
// Compare a pair's ratio within one run, not absolute times.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <libp11.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "BenchMain.h"
#include "BenchMaterial.h"
#include "TestPki.h"
#include "x509_auth.h"

namespace {

using namespace x509auth_test;
using namespace x509auth_bench;
namespace fs = std::filesystem;

// Material per N; the "cold" listing changes every file before each call,
// so it has a directory of its own: the other benchmarks, interleaved with
// it, must find their files settled.
Material& MaterialFor(int n, bool cold = false) {
  static std::map<std::pair<int, bool>, std::unique_ptr<Material>> made;
  auto& slot = made[{n, cold}];
  if (!slot) slot = std::make_unique<Material>(n);
  return *slot;
}

// Initialises the library on the material's directory with the CA added,
// and lists once (untimed) so that what the library keeps between calls is
// in place, as it is in a host that has been running.
void InitOn(const Material& material) {
  const std::string base = material.base.string();
  const char* dirs[] = {base.c_str()};
  const X509_Auth_Settings settings{dirs, 1, nullptr, 0};
  X509_Auth_Init(&settings, X509_Auth_Callbacks{});
  if (X509_Auth_AddAdditionalCertificateAuthorityToStore(material.ca_der.data(),
                                                         material.ca_der.size()) != 1)
    std::abort();
  uint64_t count = 0;
  const X509_Auth_Certificate* certificates = nullptr;
  X509_Auth_LoadClientCertificates(&count, &certificates);
  X509_Auth_Free(certificates);
}

// The library on N's material, re-initialised when other material was used
// last.
Material& Use(int n, bool cold = false) {
  EnterWorkingDirectory();
  static std::pair<int, bool> current{-1, false};
  Material& material = MaterialFor(n, cold);
  if (current != std::make_pair(n, cold)) {
    X509_Auth_DeInit();
    InitOn(material);
    current = {n, cold};
  }
  return material;
}

// The first object |read| finds in the PEM file at |path|, or null.
template <class T>
T* ReadPemObject(const fs::path& path, T* (*read)(FILE*, T**, pem_password_cb*, void*)) {
  FILE* file = std::fopen(path.c_str(), "r");
  if (file == nullptr) return nullptr;
  T* object = read(file, nullptr, nullptr, nullptr);
  std::fclose(file);
  return object;
}

X509* ReadPem(const fs::path& path) { return ReadPemObject(path, PEM_read_X509); }

EVP_PKEY* ReadKey(const fs::path& path) { return ReadPemObject(path, PEM_read_PrivateKey); }

// ---- Listing -------------------------------------------------------------

// One listing through the API, as a host makes it: whether it listed every
// certificate of |m|.
bool ListsAll(const Material& m) {
  uint64_t count = 0;
  const X509_Auth_Certificate* certificates = nullptr;
  const bool listed = X509_Auth_LoadClientCertificates(&count, &certificates) &&
                      count == static_cast<uint64_t>(m.count);
  X509_Auth_Free(certificates);
  return listed;
}

void BM_List_Library(benchmark::State& state) {
  Material& m = Use(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    if (!ListsAll(m)) state.SkipWithError("listing failed");
  }
}

// Read and parse every file, take its thumbprint and verify it against the
// added CA.
void BM_List_Floor(benchmark::State& state) {
  Material& m = Use(static_cast<int>(state.range(0)));
  const fs::path certs = m.base / "certs";
  for (auto _ : state) {
    const X509StorePtr store(X509_STORE_new());
    X509_STORE_add_cert(store.get(), SharedKeys().ca.get());
    int verified = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator(certs)) {
      const X509Ptr cert(ReadPem(entry.path()));
      const X509StoreCtxPtr ctx(X509_STORE_CTX_new());
      X509_STORE_CTX_init(ctx.get(), store.get(), cert.get(), nullptr);
      if (X509_verify_cert(ctx.get()) == 1) ++verified;
      unsigned char digest[EVP_MAX_MD_SIZE];
      unsigned int length = 0;
      X509_digest(cert.get(), EVP_sha1(), digest, &length);
    }
    if (verified != m.count) state.SkipWithError("floor verify failed");
  }
}

// The first listing after every file changed: each file's change time is
// set to now (untimed), so nothing comes from the parsed-certificate cache.
void BM_ListCold_Library(benchmark::State& state) {
  Material& m = Use(static_cast<int>(state.range(0)), true);
  for (auto _ : state) {
    state.PauseTiming();
    for (const fs::directory_entry& entry : fs::directory_iterator(m.base / "certs"))
      fs::last_write_time(entry.path(), fs::file_time_type::clock::now());
    state.ResumeTiming();
    if (!ListsAll(m)) state.SkipWithError("listing failed");
  }
}

void BM_ListCold_Floor(benchmark::State& state) { BM_List_Floor(state); }

// ---- Signing ---------------------------------------------------------------

void SignLibrary(benchmark::State& state, bool rsa) {
  Material& m = Use(static_cast<int>(state.range(0)));
  const Bytes digest(32, 0x5a);
  const uint32_t algorithms[] = {1, 2};
  const Bytes& thumbprint = rsa ? m.rsa_thumbprint : m.ec_thumbprint;
  for (auto _ : state) {
    const X509_Auth_Signature* signature = nullptr;
    const X509_Auth_Result result = X509_Auth_SignHash(
        thumbprint.data(), 2, algorithms, X509_Auth_HashType_Sha256, digest.data(), &signature);
    if (result.code != 0) state.SkipWithError("signing failed");
    X509_Auth_Free(signature);
  }
}

// The least a request must do to notice a change to any certificate file
// when nothing tells it of changes: list the directory and take the status
// of every file. Not a pair of its own: it is part of the "checked" floors.
std::size_t CheckEveryFile(const fs::path& certs) {
  std::size_t files = 0;
  DIR* dir = opendir(certs.c_str());
  if (dir == nullptr) return 0;
  struct stat status {};
  while (const dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    if (fstatat(dirfd(dir), entry->d_name, &status, 0) == 0) ++files;
  }
  closedir(dir);
  return files;
}

// Read the key file and sign with the freshly loaded key; with |checked|,
// first take every certificate file's status, which is what an
// implementation that keeps nothing it cannot prove current must do at the
// least.
void SignFloor(benchmark::State& state, bool rsa, bool checked = false) {
  Material& m = Use(static_cast<int>(state.range(0)));
  const fs::path key_path = m.base / "keys" / (rsa ? "cert0.pem.key" : "cert1.pem.key");
  const Bytes digest(32, 0x5a);
  Bytes signature(512);
  for (auto _ : state) {
    if (checked) benchmark::DoNotOptimize(CheckEveryFile(m.base / "certs"));
    const EvpPkeyPtr key(ReadKey(key_path));
    const EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new(key.get(), nullptr));
    EVP_PKEY_sign_init(ctx.get());
    if (rsa) {
      EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING);
      EVP_PKEY_CTX_set_signature_md(ctx.get(), EVP_sha256());
    }
    size_t length = signature.size();
    if (EVP_PKEY_sign(ctx.get(), signature.data(), &length, digest.data(), digest.size()) <= 0)
      state.SkipWithError("floor signing failed");
  }
}

void BM_SignRsa_Library(benchmark::State& state) { SignLibrary(state, true); }
void BM_SignRsa_Floor(benchmark::State& state) { SignFloor(state, true); }
void BM_SignEc_Library(benchmark::State& state) { SignLibrary(state, false); }
void BM_SignEc_Floor(benchmark::State& state) { SignFloor(state, false); }
void BM_SignRsaChecked_Library(benchmark::State& state) { SignLibrary(state, true); }
void BM_SignRsaChecked_Floor(benchmark::State& state) { SignFloor(state, true, true); }
void BM_SignEcChecked_Library(benchmark::State& state) { SignLibrary(state, false); }
void BM_SignEcChecked_Floor(benchmark::State& state) { SignFloor(state, false, true); }

// ---- Decryption ------------------------------------------------------------

void BM_Decrypt_Library(benchmark::State& state) {
  Material& m = Use(static_cast<int>(state.range(0)));
  const Bytes ciphertext = EncryptToCertificate(m.rsa.get(), RSA_PKCS1_PADDING, Bytes(32, 0x17));
  for (auto _ : state) {
    const X509_Auth_ASN_1* plaintext = nullptr;
    const X509_Auth_Result result = X509_Auth_Decrypt(m.rsa_thumbprint.data(), 1, ciphertext.size(),
                                                      ciphertext.data(), &plaintext);
    if (result.code != 0) state.SkipWithError("decryption failed");
    X509_Auth_Free(plaintext);
  }
}

void BM_Decrypt_Floor(benchmark::State& state) {
  Material& m = Use(static_cast<int>(state.range(0)));
  const Bytes ciphertext = EncryptToCertificate(m.rsa.get(), RSA_PKCS1_PADDING, Bytes(32, 0x17));
  const fs::path key_path = m.base / "keys" / "cert0.pem.key";
  Bytes plaintext(512);
  for (auto _ : state) {
    const EvpPkeyPtr key(ReadKey(key_path));
    const EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new(key.get(), nullptr));
    EVP_PKEY_decrypt_init(ctx.get());
    EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING);
    size_t length = plaintext.size();
    if (EVP_PKEY_decrypt(ctx.get(), plaintext.data(), &length, ciphertext.data(),
                         ciphertext.size()) <= 0)
      state.SkipWithError("floor decryption failed");
  }
}

// ---- CA chain of a listed certificate ---------------------------------------

void BM_Chain_Library(benchmark::State& state) {
  Use(static_cast<int>(state.range(0)));
  uint64_t count = 0;
  const X509_Auth_Certificate* certificates = nullptr;
  if (!X509_Auth_LoadClientCertificates(&count, &certificates) || count == 0) {
    state.SkipWithError("listing failed");
    return;
  }
  for (auto _ : state) {
    uint64_t members = 0;
    X509_Auth_ASN_1* asn1 = nullptr;
    if (X509_Auth_GetChainedCAsForCertificate(&certificates[0], &members, &asn1) != 0 ||
        members != 1)
      state.SkipWithError("chain failed");
    X509_Auth_Free(asn1);
  }
  X509_Auth_Free(certificates);
}

// Find the CA among the added ones by its thumbprint and encode it.
void BM_Chain_Floor(benchmark::State& state) {
  Use(static_cast<int>(state.range(0)));
  X509* ca = SharedKeys().ca.get();
  const Bytes wanted = Sha1Thumbprint(ca);
  for (auto _ : state) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    X509_digest(ca, EVP_sha1(), digest, &length);
    if (!std::equal(wanted.begin(), wanted.end(), digest)) state.SkipWithError("no match");
    unsigned char* der = nullptr;
    const int size = i2d_X509(ca, &der);
    const OpenSslBytesPtr owned(der);
    benchmark::DoNotOptimize(size);
  }
}

// ---- Init and DeInit --------------------------------------------------------

void BM_InitDeInit_Library(benchmark::State& state) {
  Material& m = Use(static_cast<int>(state.range(0)));
  X509_Auth_DeInit();
  const std::string base = m.base.string();
  const char* dirs[] = {base.c_str()};
  const X509_Auth_Settings settings{dirs, 1, nullptr, 0};
  for (auto _ : state) {
    X509_Auth_Init(&settings, X509_Auth_Callbacks{});
    X509_Auth_DeInit();
  }
  // Leaves the library as Use() expects it.
  InitOn(m);
}

// Load the PKCS#11 module, list its slots and unload it.
void BM_InitDeInit_Floor(benchmark::State& state) {
  Use(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    PKCS11_CTX* ctx = PKCS11_CTX_new();
    PKCS11_SLOT* slots = nullptr;
    unsigned int count = 0;
    if (PKCS11_CTX_load(ctx, "./opensc-pkcs11.so") == 0) {
      PKCS11_enumerate_slots(ctx, &slots, &count);
      PKCS11_release_all_slots(ctx, slots, count);
      PKCS11_CTX_unload(ctx);
    }
    PKCS11_CTX_free(ctx);
  }
}

#define X509AUTH_PAIR(name)                                                               \
  BENCHMARK(name##_Library)->Arg(10)->Arg(100)->Arg(1000)->Unit(benchmark::kMicrosecond); \
  BENCHMARK(name##_Floor)->Arg(10)->Arg(100)->Arg(1000)->Unit(benchmark::kMicrosecond)

X509AUTH_PAIR(BM_List);
X509AUTH_PAIR(BM_ListCold);
X509AUTH_PAIR(BM_SignRsa);
X509AUTH_PAIR(BM_SignEc);
X509AUTH_PAIR(BM_SignRsaChecked);
X509AUTH_PAIR(BM_SignEcChecked);
X509AUTH_PAIR(BM_Decrypt);
X509AUTH_PAIR(BM_Chain);
X509AUTH_PAIR(BM_InitDeInit);

}  // namespace

// All material is made first and left to settle for more than a second, as
// files on a user's machine are: the library keeps no parsed certificate of
// a file changed within the last second.
int main(int argc, char** argv) {
  return x509auth_bench::RunBenchmarks(argc, argv, [] {
    for (int n : {10, 100, 1000}) {
      MaterialFor(n);
      MaterialFor(n, true);
    }
    sleep(2);
  });
}
