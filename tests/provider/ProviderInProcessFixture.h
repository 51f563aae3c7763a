#pragma once
// The provider built into the test process (OSSL_PROVIDER_add_builtin), as
// the tool's tls command uses it: a library context per Load, stores opened
// with a passphrase callback, digest-signatures checked with OpenSSL's own
// implementation.
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/provider.h>
#include <openssl/rsa.h>
#include <openssl/store.h>
#include <openssl/ui.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "ProviderContext.h"
#include "ProviderFixture.h"

namespace x509auth_test {

// The providers are unloaded before their library context goes: members
// are destroyed in reverse order.
struct Loaded {
  LibCtxPtr owned_ctx;
  OSSL_LIB_CTX* ctx = nullptr;
  OsslProviderPtr x509auth;
  OsslProviderPtr fallback;
};

// The secret the store's passphrase callback gives, and how often it asked.
struct Answer {
  std::string secret;
  int asked = 0;
};

inline int PemCallback(char* buffer, int size, int, void* data) {
  Answer* answer = static_cast<Answer*>(data);
  ++answer->asked;
  const int length = static_cast<int>(answer->secret.size());
  if (length > size) return -1;
  std::memcpy(buffer, answer->secret.data(), answer->secret.size());
  return length;
}

inline std::string ErrorText() {
  std::string text;
  char line[512];
  unsigned long code;
  const char* data = nullptr;
  int flags = 0;
  while ((code = ERR_get_error_all(nullptr, nullptr, nullptr, &data, &flags)) != 0) {
    ERR_error_string_n(code, line, sizeof line);
    text += line;
    if (data != nullptr && (flags & ERR_TXT_STRING) != 0) text += std::string(" ") + data;
    text += "\n";
  }
  return text;
}

class ProviderInProcessTest : public ProviderTest {
 protected:
  void SetUp() override {
    ProviderTest::SetUp();
    setenv("X509AUTH_LOG", "none", 1);
    ui_.reset(UI_UTIL_wrap_read_pem_callback(PemCallback, 0));
  }
  void TearDown() override {
    rsa_key_.reset();
    ec_key_.reset();
    clients_.reset();
    for (const char* name : {"X509AUTH_LOG", "X509AUTH_DIRS", "X509AUTH_CA_FILES"}) unsetenv(name);
    ProviderTest::TearDown();
  }

  // A library context with the provider built in, reading |dirs|, with
  // |ca_files| (cas.pem when empty).
  std::unique_ptr<Loaded> Load(const std::filesystem::path& dirs,
                               const std::string& ca_files = "") {
    setenv("X509AUTH_DIRS", dirs.c_str(), 1);
    setenv("X509AUTH_CA_FILES", ca_files.empty() ? CasFile().c_str() : ca_files.c_str(), 1);
    auto loaded = std::make_unique<Loaded>();
    loaded->owned_ctx.reset(OSSL_LIB_CTX_new());
    loaded->ctx = loaded->owned_ctx.get();
    EXPECT_EQ(
        OSSL_PROVIDER_add_builtin(loaded->ctx, "x509auth", x509auth_provider::X509AuthProviderInit),
        1);
    loaded->x509auth.reset(OSSL_PROVIDER_load(loaded->ctx, "x509auth"));
    loaded->fallback.reset(OSSL_PROVIDER_load(loaded->ctx, "default"));
    EXPECT_NE(loaded->x509auth, nullptr) << ErrorText();
    return loaded;
  }

  // Every object the URI gives; the store stays open while |keep_open|.
  std::vector<OsslStoreInfoPtr> LoadAll(const Loaded& loaded, const std::string& uri,
                                        Answer* answer, OsslStoreCtxPtr* keep_open = nullptr) {
    std::vector<OsslStoreInfoPtr> infos;
    OsslStoreCtxPtr store(OSSL_STORE_open_ex(uri.c_str(), loaded.ctx, nullptr, ui_.get(), answer,
                                             nullptr, nullptr, nullptr));
    if (store == nullptr) return infos;
    while (!OSSL_STORE_eof(store.get())) {
      OsslStoreInfoPtr info(OSSL_STORE_load(store.get()));
      if (info == nullptr) break;
      infos.push_back(std::move(info));
    }
    if (keep_open != nullptr) *keep_open = std::move(store);
    return infos;
  }

  // An RSA client (chains_[0]) installed with an unencrypted key, and its
  // key loaded through a new library context into |rsa_key_|; the client's
  // thumbprint.
  std::string LoadRsaClient() {
    const std::string rsa = InstallClient(KeyKind::k_rsa, "RSA Client");
    clients_ = Load(base_);
    rsa_key_.reset(LoadKey(*clients_, rsa, &clients_answer_));
    return rsa;
  }

