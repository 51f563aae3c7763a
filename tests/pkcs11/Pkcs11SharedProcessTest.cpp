// The module in a process it shares: beside a host of libx509auth.so.3,
// beside the OpenSSL provider, beside another copy of itself, and offered
// itself (a copy, or p11-kit's proxy leading back to it) as the smart
// cards' module. Each component carries its own copy of the library, so
// none ends or changes another's.
#include <openssl/evp.h>
#include <openssl/provider.h>
#include <openssl/store.h>
#include <unistd.h>

#include <cstdarg>
#include <fstream>

#include "ErrorLineLog.h"
#include "ForkedChild.h"
#include "Pkcs11Session.h"
#include "RecordingCallbacks.h"
#include "SoftHsmToken.h"
#include "x509_auth.h"

namespace x509auth_test {
namespace {

std::vector<std::string> g_host_errors;

void HostLog(X509_Auth_LogPriority priority, const char* format, va_list arguments) {
  KeepErrorLine(g_host_errors, priority, format, arguments);
}

// The providers are unloaded before their library context goes.
struct ProviderHost {
  LibCtxPtr ctx{OSSL_LIB_CTX_new()};
  OsslProviderPtr fallback;
  OsslProviderPtr x509auth;

  ProviderHost() {
    OSSL_PROVIDER_set_default_search_path(ctx.get(), X509AUTH_PROVIDER_DIR);
    fallback.reset(OSSL_PROVIDER_load(ctx.get(), "default"));
    x509auth.reset(OSSL_PROVIDER_load(ctx.get(), "x509auth"));
  }
  ~ProviderHost() {
    x509auth.reset();
    fallback.reset();
  }

  // Loads the key of |hex| through the provider and signs |digest| with it.
  Bytes Sign(const std::string& hex, const Bytes& digest) const {
    const std::string uri = "x509auth:thumbprint=" + hex;
    OsslStoreCtxPtr store(OSSL_STORE_open_ex(uri.c_str(), ctx.get(), nullptr, nullptr, nullptr,
                                             nullptr, nullptr, nullptr));
    if (store == nullptr) return {};
    EvpPkeyPtr key;
    while (!OSSL_STORE_eof(store.get())) {
      OsslStoreInfoPtr info(OSSL_STORE_load(store.get()));
      if (info == nullptr) break;
      if (OSSL_STORE_INFO_get_type(info.get()) == OSSL_STORE_INFO_PKEY)
        key.reset(OSSL_STORE_INFO_get1_PKEY(info.get()));
    }
    if (key == nullptr) return {};
    EvpPkeyCtxPtr sign(EVP_PKEY_CTX_new_from_pkey(ctx.get(), key.get(), nullptr));
    std::size_t length = 0;
    if (sign == nullptr || EVP_PKEY_sign_init(sign.get()) != 1 ||
        EVP_PKEY_CTX_set_signature_md(sign.get(), EVP_sha256()) != 1 ||
        EVP_PKEY_sign(sign.get(), nullptr, &length, digest.data(), digest.size()) != 1)
      return {};
    Bytes signature(length);
    if (EVP_PKEY_sign(sign.get(), signature.data(), &length, digest.data(), digest.size()) != 1)
      return {};
    signature.resize(length);
    return signature;
  }
};

class Pkcs11SharedProcessTest : public Pkcs11Test {
 protected:
  void SetUp() override {
    Pkcs11Test::SetUp();
    // The provider's word for no smart-card module; the module itself loads
    // none while token certificates are off.
    setenv("X509AUTH_MODULE", "none", 1);
    g_host_errors.clear();
  }

  // A host of the shared library over the same folder, smart cards off.
  void StartHost() {
    dirs_ = {base_.c_str()};
    const X509_Auth_Settings settings{dirs_.data(), dirs_.size(), nullptr, 0};
    ASSERT_EQ(X509_Auth_SetPkcs11Module(""), X509_Auth_ResultCode_Success);
    X509_Auth_Init(&settings, X509_Auth_Callbacks{HostLog, nullptr, nullptr, nullptr});
    // One certificate per call.
    for (const TestX509& authority : authorities_) {
      const std::string pem = CertToPem(authority.get());
      ASSERT_EQ(X509_Auth_AddAdditionalCertificateAuthorityToStore(
                    reinterpret_cast<const unsigned char*>(pem.data()), pem.size()),
                1);
    }
  }

