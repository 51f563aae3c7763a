// The PKCS#11 module's search: finding one certificate by its CKA_ID among N
// (C_FindObjectsInit, C_FindObjects, C_FindObjectsFinal; the module asks the
// library whether a listing would differ and lists again only then), beside
// the library's own listing of the same directory and that question.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <stdlib.h>

#include <map>
#include <memory>

#include "BenchMaterial.h"
#include "p11-kit/pkcs11.h"
#include "x509_auth.h"

namespace {

using namespace x509auth_bench;

CK_FUNCTION_LIST* Module() {
  static CK_FUNCTION_LIST* functions = [] {
    void* handle = dlopen(X509AUTH_PKCS11_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) std::abort();
    CK_FUNCTION_LIST* list = nullptr;
    auto get = reinterpret_cast<CK_C_GetFunctionList>(dlsym(handle, "C_GetFunctionList"));
    if (get == nullptr || get(&list) != CKR_OK) std::abort();
    return list;
  }();
  return functions;
}

// The module initialised over N certificates, with one session.
struct Setup {
  explicit Setup(int n) : material(n) {
    SetModuleEnvironment(material);
    Module()->C_Finalize(nullptr);
    if (Module()->C_Initialize(nullptr) != CKR_OK) std::abort();
    if (Module()->C_OpenSession(1, CKF_SERIAL_SESSION, nullptr, nullptr, &session) != CKR_OK)
      std::abort();
    // The benchmark's own copy of the library, for the listing below.
    const char* dirs[] = {material.base.c_str()};
    const X509_Auth_Settings settings{dirs, 1, nullptr, 0};
    X509_Auth_Init(&settings, X509_Auth_Callbacks{});
    X509_Auth_SetPkcs11Module("");
    // The files settle, as on a user's machine, and a first search lists
    // them once, as a program that has been running has.
    sleep(2);
    Find();
  }
  CK_ULONG Find() {
    CK_OBJECT_CLASS cls = CKO_CERTIFICATE;
    CK_ATTRIBUTE templ[] = {{CKA_CLASS, &cls, sizeof(cls)},
                            {CKA_ID, material.ec_thumbprint.data(), material.ec_thumbprint.size()}};
    CK_OBJECT_HANDLE found[2];
    CK_ULONG count = 0;
    Module()->C_FindObjectsInit(session, templ, 2);
    Module()->C_FindObjects(session, found, 2, &count);
    Module()->C_FindObjectsFinal(session);
    return count;
  }
  Material material;
  CK_SESSION_HANDLE session = 0;
};

Setup& SetupFor(int n) {
  static std::map<int, std::unique_ptr<Setup>> setups;
  static int current = -1;
  if (current != n) {
    setups.clear();  // one material at a time: the module has one setting
    setups[n] = std::make_unique<Setup>(n);
    current = n;
  }
  return *setups[n];
}

void BM_Pkcs11FindCertificate(benchmark::State& state) {
  Setup& setup = SetupFor(static_cast<int>(state.range(0)));
  for (auto _ : state)
    if (setup.Find() != 1) state.SkipWithError("not found");
}
BENCHMARK(BM_Pkcs11FindCertificate)->Arg(10)->Arg(100)->Arg(1000)->Unit(benchmark::kMicrosecond);

void BM_LibraryListing(benchmark::State& state) {
  SetupFor(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    uint64_t count = 0;
    const X509_Auth_Certificate* certificates = nullptr;
    X509_Auth_LoadClientCertificates(&count, &certificates);
    X509_Auth_Free(certificates);
  }
}
BENCHMARK(BM_LibraryListing)->Arg(10)->Arg(100)->Arg(1000)->Unit(benchmark::kMicrosecond);

// What the module asks before each search: whether a listing would differ.
void BM_LibraryListingVersion(benchmark::State& state) {
  SetupFor(static_cast<int>(state.range(0)));
  uint64_t count = 0;
  const X509_Auth_Certificate* certificates = nullptr;
  X509_Auth_LoadClientCertificates(&count, &certificates);
  X509_Auth_Free(certificates);
  for (auto _ : state) {
    uint64_t version = 0;
    X509_Auth_GetListingVersion(&version);
    benchmark::DoNotOptimize(version);
  }
}
BENCHMARK(BM_LibraryListingVersion)->Arg(1000)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
