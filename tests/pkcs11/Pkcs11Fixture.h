#pragma once
// Tests of the PKCS#11 module x509auth-pkcs11.so as programs meet it: loaded
// with dlopen in the test process (its function list called directly), or
// by real PKCS#11 programs (pkcs11-tool, p11tool, gnutls-cli, ssh, NSS's
// certutil) in child processes. Every test makes its own certificates and
// keys in a temporary base directory; the module's settings come from the
// environment, never from the user's or the system's settings file.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <stdlib.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "TestPki.h"
#include "p11-kit/pkcs11.h"

namespace x509auth_test {

// A raw r || s P-256 signature, as PKCS#11's CKM_ECDSA gives it, back to DER
// for OpenSSL, verified with |cert|'s public key over |digest|.
inline bool RawEcdsaVerifies(X509* cert, const EVP_MD* md, const Bytes& digest, const Bytes& raw) {
  if (raw.size() != 64) return false;
  const EcdsaSigPtr sig(ECDSA_SIG_new());
  ECDSA_SIG_set0(sig.get(), BN_bin2bn(raw.data(), 32, nullptr),
                 BN_bin2bn(raw.data() + 32, 32, nullptr));
  unsigned char* der = nullptr;
  const int length = i2d_ECDSA_SIG(sig.get(), &der);
  const OpenSslBytesPtr owned(der);
  return length > 0 &&
         VerifiesWithCertificate(cert, md, digest, der, static_cast<std::size_t>(length));
}

// One client certificate installed in the base directory.
struct InstalledClient {
  std::string name;
  Bytes thumbprint;
  std::string hex;
  TestX509 cert;
  TestKey key;
  std::filesystem::path cert_file, key_file;
};

class Pkcs11Test : public ::testing::Test {
 protected:
  static std::string ModulePath() { return X509AUTH_PKCS11_MODULE_PATH; }

  void SetUp() override {
    base_ = temp_ / "base";
    std::filesystem::create_directories(base_ / "certs");
    std::filesystem::create_directories(base_ / "keys");
    WriteFile(CasFile(), std::string());
    for (const auto& [name, value] : Settings()) setenv(name.c_str(), value.c_str(), 1);
  }

  // The module's settings for this test: the base directory, the CA file,
  // no home directories, no token module, no settings file, quiet.
  std::map<std::string, std::string> Settings() const {
    return {{"X509AUTH_DIRS", base_.string()},
            {"X509AUTH_HOME_DIRS", ""},
            {"X509AUTH_CA_FILES", CasFile().string()},
            {"X509AUTH_MODULE", ""},
            {"X509AUTH_LOG", "error"},
            {"X509AUTH_PKCS11_CONF", (temp_ / "no-such.conf").string()}};
  }

  // What a child program gets: the settings, and the sanitizer's runtime
  // when the module is instrumented.
  std::map<std::string, std::string> Environment() const {
    std::map<std::string, std::string> env = SanitizerEnvironment();
    for (const auto& [name, value] : Settings()) env[name] = value;
    return env;
  }

  std::filesystem::path CasFile() const { return temp_ / "cas.pem"; }

  // A client certificate below a root and an intermediate CA in
  // base/certs/<name>.pem with its key in base/keys (encrypted with
  // |password| when given); both CAs go to the CA file.
  const InstalledClient& Install(KeyKind kind, const std::string& name,
                                 const char* password = nullptr, int key_index = 0) {
    Chain chain = MakeChain(kind, name);
    auto client = std::make_unique<InstalledClient>();
    client->name = name;
    if (key_index != 0) {
      // A leaf key of its own (MakeChain's leaves of one kind share one).
      client->key = SharedKey(kind, key_index);
      CertOptions options;
      options.common_name = name;
      options.key_usage = "critical,digitalSignature,keyEncipherment";
      options.extended_key_usage = "clientAuth";
      chain.leaf = MakeCert(options, client->key.get(), chain.intermediate.get(),
                            chain.intermediate_key.get());
    } else {
      client->key = std::move(chain.leaf_key);
    }
    client->cert = std::move(chain.leaf);
    client->thumbprint = Sha1Thumbprint(client->cert.get());
    client->hex = LowerHex(client->thumbprint);
    client->cert_file = base_ / "certs" / (name + ".pem");
    client->key_file = base_ / "keys" / (name + ".pem.key");
    WriteFile(client->cert_file, CertToPem(client->cert.get()));
    WriteFile(client->key_file, KeyToPem(client->key.get(), password));
    cas_pem_ += CertToPem(chain.root.get()) + CertToPem(chain.intermediate.get());
    WriteFile(CasFile(), cas_pem_);
    authorities_.push_back(std::move(chain.root));
    authorities_.push_back(std::move(chain.intermediate));
    clients_.push_back(std::move(client));
    return *clients_.back();
  }

  // A child program with the test's environment and a time limit.
  ChildResult Run(const std::vector<std::string>& argv, const std::string& input = "",
                  const std::map<std::string, std::string>& extra_env = {}) const {
    ChildRun run;
    run.argv = argv;
    run.env = Environment();
    for (const auto& [name, value] : extra_env) run.env[name] = value;
    run.input = input;
    run.cwd = temp_.path().string();
    run.limit = std::chrono::seconds(40);
    return RunChild(run);
  }

  static bool HaveProgram(const std::string& name) {
    return std::system(("command -v " + name + " > /dev/null 2>&1").c_str()) == 0;
  }

  TempDir temp_;
  std::filesystem::path base_;
  std::string cas_pem_;
  std::vector<std::unique_ptr<InstalledClient>> clients_;
  std::vector<TestX509> authorities_;
};

// The module loaded into the test process, as a PKCS#11 program loads it.
class LoadedModule {
 public:
  LoadedModule() {
    handle_ = dlopen(X509AUTH_PKCS11_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr) {
      ADD_FAILURE() << "dlopen: " << dlerror();
      return;
    }
    auto get = reinterpret_cast<CK_C_GetFunctionList>(dlsym(handle_, "C_GetFunctionList"));
    if (get == nullptr || get(&functions_) != CKR_OK) ADD_FAILURE() << "no function list";
  }
  ~LoadedModule() {
    if (handle_ != nullptr) dlclose(handle_);
  }
  LoadedModule(const LoadedModule&) = delete;
  LoadedModule& operator=(const LoadedModule&) = delete;

  CK_FUNCTION_LIST* operator->() const { return functions_; }
  CK_FUNCTION_LIST* get() const { return functions_; }

 private:
  void* handle_ = nullptr;
  CK_FUNCTION_LIST* functions_ = nullptr;
};

}  // namespace x509auth_test