  static uint64_t HostCount() {
    uint64_t count = 0;
    const X509_Auth_Certificate* records = nullptr;
    if (!X509_Auth_LoadClientCertificates(&count, &records)) return 0;
    X509_Auth_Free(records);
    return count;
  }

  static bool HostSigns(const InstalledClient& client, const Bytes& digest) {
    const uint32_t algorithms[] = {X509_Auth_Algorithm_Rsa};
    const X509_Auth_Signature* signature = nullptr;
    const X509_Auth_Result result =
        X509_Auth_SignHash(client.thumbprint.data(), 1, algorithms, X509_Auth_HashType_Sha256,
                           digest.data(), &signature);
    const bool verified = result.code == X509_Auth_ResultCode_Success && signature != nullptr &&
                          VerifiesWithCertificate(client.cert.get(), EVP_sha256(), digest,
                                                  signature->data, signature->length);
    if (signature != nullptr) X509_Auth_Free(signature);
    return verified;
  }

  // The tool's --add-ca takes one certificate a file: each authority of the
  // test's chains in a file of its own.
  std::string AddCaOptions() {
    std::string options;
    for (const TestX509& authority : authorities_) {
      const std::filesystem::path file =
          temp_ / ("authority-" + std::to_string(ca_files_++) + ".pem");
      WriteFile(file, CertToPem(authority.get()));
      options += " --add-ca '" + file.string() + "'";
    }
    return options;
  }

  std::vector<const char*> dirs_;
  int ca_files_ = 0;
};

const Bytes k_digest(32, 0x5a);

bool Verifies(const InstalledClient& client, const Bytes& signature) {
  return !signature.empty() && VerifiesWithCertificate(client.cert.get(), EVP_sha256(), k_digest,
                                                       signature.data(), signature.size());
}

// The module's CKM_SHA256_RSA_PKCS hashes what it is given: |signature| is
// over the SHA-256 of k_digest.
bool ModuleSignatureVerifies(const InstalledClient& client, const Bytes& signature) {
  Bytes hashed(32);
  EVP_Digest(k_digest.data(), k_digest.size(), hashed.data(), nullptr, EVP_sha256(), nullptr);
  return !signature.empty() && VerifiesWithCertificate(client.cert.get(), EVP_sha256(), hashed,
                                                       signature.data(), signature.size());
}
const CK_MECHANISM k_sha256_rsa{CKM_SHA256_RSA_PKCS, nullptr, 0};

TEST_F(Pkcs11SharedProcessTest, ModuleFinalizedBesideAHostAndTheProviderEndsNeitherOfThem) {
  const InstalledClient& client = Install(KeyKind::k_rsa, "Shared");
  StartHost();
  ASSERT_EQ(HostCount(), 1u);
  const ProviderHost provider;
  ASSERT_NE(provider.x509auth, nullptr);
  ASSERT_TRUE(Verifies(client, provider.Sign(client.hex, k_digest)));

  const LoadedModule module;
  {
    const ModuleSession session(module);
    const CK_OBJECT_HANDLE key = session.One(CKO_PRIVATE_KEY, client.thumbprint);
    EXPECT_TRUE(ModuleSignatureVerifies(client, session.Sign(key, k_sha256_rsa, k_digest)));
  }  // C_Finalize: the module ends its own copy of the library, no other.

  EXPECT_EQ(HostCount(), 1u);
  EXPECT_TRUE(HostSigns(client, k_digest));
  EXPECT_TRUE(Verifies(client, provider.Sign(client.hex, k_digest)));
  X509_Auth_DeInit();
  // The host ended its library; the provider and the module keep theirs.
  EXPECT_TRUE(Verifies(client, provider.Sign(client.hex, k_digest)));
  const ModuleSession again(module);
  EXPECT_EQ(again.FindClass(CKO_CERTIFICATE, client.thumbprint).size(), 1u);
  EXPECT_TRUE(g_host_errors.empty()) << g_host_errors.front();
}

TEST_F(Pkcs11SharedProcessTest, TwoCopiesOfTheModuleFinalizedOneAfterTheOtherEachKeepTheirState) {
  const InstalledClient& client = Install(KeyKind::k_rsa, "Twice");
  const std::filesystem::path copy = temp_ / "x509auth-pkcs11-copy.so";
  std::filesystem::copy_file(ModulePath(), copy);
  void* second_handle = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(second_handle, nullptr) << dlerror();
  auto get = reinterpret_cast<CK_C_GetFunctionList>(dlsym(second_handle, "C_GetFunctionList"));
  CK_FUNCTION_LIST* second = nullptr;
  ASSERT_EQ(get(&second), CKR_OK);

  const LoadedModule first;
  ASSERT_NE(first.get(), second);
  auto second_session = std::make_unique<ModuleSession>(second);
  {
    const ModuleSession first_session(first);
    EXPECT_EQ(first_session.FindClass(CKO_CERTIFICATE, client.thumbprint).size(), 1u);
  }  // the first copy finalized, as p11-kit does for one registration
  CK_TOKEN_INFO info{};
  EXPECT_EQ(second->C_GetTokenInfo(second_session->slot(), &info), CKR_OK);
  const CK_OBJECT_HANDLE key = second_session->One(CKO_PRIVATE_KEY, client.thumbprint);
  EXPECT_TRUE(ModuleSignatureVerifies(client, second_session->Sign(key, k_sha256_rsa, k_digest)));
  second_session.reset();
  dlclose(second_handle);
}

// p11-kit reads its registrations from /usr/share/p11-kit/modules and
// /etc/pkcs11/modules, and none from a user's folder for root. The tests run
// the program in a private mount namespace with their own folder mounted
// over the first, so nothing of the machine's set-up is seen or changed.
class Pkcs11RegisteredTest : public Pkcs11SharedProcessTest {
 protected:
  void Register(const std::vector<std::filesystem::path>& modules) {
    std::filesystem::create_directories(temp_ / "registered");
    int index = 0;
    for (const auto& module : modules)
      WriteFile(temp_ / "registered" / ("x509auth-" + std::to_string(index++) + ".module"),
                "module: " + module.string() + "\n");
  }