  // An RSA client (chains_[0]) and an EC client (chains_[1]) installed
  // with unencrypted keys, and their keys loaded through a new library
  // context into |rsa_key_| and |ec_key_|.
  void LoadRsaAndEcClients() {
    const std::string rsa = InstallClient(KeyKind::k_rsa, "RSA Client");
    const std::string ec = InstallClient(KeyKind::k_ec, "EC Client");
    clients_ = Load(base_);
    rsa_key_.reset(LoadKey(*clients_, rsa, &clients_answer_));
    ec_key_.reset(LoadKey(*clients_, ec, &clients_answer_));
  }

  // The private key of |thumbprint|, or null.
  EVP_PKEY* LoadKey(const Loaded& loaded, const std::string& thumbprint, Answer* answer,
                    OsslStoreCtxPtr* keep_open = nullptr) {
    EVP_PKEY* key = nullptr;
    for (const OsslStoreInfoPtr& info :
         LoadAll(loaded, "x509auth:thumbprint=" + thumbprint, answer, keep_open))
      if (OSSL_STORE_INFO_get_type(info.get()) == OSSL_STORE_INFO_PKEY)
        key = OSSL_STORE_INFO_get1_PKEY(info.get());
    return key;
  }

  // Feeds |size| bytes of |data| to a digest-sign |context| the caller set
  // up, and gives the signature; false where any step fails.
  static bool DigestSign(EVP_MD_CTX* context, const unsigned char* data, std::size_t size,
                         Bytes* signature) {
    std::size_t length = 0;
    if (EVP_DigestSignUpdate(context, data, size) != 1 ||
        EVP_DigestSignFinal(context, nullptr, &length) != 1)
      return false;
    signature->resize(length);
    const bool ok = EVP_DigestSignFinal(context, signature->data(), &length) == 1;
    signature->resize(length);
    return ok;
  }

  // Digest-signs a fixed text with |md| and checks the signature with the
  // certificate's key and OpenSSL's own implementation.
  static bool SignsAndVerifies(const Loaded& loaded, EVP_PKEY* key, const char* md, X509* cert) {
    const EvpMdCtxPtr owned(EVP_MD_CTX_new());
    EVP_MD_CTX* context = owned.get();
    const unsigned char data[] = "signed through the provider";
    Bytes signature;
    if (EVP_DigestSignInit_ex(context, nullptr, md, loaded.ctx, nullptr, key, nullptr) != 1 ||
        !DigestSign(context, data, sizeof data, &signature))
      return false;
    const EVP_MD* digest = EVP_get_digestbyname(md);
    Bytes hash(EVP_MAX_MD_SIZE);
    unsigned int hash_length = 0;
    EVP_Digest(data, sizeof data, hash.data(), &hash_length, digest, nullptr);
    hash.resize(hash_length);
    return VerifiesWithCertificate(cert, digest, hash, signature.data(), signature.size());
  }

  // Digest-signs a fixed text with RSA-PSS (|salt| as OpenSSL's pkeyopt
  // spells it) and verifies with |certificate_key| expecting exactly
  // |expected_salt| bytes of salt.
  static bool SignsPss(const Loaded& loaded, EVP_PKEY* key, const char* md, const char* salt,
                       EVP_PKEY* certificate_key, int expected_salt) {
    const EvpMdCtxPtr owned(EVP_MD_CTX_new());
    EVP_MD_CTX* context = owned.get();
    EVP_PKEY_CTX* pctx = nullptr;
    const unsigned char data[] = "signed with RSA-PSS through the provider";
    Bytes signature;
    if (EVP_DigestSignInit_ex(context, &pctx, md, loaded.ctx, nullptr, key, nullptr) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(pctx, RSA_PKCS1_PSS_PADDING) != 1 ||
        EVP_PKEY_CTX_ctrl_str(pctx, "rsa_pss_saltlen", salt) != 1 ||
        !DigestSign(context, data, sizeof data, &signature))
      return false;
    const EvpMdCtxPtr owned_verify(EVP_MD_CTX_new());
    EVP_MD_CTX* verify = owned_verify.get();
    pctx = nullptr;
    return EVP_DigestVerifyInit_ex(verify, &pctx, md, nullptr, nullptr, certificate_key, nullptr) ==
               1 &&
           EVP_PKEY_CTX_set_rsa_padding(pctx, RSA_PKCS1_PSS_PADDING) == 1 &&
           EVP_PKEY_CTX_set_rsa_pss_saltlen(pctx, expected_salt) == 1 &&
           EVP_DigestVerify(verify, signature.data(), signature.size(), data, sizeof data) == 1;
  }

  x509auth_openssl::UiMethodPtr ui_;
  // LoadRsaClient's and LoadRsaAndEcClients's: the keys go before their
  // library context.
  std::unique_ptr<Loaded> clients_;
  Answer clients_answer_;
  x509auth_openssl::EvpPkeyPtr rsa_key_, ec_key_;
};

}  // namespace x509auth_test
