#pragma once
// Generated material shared by the benchmarks: N distinct client
// certificates in one "certs" directory, all issued by one CA that the host
// adds, and a working directory holding the real OpenSC module (no reader).
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "TestPki.h"

namespace x509auth_bench {

using namespace x509auth_test;
namespace fs = std::filesystem;

// The process-wide keys: generating 1,000 keys would dominate the set-up, so
// the listed certificates share one leaf key; each certificate is distinct
// (own name and serial). Certificate 0 is RSA and certificate 1 is EC, each
// with its own unencrypted PEM key file.
struct Keys {
  TestKey ca_key = MakeKey(KeyKind::k_rsa);
  TestKey rsa_key = MakeKey(KeyKind::k_rsa);
  TestKey ec_key = MakeKey(KeyKind::k_ec);
  TestX509 ca;
  Keys() {
    CertOptions options;
    options.common_name = "Bench CA";
    options.is_ca = true;
    options.key_usage = "critical,keyCertSign,cRLSign";
    ca = MakeCert(options, ca_key.get());
  }
};

inline Keys& SharedKeys() {
  static Keys keys;
  return keys;
}

struct Material {
  explicit Material(int n) {
    Keys& keys = SharedKeys();
    base = dir.path() / "base";
    for (int i = 0; i < n; ++i) {
      CertOptions options;
      options.common_name = "Bench " + std::to_string(i);
      options.extended_key_usage = "clientAuth";
      options.key_usage = "critical,digitalSignature,keyEncipherment";
      EVP_PKEY* key = i == 1 ? keys.ec_key.get() : keys.rsa_key.get();
      TestX509 cert = MakeCert(options, key, keys.ca.get(), keys.ca_key.get());
      const std::string name = "cert" + std::to_string(i) + ".pem";
      InstallFileCert(base, name, cert.get(), i < 2 ? key : nullptr);
      if (i == 0) rsa = std::move(cert);
      if (i == 1) ec = std::move(cert);
    }
    rsa_thumbprint = Sha1Thumbprint(rsa.get());
    ec_thumbprint = Sha1Thumbprint(ec.get());
    ca_der = CertToDer(keys.ca.get());
    count = n;
  }
  TempDir dir;
  fs::path base;
  TestX509 rsa, ec;
  Bytes rsa_thumbprint, ec_thumbprint, ca_der;
  int count = 0;
};

// The PKCS#11 module's settings for |material|: its base directory, its CA
// as "ca.der" beside it, and no token module, log or configuration file.
inline void SetModuleEnvironment(const Material& material) {
  WriteFile(material.dir.path() / "ca.der", material.ca_der);
  setenv("X509AUTH_DIRS", material.base.c_str(), 1);
  setenv("X509AUTH_HOME_DIRS", "", 1);
  setenv("X509AUTH_CA_FILES", (material.dir.path() / "ca.der").c_str(), 1);
  setenv("X509AUTH_MODULE", "", 1);
  setenv("X509AUTH_LOG", "none", 1);
  setenv("X509AUTH_PKCS11_CONF", "/nonexistent", 1);
}

// One working directory with the OpenSC module for the whole process.
inline void EnterWorkingDirectory() {
  static TempDir work;
  static bool entered = false;
  if (entered) return;
  fs::create_symlink(OPENSC_MODULE_PATH, work.path() / "opensc-pkcs11.so");
  if (chdir(work.path().c_str()) != 0) std::abort();
  entered = true;
}

}  // namespace x509auth_bench