  // |command| run by sh inside the namespace, with the test's environment.
  ChildResult InNamespace(const std::string& command) const {
    const std::string script =
        "mount --bind '" + (temp_ / "registered").string() +
        "' /usr/share/p11-kit/modules && [ ! -d /etc/pkcs11/modules ] || mount -t tmpfs none "
        "/etc/pkcs11/modules; " +
        command;
    return Run({"/usr/bin/unshare", "-m", "--propagation", "private", "sh", "-c", script});
  }

  static bool CanUnshare() { return std::system("unshare -m true > /dev/null 2>&1") == 0; }
};

TEST_F(Pkcs11RegisteredTest, TwoRegistrationsOfTheModuleServeP11toolAndWget) {
  if (!HaveProgram("p11tool") || !HaveProgram("wget") || !CanUnshare())
    GTEST_SKIP() << "needs p11tool, wget and unshare -m";
#ifdef X509AUTH_TEST_ASAN_RUNTIME
  // As gnutls-cli, they deadlock at exit in p11-kit's destructor with the
  // sanitizer's runtime preloaded, whatever module they loaded; the two
  // copies' own code runs under the sanitizers in the in-process tests.
  GTEST_SKIP() << "p11tool and wget hang at exit with the sanitizer runtime preloaded";
#endif
  Install(KeyKind::k_rsa, "Registered Twice");
  const std::filesystem::path copy = temp_ / "x509auth-pkcs11-copy.so";
  std::filesystem::copy_file(ModulePath(), copy);
  Register({ModulePath(), copy});

  // Both copies loaded and initialised side by side.
  const ChildResult modules = InNamespace("p11-kit list-modules");
  EXPECT_EQ(modules.status, 0) << modules.err;
  std::size_t count = 0;
  for (std::size_t at = 0; (at = modules.out.find("token: x509auth", at)) != std::string::npos;
       ++at)
    ++count;
  EXPECT_EQ(count, 2u) << modules.out;

  // GnuTLS shows the two tokens, which carry one serial, as one.
  const ChildResult tokens = InNamespace("p11tool --list-tokens");
  EXPECT_EQ(tokens.status, 0) << tokens.err;
  EXPECT_NE(tokens.out.find("Label: x509auth"), std::string::npos) << tokens.out;
  const ChildResult certificates = InNamespace("p11tool --list-all-certs");
  EXPECT_EQ(certificates.status, 0) << certificates.err;
  EXPECT_NE(certificates.out.find("Registered Twice"), std::string::npos) << certificates.out;
  // wget (GnuTLS) loads and finalises every registered module; nothing
  // listens on port 1, so it ends with its network failure status, 4.
  const ChildResult fetched = InNamespace("wget -q -O /dev/null http://127.0.0.1:1/");
  EXPECT_EQ(fetched.status, 4) << fetched.err;
}

TEST_F(Pkcs11RegisteredTest, ProxyThatLeadsBackToTheModuleIsRefusedAsTheProvidersTokenModule) {
  if (!CanUnshare()) GTEST_SKIP() << "needs unshare -m";
  Install(KeyKind::k_ec, "Provider Behind The Proxy");
  Register({ModulePath()});
  const std::string storeutl = "X509AUTH_MODULE=/usr/lib/x86_64-linux-gnu/p11-kit-proxy.so " +
                               OpensslProgram() + " storeutl -provider-path '" +
                               X509AUTH_PROVIDER_DIR +
                               "' -provider x509auth -provider default -noout x509auth:";
  const ChildResult listed = InNamespace(storeutl);
  EXPECT_EQ(listed.status, 0) << listed.err;
  // The file certificate, once: not again through the proxy as a card's.
  EXPECT_NE(listed.out.find("Total found: 1"), std::string::npos) << listed.out;
  const ChildResult told = InNamespace("X509AUTH_LOG=error " + storeutl);
  EXPECT_NE(told.err.find("PKCS#11 module /usr/lib/x86_64-linux-gnu/p11-kit-proxy.so refused: it "
                          "leads back to x509auth's own PKCS#11 module"),
            std::string::npos)
      << told.err;
}

#ifdef X509_AUTH_TOOL_PATH
TEST_F(Pkcs11RegisteredTest, ProxyThatLeadsBackToTheModuleIsRefusedAsTheToolsTokenModule) {
  if (!CanUnshare()) GTEST_SKIP() << "needs unshare -m";
  const InstalledClient& client = Install(KeyKind::k_rsa, "Behind The Proxy");
  Register({ModulePath()});
  const std::string tool = std::string(X509_AUTH_TOOL_PATH) + " --dir '" + base_.string() + "'" +
                           AddCaOptions() + " --module /usr/lib/x86_64-linux-gnu/p11-kit-proxy.so";

  const ChildResult listed = InNamespace(tool + " list --json");
  ASSERT_EQ(listed.status, 0) << listed.err;
  // The file certificate, once: not again through the proxy as a card's.
  std::size_t count = 0;
  for (std::size_t at = 0; (at = listed.out.find("\"thumbprint\"", at)) != std::string::npos; ++at)
    ++count;
  EXPECT_EQ(count, 1u) << listed.out;
  EXPECT_NE(listed.out.find(client.hex), std::string::npos) << listed.out;
  const ChildResult verbose = InNamespace(tool + " -v list");
  EXPECT_EQ(verbose.status, 0) << verbose.err;
  EXPECT_NE(verbose.err.find("PKCS#11 module /usr/lib/x86_64-linux-gnu/p11-kit-proxy.so refused: "
                             "it leads back to x509auth's own PKCS#11 module (token \"x509auth\")"),
            std::string::npos)
      << verbose.err;
}

TEST_F(Pkcs11SharedProcessTest, CopyOfTheModuleIsRefusedAsTheToolsTokenModuleByWhatItSays) {
  const InstalledClient& client = Install(KeyKind::k_ec, "Copied");
  const std::filesystem::path copy = temp_ / "renamed-module.so";
  std::filesystem::copy_file(ModulePath(), copy);
  const ChildResult listed =
      Run({"/bin/sh", "-c",
           std::string(X509_AUTH_TOOL_PATH) + " --dir '" + base_.string() + "'" + AddCaOptions() +
               " --module '" + copy.string() + "' -v list"});
  EXPECT_EQ(listed.status, 0) << listed.err;
  EXPECT_NE(listed.out.find(client.hex.substr(0, 12)), std::string::npos) << listed.out;
  EXPECT_NE(listed.err.find("PKCS#11 module " + copy.string() +
                            " refused: it is x509auth's own PKCS#11 module (manufacturer "
                            "\"x509auth\")"),
            std::string::npos)
      << listed.err;
}
#endif

TEST_F(Pkcs11SharedProcessTest, CopyOfTheModuleAsItsOwnTokenModuleListsWithoutHanging) {
  const InstalledClient& client = Install(KeyKind::k_rsa, "Self");
  const std::filesystem::path copy = temp_ / "renamed-module.so";
  std::filesystem::copy_file(ModulePath(), copy);
  setenv("X509AUTH_TOKEN_CERTIFICATES", "on", 1);
  setenv("X509AUTH_MODULE", copy.c_str(), 1);
  const std::string outcome = RunInChild(
      [&] {
        const LoadedModule module;
        const ModuleSession session(module);
        const auto certificates = session.FindClass(CKO_CERTIFICATE);
        const auto mine = session.FindClass(CKO_CERTIFICATE, client.thumbprint);
        return "certificates " + std::to_string(certificates.size()) + ", mine " +
               std::to_string(mine.size());
      },
      ChildOptions{false, 30});
  // The leaf and its two CAs, each once: the copy's token was refused.
  EXPECT_EQ(outcome, "certificates 3, mine 1");
}

// A PKCS#11 module is one per process whoever loads it: two copies of the
// library that use the same token module share its state, and the one that
// ends first finalises it under the other. The other then gets a defined
// failure, and works again once it has started afresh.
TEST_F(Pkcs11SharedProcessTest, TokenModuleFinalizedByAnotherComponentFailsCleanlyUntilRestarted) {
  X509AUTH_SKIP_WITHOUT_SOFTHSM2();
  SoftHsmToken hsm;
  hsm.InitToken("Shared Card");
  Chain chain = MakeChain(KeyKind::k_rsa, "Card Holder");
  hsm.ImportCertAndKey("Shared Card", chain.leaf.get(), chain.leaf_key.get(), "01", "holder");
  const Bytes thumbprint = Sha1Thumbprint(chain.leaf.get());
  cas_pem_ = CertToPem(chain.root.get()) + CertToPem(chain.intermediate.get());
  WriteFile(CasFile(), cas_pem_);

  dirs_ = {base_.c_str()};
  const X509_Auth_Settings settings{dirs_.data(), dirs_.size(), nullptr, 0};
  ASSERT_EQ(X509_Auth_SetPkcs11Module(SOFTHSM2_MODULE_PATH), X509_Auth_ResultCode_Success);
  RecordingCallbacks& recorder = RecordingCallbacks::GetInstance();
  recorder.Reset();
  for (int i = 0; i < 4; ++i) recorder.ScriptAnswer(PinAnswer::Value(SoftHsmToken::k_default_pin));
  const X509_Auth_Callbacks callbacks = recorder.Callbacks();
  X509_Auth_Init(&settings, callbacks);
  X509_Auth_AddAdditionalCertificateAuthorityToStore(
      reinterpret_cast<const unsigned char*>(cas_pem_.data()), cas_pem_.size());
  const uint32_t algorithms[] = {X509_Auth_Algorithm_Rsa};
  auto sign = [&] {
    const X509_Auth_Signature* signature = nullptr;
    const X509_Auth_Result result = X509_Auth_SignHash(
        thumbprint.data(), 1, algorithms, X509_Auth_HashType_Sha256, k_digest.data(), &signature);
    const bool verified = result.code == X509_Auth_ResultCode_Success && signature != nullptr &&
                          VerifiesWithCertificate(chain.leaf.get(), EVP_sha256(), k_digest,
                                                  signature->data, signature->length);
    if (signature != nullptr) X509_Auth_Free(signature);
    return verified ? X509_Auth_ResultCode_Success
                    : (result.code == 0 ? X509_Auth_ResultCode_KeyOperationFailed : result.code);
  };
  ASSERT_EQ(sign(), X509_Auth_ResultCode_Success);

  setenv("X509AUTH_TOKEN_CERTIFICATES", "on", 1);
  setenv("X509AUTH_MODULE", SOFTHSM2_MODULE_PATH, 1);
  {
    const LoadedModule module;
    const ModuleSession session(module);
    EXPECT_EQ(session.FindClass(CKO_CERTIFICATE, thumbprint).size(), 1u);
  }  // the module's library unloads SoftHSM2's, which finalises it for all

  EXPECT_NE(sign(), X509_Auth_ResultCode_Success);
  X509_Auth_DeInit();
  X509_Auth_Init(&settings, callbacks);
  X509_Auth_AddAdditionalCertificateAuthorityToStore(
      reinterpret_cast<const unsigned char*>(cas_pem_.data()), cas_pem_.size());
  EXPECT_EQ(sign(), X509_Auth_ResultCode_Success);
  X509_Auth_DeInit();
}

}  // namespace
}  // namespace x509auth_test
