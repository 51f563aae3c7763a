// X509_Auth_SignHash with a key on a SoftHSM2 token, beside its floor: the
// bare token signature through libp11 with the key already found and the
// token logged in. N certificate files are in the directory as well (10 and
// 1,000). A process of its own: the token store, SOFTHSM2_CONF and the
// working directory are process-wide.
// Compare a pair's ratio within one run, not absolute times.
#include <benchmark/benchmark.h>
#include <libp11.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <memory>

#include "BenchMain.h"
#include "BenchMaterial.h"
#include "SoftHsmToken.h"
#include "x509_auth.h"

namespace {

using namespace x509auth_test;
using namespace x509auth_bench;

X509_Auth_PinEntryResult* AnswerPin(const char*, const char*) {
  static X509_Auth_PinEntryResult result{SoftHsmToken::k_default_pin, 0};
  return &result;
}
void FreePin(X509_Auth_PinEntryResult*) {}

struct Token {
  Token() {
    hsm.InitToken("Bench");
    CertOptions options;
    options.extended_key_usage = "clientAuth";
    options.key_usage = "critical,digitalSignature";
    options.common_name = "Token RSA";
    rsa = MakeCert(options, SharedKeys().rsa_key.get(), SharedKeys().ca.get(),
                   SharedKeys().ca_key.get());
    options.common_name = "Token EC";
    ec = MakeCert(options, SharedKeys().ec_key.get(), SharedKeys().ca.get(),
                  SharedKeys().ca_key.get());
    hsm.ImportCertAndKey("Bench", rsa.get(), SharedKeys().rsa_key.get(), "01", "rsa");
    hsm.ImportCertAndKey("Bench", ec.get(), SharedKeys().ec_key.get(), "02", "ec");
  }
  SoftHsmToken hsm;
  TestX509 rsa, ec;
};

Token& GetToken() {
  static Token token;
  return token;
}

Material& MaterialFor(int n) {
  static std::map<int, std::unique_ptr<Material>> made;
  auto& slot = made[n];
  if (!slot) slot = std::make_unique<Material>(n);
  return *slot;
}

// The library initialised on the benchmark's material, the PIN answered;
// the thumbprint of the token certificate to sign with.
Bytes InitOnMaterial(benchmark::State& state, bool rsa) {
  Token& token = GetToken();
  Material& m = MaterialFor(static_cast<int>(state.range(0)));
  const std::string base = m.base.string();
  const char* dirs[] = {base.c_str()};
  const X509_Auth_Settings settings{dirs, 1, nullptr, 0};
  X509_Auth_Init(&settings, X509_Auth_Callbacks{nullptr, AnswerPin, FreePin, nullptr});
  return Sha1Thumbprint(rsa ? token.rsa.get() : token.ec.get());
}

void SignLibrary(benchmark::State& state, bool rsa) {
  const Bytes thumbprint = InitOnMaterial(state, rsa);
  const Bytes digest(32, 0x5a);
  const uint32_t algorithms[] = {1, 2};
  // The first request after X509_Auth_Init loads the module and reads the
  // directory in full (that is the InitDeInit pair's and the cold listing's
  // part); untimed here, as in bench_api.
  const X509_Auth_Signature* first = nullptr;
  X509_Auth_SignHash(thumbprint.data(), 2, algorithms, X509_Auth_HashType_Sha256, digest.data(),
                     &first);
  X509_Auth_Free(first);
  for (auto _ : state) {
    const X509_Auth_Signature* signature = nullptr;
    const X509_Auth_Result result = X509_Auth_SignHash(
        thumbprint.data(), 2, algorithms, X509_Auth_HashType_Sha256, digest.data(), &signature);
    if (result.code != 0) state.SkipWithError("token signing failed");
    X509_Auth_Free(signature);
  }
  X509_Auth_DeInit();
}

// X509_Auth_OpenKey once (the PIN asked then), X509_Auth_OpenKeySignHash
// timed: the slot, key object and login are kept. With the token watch on,
// as the tool, the provider and the PKCS#11 module run, each signature
// first asks the module whether the tokens changed.
void SignOpenKey(benchmark::State& state, bool rsa, bool watch) {
  const Bytes thumbprint = InitOnMaterial(state, rsa);
  X509_Auth_SetTokenWatch(watch ? 1 : 0);
  const Bytes digest(32, 0x5a);
  const uint32_t algorithms[] = {1, 2};
  X509_Auth_KeyHandle key = 0;
  if (X509_Auth_OpenKey(thumbprint.data(), &key).code != 0) state.SkipWithError("open failed");
  for (auto _ : state) {
    if (key == 0) break;
    const X509_Auth_Signature* signature = nullptr;
    const X509_Auth_Result result = X509_Auth_OpenKeySignHash(
        key, 2, algorithms, X509_Auth_HashType_Sha256, digest.data(), &signature);
    if (result.code != 0) state.SkipWithError("token signing failed");
    X509_Auth_Free(signature);
  }
  X509_Auth_CloseKey(key);
  X509_Auth_SetTokenWatch(0);
  X509_Auth_DeInit();
}

// A libp11 context of its own (the library's is released first), the token
// logged in and the key found outside the timed loop.
void SignFloor(benchmark::State& state, bool rsa) {
  GetToken();
  MaterialFor(static_cast<int>(state.range(0)));
  X509_Auth_DeInit();
  PKCS11_CTX* ctx = PKCS11_CTX_new();
  PKCS11_SLOT* slots = nullptr;
  unsigned int count = 0;
  if (PKCS11_CTX_load(ctx, "./opensc-pkcs11.so") != 0 ||
      PKCS11_enumerate_slots(ctx, &slots, &count) != 0) {
    state.SkipWithError("module not loaded");
    PKCS11_CTX_free(ctx);
    return;
  }
  PKCS11_SLOT* slot = nullptr;
  for (unsigned int i = 0; i < count; ++i)
    if (slots[i].token != nullptr && std::strcmp(slots[i].token->label, "Bench") == 0)
      slot = &slots[i];
  PKCS11_KEY* keys = nullptr;
  unsigned int key_count = 0;
  EVP_PKEY* key = nullptr;
  if (slot != nullptr && PKCS11_login(slot, 0, SoftHsmToken::k_default_pin) == 0 &&
      PKCS11_enumerate_keys(slot->token, &keys, &key_count) == 0) {
    for (unsigned int i = 0; i < key_count; ++i)
      if (std::strcmp(keys[i].label, rsa ? "rsa" : "ec") == 0)
        key = PKCS11_get_private_key(&keys[i]);
  }
  EvpPkeyPtr owned_key(key);
  const Bytes digest(32, 0x5a);
  Bytes signature(512);
  if (key == nullptr) state.SkipWithError("token key not found");
  for (auto _ : state) {
    if (key == nullptr) break;
    const EvpPkeyCtxPtr pctx(EVP_PKEY_CTX_new(key, nullptr));
    EVP_PKEY_sign_init(pctx.get());
    if (rsa) {
      EVP_PKEY_CTX_set_rsa_padding(pctx.get(), RSA_PKCS1_PADDING);
      EVP_PKEY_CTX_set_signature_md(pctx.get(), EVP_sha256());
    }
    size_t length = signature.size();
    if (EVP_PKEY_sign(pctx.get(), signature.data(), &length, digest.data(), digest.size()) <= 0)
      state.SkipWithError("bare token signing failed");
  }
  // The key goes before the slots and the context it came from.
  owned_key.reset();
  PKCS11_release_all_slots(ctx, slots, count);
  PKCS11_CTX_unload(ctx);
  PKCS11_CTX_free(ctx);
}

void BM_TokenSignRsa_Library(benchmark::State& state) { SignLibrary(state, true); }
void BM_TokenSignRsa_Floor(benchmark::State& state) { SignFloor(state, true); }
void BM_TokenSignEc_Library(benchmark::State& state) { SignLibrary(state, false); }
void BM_TokenSignEc_Floor(benchmark::State& state) { SignFloor(state, false); }
void BM_TokenSignRsa_OpenKey(benchmark::State& state) { SignOpenKey(state, true, true); }
void BM_TokenSignRsa_OpenKeyUnwatched(benchmark::State& state) { SignOpenKey(state, true, false); }
void BM_TokenSignEc_OpenKey(benchmark::State& state) { SignOpenKey(state, false, true); }
void BM_TokenSignEc_OpenKeyUnwatched(benchmark::State& state) { SignOpenKey(state, false, false); }

BENCHMARK(BM_TokenSignRsa_Library)->Arg(10)->Arg(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TokenSignRsa_Floor)->Arg(10)->Arg(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TokenSignEc_Library)->Arg(10)->Arg(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TokenSignEc_Floor)->Arg(10)->Arg(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TokenSignRsa_OpenKey)->Arg(10)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TokenSignRsa_OpenKeyUnwatched)->Arg(10)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TokenSignEc_OpenKey)->Arg(10)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TokenSignEc_OpenKeyUnwatched)->Arg(10)->Unit(benchmark::kMicrosecond);

}  // namespace

// Material first, left to settle as in bench_api.
int main(int argc, char** argv) {
  return x509auth_bench::RunBenchmarks(argc, argv, [] {
    GetToken();
    for (int n : {10, 1000}) MaterialFor(n);
    sleep(2);
  });
}
