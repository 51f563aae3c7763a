// C_SignInit + C_Sign through the x509auth PKCS#11 module on a key object
// found once (a key file the module's library holds open after the first
// signature), beside SoftHSM2 holding the same key: RSA-2048 (CKM_RSA_PKCS
// over a SHA-256 DigestInfo) and P-256 (CKM_ECDSA over a SHA-256 digest).
// Both modules are loaded in this one process; compare a pair's ratio
// within one run, and instruction counts (callgrind) beside the times.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <stdlib.h>

#include <cstring>
#include <memory>
#include <string>

#include "BenchMaterial.h"
#include "SoftHsmToken.h"
#include "p11-kit/pkcs11.h"

namespace {

using namespace x509auth_test;
using namespace x509auth_bench;

CK_FUNCTION_LIST* Load(const std::string& path) {
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) std::abort();
  CK_FUNCTION_LIST* list = nullptr;
  auto get = reinterpret_cast<CK_C_GetFunctionList>(dlsym(handle, "C_GetFunctionList"));
  if (get == nullptr || get(&list) != CKR_OK) std::abort();
  return list;
}

// One module initialised, one session logged in, the two private keys found.
struct Opened {
  CK_FUNCTION_LIST* f = nullptr;
  CK_SESSION_HANDLE session = 0;
  CK_OBJECT_HANDLE rsa = 0, ec = 0;

  void Start(CK_FUNCTION_LIST* functions, const Bytes& rsa_id, const Bytes& ec_id) {
    f = functions;
    if (f->C_Initialize(nullptr) != CKR_OK) std::abort();
    CK_SLOT_ID slots[8];
    CK_ULONG count = 8;
    if (f->C_GetSlotList(CK_TRUE, slots, &count) != CKR_OK || count == 0) std::abort();
    if (f->C_OpenSession(slots[0], CKF_SERIAL_SESSION, nullptr, nullptr, &session) != CKR_OK)
      std::abort();
    std::string pin = SoftHsmToken::k_default_pin;
    f->C_Login(session, CKU_USER, reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data()), pin.size());
    rsa = FindKey(rsa_id);
    ec = FindKey(ec_id);
    if (rsa == 0 || ec == 0) std::abort();
  }
  CK_OBJECT_HANDLE FindKey(const Bytes& id) const {
    CK_OBJECT_CLASS cls = CKO_PRIVATE_KEY;
    CK_ATTRIBUTE templ[] = {{CKA_CLASS, &cls, sizeof(cls)},
                            {CKA_ID, const_cast<unsigned char*>(id.data()), id.size()}};
    CK_OBJECT_HANDLE found = 0;
    CK_ULONG count = 0;
    f->C_FindObjectsInit(session, templ, 2);
    f->C_FindObjects(session, &found, 1, &count);
    f->C_FindObjectsFinal(session);
    return count == 1 ? found : 0;
  }
  bool Sign(CK_OBJECT_HANDLE key, CK_MECHANISM_TYPE type, const Bytes& data) const {
    CK_MECHANISM mechanism{type, nullptr, 0};
    unsigned char signature[512];
    CK_ULONG length = sizeof(signature);
    return f->C_SignInit(session, &mechanism, key) == CKR_OK &&
           f->C_Sign(session, const_cast<unsigned char*>(data.data()), data.size(), signature,
                     &length) == CKR_OK;
  }
};

// The key files for the module, the same keys in a SoftHSM2 token (CKA_ID
// 01 and 02), both modules open.
struct Setup {
  Setup() : material(2) {
    hsm.InitToken("Bench");
    hsm.ImportCertAndKey("Bench", material.rsa.get(), SharedKeys().rsa_key.get(), "01", "rsa");
    hsm.ImportCertAndKey("Bench", material.ec.get(), SharedKeys().ec_key.get(), "02", "ec");
    SetModuleEnvironment(material);
    module.Start(Load(X509AUTH_PKCS11_MODULE_PATH), material.rsa_thumbprint,
                 material.ec_thumbprint);
    softhsm.Start(Load(SoftHsmToken::ModulePath().string()), Bytes{0x01}, Bytes{0x02});
    digest_info = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                   0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
    digest_info.insert(digest_info.end(), digest.begin(), digest.end());
  }
  Material material;
  SoftHsmToken hsm;
  Opened module, softhsm;
  Bytes digest = Bytes(32, 0x5a);
  Bytes digest_info;
};

Setup& GetSetup() {
  static Setup setup;
  return setup;
}

void Sign(benchmark::State& state, bool x509auth, bool rsa) {
  Setup& setup = GetSetup();
  const Opened& opened = x509auth ? setup.module : setup.softhsm;
  const CK_OBJECT_HANDLE key = rsa ? opened.rsa : opened.ec;
  const CK_MECHANISM_TYPE type = rsa ? CKM_RSA_PKCS : CKM_ECDSA;
  const Bytes& data = rsa ? setup.digest_info : setup.digest;
  // The first signature opens the key in the module's library.
  if (!opened.Sign(key, type, data)) state.SkipWithError("signing failed");
  for (auto _ : state)
    if (!opened.Sign(key, type, data)) state.SkipWithError("signing failed");
}

BENCHMARK_CAPTURE(Sign, P256_Module, true, false)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(Sign, P256_SoftHsm2, false, false)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(Sign, Rsa2048_Module, true, true)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(Sign, Rsa2048_SoftHsm2, false, true)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
