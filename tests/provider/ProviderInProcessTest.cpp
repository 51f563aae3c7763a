// The provider built into a host (OSSL_PROVIDER_add_builtin), as the tool's
// tls command uses it: key parameters, every digest, refusals, passphrase
// routing, and two library contexts sharing the process's one library.
#include "ProviderInProcessFixture.h"

namespace x509auth_test {
namespace {

TEST_F(ProviderInProcessTest, KeyAnswersFromTheCertificateAndKeepsItsPrivateHalf) {
  LoadRsaAndEcClients();
  ASSERT_NE(rsa_key_, nullptr) << ErrorText();
  ASSERT_NE(ec_key_, nullptr) << ErrorText();
  EXPECT_EQ(clients_answer_.asked, 0);  // unencrypted key files
  EXPECT_TRUE(EVP_PKEY_is_a(rsa_key_.get(), "RSA"));
  EXPECT_TRUE(EVP_PKEY_is_a(ec_key_.get(), "EC"));
  EXPECT_EQ(EVP_PKEY_get_bits(rsa_key_.get()), 2048);
  EXPECT_EQ(EVP_PKEY_get_size(rsa_key_.get()), 256);
  EXPECT_EQ(EVP_PKEY_get_security_bits(rsa_key_.get()), 112);
  EXPECT_EQ(EVP_PKEY_get_bits(ec_key_.get()), 256);
  char group[64] = {};
  EXPECT_EQ(EVP_PKEY_get_utf8_string_param(ec_key_.get(), OSSL_PKEY_PARAM_GROUP_NAME, group,
                                           sizeof group, nullptr),
            1);
  EXPECT_STREQ(group, "prime256v1");
  char digest[64] = {};
  EXPECT_GE(EVP_PKEY_get_default_digest_name(rsa_key_.get(), digest, sizeof digest), 1);
  EXPECT_STREQ(digest, "SHA256");
  // The certificate's key and this one are one pair, as libssl checks. (On
  // copies: the comparison caches an export of the certificate's key in this
  // library context, and the originals share their key with the process-wide
  // test keys, which outlive it.)
  TestX509 rsa_cert(X509_dup(chains_[0].leaf.get()));
  TestX509 ec_cert(X509_dup(chains_[1].leaf.get()));
  EXPECT_EQ(X509_check_private_key(rsa_cert.get(), rsa_key_.get()), 1) << ErrorText();
  EXPECT_EQ(X509_check_private_key(ec_cert.get(), ec_key_.get()), 1) << ErrorText();
  EXPECT_NE(X509_check_private_key(rsa_cert.get(), ec_key_.get()), 1);
  ERR_clear_error();
  // The public half exports; the private half does not.
  OSSL_PARAM* params = nullptr;
  EXPECT_EQ(EVP_PKEY_todata(ec_key_.get(), EVP_PKEY_PUBLIC_KEY, &params), 1);
  OsslParamPtr public_params(params);
  EXPECT_NE(OSSL_PARAM_locate(params, OSSL_PKEY_PARAM_PUB_KEY), nullptr);
  params = nullptr;
  EXPECT_NE(EVP_PKEY_todata(rsa_key_.get(), EVP_PKEY_KEYPAIR, &params), 1);
  OsslParamPtr private_params(params);
  unsigned char* der = nullptr;
  const int length = i2d_PUBKEY(ec_key_.get(), &der);
  const OpenSslBytesPtr owned_der(der);
  X509_PUBKEY* from_cert = X509_get_X509_PUBKEY(chains_[1].leaf.get());
  unsigned char* expected = nullptr;
  const int expected_length = i2d_X509_PUBKEY(from_cert, &expected);
  const OpenSslBytesPtr owned_expected(expected);
  EXPECT_EQ(Bytes(der, der + std::max(length, 0)),
            Bytes(expected, expected + std::max(expected_length, 0)));
}

TEST_F(ProviderInProcessTest, SignsWithEveryDigestTheLibraryKnowsAndRefusesOthers) {
  LoadRsaAndEcClients();
  ASSERT_NE(rsa_key_, nullptr);
  ASSERT_NE(ec_key_, nullptr);
  for (const char* md : {"SHA1", "SHA256", "SHA384", "SHA512"}) {
    EXPECT_TRUE(SignsAndVerifies(*clients_, rsa_key_.get(), md, chains_[0].leaf.get()))
        << md << ErrorText();
    EXPECT_TRUE(SignsAndVerifies(*clients_, ec_key_.get(), md, chains_[1].leaf.get()))
        << md << ErrorText();
  }
  EXPECT_FALSE(SignsAndVerifies(*clients_, ec_key_.get(), "SHA224", chains_[1].leaf.get()));
  EXPECT_NE(ErrorText().find("unsupported digest"), std::string::npos);
  // RSA-PSS with every digest and every salt spelling OpenSSL has; each
  // verified by OpenSSL's own implementation with the certificate's key and
  // the salt length the signature must have.
  EVP_PKEY* certificate_key = X509_get0_pubkey(chains_[0].leaf.get());
  for (const char* md : {"SHA1", "SHA256", "SHA384", "SHA512"}) {
    const int digest_length = EVP_MD_get_size(EVP_get_digestbyname(md));
    const int longest = 256 - digest_length - 2;
    const struct {
      const char* asked;
      int expected;
    } salts[] = {{"digest", digest_length}, {"max", longest}, {"auto", longest}, {"20", 20}};
    for (const auto& salt : salts) {
      EXPECT_TRUE(
          SignsPss(*clients_, rsa_key_.get(), md, salt.asked, certificate_key, salt.expected))
          << md << " salt " << salt.asked << ErrorText();
    }
  }
}

TEST_F(ProviderInProcessTest, RsaSignatureWithoutADigestIsRefusedClearly) {
  LoadRsaClient();
  ASSERT_NE(rsa_key_, nullptr) << ErrorText();
  EvpPkeyCtxPtr context(EVP_PKEY_CTX_new_from_pkey(clients_->ctx, rsa_key_.get(), nullptr));
  ASSERT_EQ(EVP_PKEY_sign_init(context.get()), 1);
  const unsigned char hash[32] = {1, 2, 3};
  unsigned char signature[512];
  std::size_t length = sizeof signature;
  EXPECT_NE(EVP_PKEY_sign(context.get(), signature, &length, hash, sizeof hash), 1);
  context.reset();
  const std::string errors = ErrorText();
  EXPECT_NE(errors.find("an RSA signature needs its digest set"), std::string::npos) << errors;
}

// Sets a digest (|name| under |key|) and its properties (|properties| under
// |properties_key|; none when null) on |context|, as one call.
bool SetDigestParams(EVP_PKEY_CTX* context, const char* key, const char* name,
                     const char* properties_key, const char* properties) {
  OSSL_PARAM params[3];
  int count = 0;
  if (name != nullptr)
    params[count++] = OSSL_PARAM_construct_utf8_string(key, const_cast<char*>(name), 0);
  if (properties != nullptr)
    params[count++] =
        OSSL_PARAM_construct_utf8_string(properties_key, const_cast<char*>(properties), 0);
  params[count] = OSSL_PARAM_construct_end();
  return EVP_PKEY_CTX_set_params(context, params) == 1;
}

// The name of the digest |key| reports on |context|, or "".
std::string DigestParam(EVP_PKEY_CTX* context, const char* key) {
  char name[64] = "";
  OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(key, name, sizeof name),
                         OSSL_PARAM_construct_end()};
  return EVP_PKEY_CTX_get_params(context, params) == 1 ? name : "";
}

// A signing context of an RSA client's key loaded through the provider.
class ProviderSignatureParamsTest : public ProviderInProcessTest {
 protected:
  void SetUp() override {
    ProviderInProcessTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    LoadRsaClient();
    ASSERT_NE(rsa_key_, nullptr) << ErrorText();
    context_.reset(EVP_PKEY_CTX_new_from_pkey(clients_->ctx, rsa_key_.get(), nullptr));
    ASSERT_EQ(EVP_PKEY_sign_init(context_.get()), 1);
  }
  void TearDown() override {
    context_.reset();
    ProviderInProcessTest::TearDown();
  }

  // The digest |key| set to SHA-256 with properties OpenSSL's default
  // provider has, then to SHA-384 with properties nothing has: refused, and
  // SHA-256 stays.
  void ExpectPropertiesChoose(const char* key, const char* properties_key) {
    EXPECT_TRUE(SetDigestParams(context_.get(), key, "SHA256", properties_key, "provider=default"))
        << ErrorText();
    EXPECT_EQ(DigestParam(context_.get(), key), "SHA2-256");
    EXPECT_FALSE(
        SetDigestParams(context_.get(), key, "SHA384", properties_key, "provider=nowhere"));
    EXPECT_NE(ErrorText().find("unsupported digest"), std::string::npos);
    EXPECT_EQ(DigestParam(context_.get(), key), "SHA2-256");
  }

  EvpPkeyCtxPtr context_;
};

TEST_F(ProviderSignatureParamsTest, DigestPropertiesChooseWhereTheSignaturesDigestIsFetched) {
  ExpectPropertiesChoose(OSSL_SIGNATURE_PARAM_DIGEST, OSSL_SIGNATURE_PARAM_PROPERTIES);
  // Properties without a digest name change nothing.
  EXPECT_TRUE(SetDigestParams(context_.get(), OSSL_SIGNATURE_PARAM_DIGEST, nullptr,
                              OSSL_SIGNATURE_PARAM_PROPERTIES, "provider=nowhere"))
      << ErrorText();
  EXPECT_EQ(DigestParam(context_.get(), OSSL_SIGNATURE_PARAM_DIGEST), "SHA2-256");
}

TEST_F(ProviderSignatureParamsTest, Mgf1PropertiesChooseWhereTheMaskDigestIsFetched) {
  ASSERT_EQ(EVP_PKEY_CTX_set_rsa_padding(context_.get(), RSA_PKCS1_PSS_PADDING), 1);
  ExpectPropertiesChoose(OSSL_SIGNATURE_PARAM_MGF1_DIGEST, OSSL_SIGNATURE_PARAM_MGF1_PROPERTIES);
}

TEST_F(ProviderInProcessTest, PasswordGivenAtTheLoadServesEveryLaterOperationOfTheKey) {
  const std::string thumbprint = InstallClient(KeyKind::k_rsa, "Locked Client", "s3cret");
  auto loaded = Load(base_);
  Answer answer{"s3cret"};
  OsslStoreCtxPtr store;
  x509auth_openssl::EvpPkeyPtr key(LoadKey(*loaded, thumbprint, &answer, &store));
  ASSERT_NE(key, nullptr) << ErrorText();
  EXPECT_EQ(answer.asked, 1);  // the load unlocks the key once
  EXPECT_TRUE(SignsAndVerifies(*loaded, key.get(), "SHA256", chains_[0].leaf.get())) << ErrorText();
  // The library reads the key file again, and the kept answer serves it.
  EXPECT_EQ(answer.asked, 1);
  store.reset();
  // The callback lived in the store; the answer lives with the key.
  EXPECT_TRUE(SignsAndVerifies(*loaded, key.get(), "SHA384", chains_[0].leaf.get())) << ErrorText();
  EXPECT_TRUE(
      SignsPss(*loaded, key.get(), "SHA256", "digest", X509_get0_pubkey(chains_[0].leaf.get()), 32))
      << ErrorText();
  EXPECT_EQ(answer.asked, 1);
}

TEST_F(ProviderInProcessTest, SuccessfulOperationsLeaveTheErrorQueueAsTheyFoundIt) {
  // DER key files make the library try PEM first, which queues errors.
  const std::string rsa = InstallClientWithKey(KeyKind::k_rsa, "RSA DER", KeyForm::k_der);
  const std::string ec = InstallClientWithKey(KeyKind::k_ec, "EC DER", KeyForm::k_der);
  auto loaded = Load(base_);
  Answer answer;
  ERR_clear_error();
  ERR_raise_data(ERR_LIB_USER, 42, "the application's own error");
  x509auth_openssl::EvpPkeyPtr rsa_key(LoadKey(*loaded, rsa, &answer));
  x509auth_openssl::EvpPkeyPtr ec_key(LoadKey(*loaded, ec, &answer));
  ASSERT_NE(rsa_key, nullptr);
  ASSERT_NE(ec_key, nullptr);
  EXPECT_TRUE(SignsAndVerifies(*loaded, rsa_key.get(), "SHA256", chains_[0].leaf.get()));
  EXPECT_TRUE(SignsAndVerifies(*loaded, ec_key.get(), "SHA256", chains_[1].leaf.get()));
  EXPECT_TRUE(SignsPss(*loaded, rsa_key.get(), "SHA256", "digest",
                       X509_get0_pubkey(chains_[0].leaf.get()), 32));
  // Exactly the one error the application had queued, nothing more.
  const char* data = nullptr;
  EXPECT_EQ(ERR_GET_REASON(ERR_get_error_all(nullptr, nullptr, nullptr, &data, nullptr)), 42);
  EXPECT_STREQ(data, "the application's own error");
  EXPECT_EQ(ERR_peek_error(), 0u) << ErrorText();
}

TEST_F(ProviderInProcessTest, FailureRaisesOneErrorCarryingTheLibrarysLines) {
  const std::string thumbprint = InstallClient(KeyKind::k_ec, "Locked Client", "s3cret");
  auto loaded = Load(base_);
  Answer answer{"wrong"};
  ERR_clear_error();
  x509auth_openssl::EvpPkeyPtr key(LoadKey(*loaded, thumbprint, &answer));
  EXPECT_EQ(key, nullptr);
  int from_provider = 0;
  std::string data_text;
  unsigned long code;
  const char* data = nullptr;
  int flags = 0;
  while ((code = ERR_get_error_all(nullptr, nullptr, nullptr, &data, &flags)) != 0) {
    if (data != nullptr && std::strstr(data, "thumbprint=") != nullptr) {
      ++from_provider;
      data_text = data;
    }
  }
  EXPECT_EQ(from_provider, 1);
  // The library's own error lines for the call, as the error's data.
  EXPECT_NE(data_text.find("library: "), std::string::npos) << data_text;
  EXPECT_NE(data_text.find("Failed to open private key for certificate (error: 1)"),
            std::string::npos)
      << data_text;
}

TEST_F(ProviderInProcessTest, WorkingDirectoryNeverChangesWhileTheProviderWorks) {
  const std::string rsa = InstallClient(KeyKind::k_rsa, "RSA Client");
  setenv("X509AUTH_MODULE", OPENSC_MODULE_PATH, 1);
  auto loaded = Load(base_);
  unsetenv("X509AUTH_MODULE");
  const std::filesystem::path expected = std::filesystem::current_path();
  std::atomic<bool> done{false};
  std::atomic<int> changed{0}, looks{0};
  std::thread watcher([&] {
    char cwd[4096];
    while (!done) {
      if (getcwd(cwd, sizeof cwd) == nullptr || expected != cwd) ++changed;
      ++looks;
    }
  });
  Answer answer;
  for (int round = 0; round < 5; ++round) {
    x509auth_openssl::EvpPkeyPtr key(LoadKey(*loaded, rsa, &answer));
    EXPECT_NE(key, nullptr);
    if (key != nullptr) {
      EXPECT_TRUE(SignsAndVerifies(*loaded, key.get(), "SHA256", chains_[0].leaf.get()));
    }
  }
  done = true;
  watcher.join();
  EXPECT_GT(looks.load(), 0);
  EXPECT_EQ(changed.load(), 0);
}

TEST_F(ProviderInProcessTest, WrongPasswordFailsTheKeyLoadWithTheReason) {
  const std::string thumbprint = InstallClient(KeyKind::k_ec, "Locked Client", "s3cret");
  auto loaded = Load(base_);
  Answer answer{"wrong"};
  x509auth_openssl::EvpPkeyPtr key(LoadKey(*loaded, thumbprint, &answer));
  EXPECT_EQ(key, nullptr);
  const std::string errors = ErrorText();
  EXPECT_NE(errors.find("thumbprint=" + thumbprint), std::string::npos) << errors;
  EXPECT_NE(errors.find("wrong PIN or password"), std::string::npos) << errors;
}

TEST_F(ProviderInProcessTest, TwoLibraryContextsKeepTheirDirectoriesAndOutliveEachOther) {
  const std::filesystem::path first = base_;
  const std::string a = InstallClient(KeyKind::k_ec, "First Client");
  base_ = temp_ / "second";
  const std::string b = InstallClient(KeyKind::k_rsa, "Second Client");
  auto one = Load(first);
  auto two = Load(base_);
  Answer answer;
  // Each context lists what its own directories hold, though the library
  // has one settings record for the whole process.
  for (int round = 0; round < 2; ++round) {
    const std::vector<OsslStoreInfoPtr> seen_one = LoadAll(*one, "x509auth:", &answer);
    const std::vector<OsslStoreInfoPtr> seen_two = LoadAll(*two, "x509auth:", &answer);
    ASSERT_EQ(seen_one.size(), 1u);
    ASSERT_EQ(seen_two.size(), 1u);
    EXPECT_EQ(X509_cmp(OSSL_STORE_INFO_get0_CERT(seen_one[0].get()), chains_[0].leaf.get()), 0);
    EXPECT_EQ(X509_cmp(OSSL_STORE_INFO_get0_CERT(seen_two[0].get()), chains_[1].leaf.get()), 0);
  }
  EXPECT_EQ(LoadKey(*one, b, &answer), nullptr);
  ERR_clear_error();
  x509auth_openssl::EvpPkeyPtr key(LoadKey(*two, b, &answer));
  ASSERT_NE(key, nullptr) << ErrorText();
  // The first context goes; the library stays initialised for the second.
  one.reset();
  EXPECT_TRUE(SignsAndVerifies(*two, key.get(), "SHA384", chains_[1].leaf.get())) << ErrorText();
  (void)a;
}

// The provider context of |loaded|'s x509auth provider.
const x509auth_provider::ProviderContext* ContextOf(const Loaded& loaded) {
  return x509auth_provider::ProviderContext::From(
      OSSL_PROVIDER_get0_provider_ctx(loaded.x509auth.get()));
}

TEST_F(ProviderInProcessTest, PublicKeyWorkIsTheApplicationsWhenItHasAnotherProvidersKeys) {
  const std::string ec = InstallClient(KeyKind::k_ec, "EC Client");
  auto loaded = Load(base_);
  Answer answer;
  x509auth_openssl::EvpPkeyPtr key(LoadKey(*loaded, ec, &answer));
  ASSERT_NE(key, nullptr) << ErrorText();
  EXPECT_TRUE(SignsAndVerifies(*loaded, key.get(), "SHA256", chains_[0].leaf.get())) << ErrorText();
  const x509auth_provider::ProviderContext::CryptoContext crypto = ContextOf(*loaded)->Crypto();
  EXPECT_EQ(crypto.libctx, loaded->ctx);
  EXPECT_STREQ(crypto.properties, "provider!=x509auth");
}

TEST_F(ProviderInProcessTest, AnApplicationWithThisProviderAloneHasItsKeysWorkInTheProvidersOwn) {
  const std::string rsa = InstallClient(KeyKind::k_rsa, "RSA Client");
  setenv("X509AUTH_DIRS", base_.c_str(), 1);
  setenv("X509AUTH_CA_FILES", CasFile().c_str(), 1);
  Loaded loaded;
  loaded.owned_ctx.reset(OSSL_LIB_CTX_new());
  loaded.ctx = loaded.owned_ctx.get();
  ASSERT_EQ(
      OSSL_PROVIDER_add_builtin(loaded.ctx, "x509auth", x509auth_provider::X509AuthProviderInit),
      1);
  loaded.x509auth.reset(OSSL_PROVIDER_load(loaded.ctx, "x509auth"));
  ASSERT_NE(loaded.x509auth, nullptr) << ErrorText();
  Answer answer;
  x509auth_openssl::EvpPkeyPtr key(LoadKey(loaded, rsa, &answer));
  ASSERT_NE(key, nullptr) << ErrorText();
  // The signature's digest and its check against the certificate are the
  // provider's own context's: this one has nothing to give them.
  EXPECT_TRUE(SignsAndVerifies(loaded, key.get(), "SHA256", chains_[0].leaf.get())) << ErrorText();
  const x509auth_provider::ProviderContext::CryptoContext crypto = ContextOf(loaded)->Crypto();
  EXPECT_NE(crypto.libctx, loaded.ctx);
  EXPECT_NE(crypto.libctx, nullptr);
  EXPECT_EQ(crypto.properties, nullptr);
  EXPECT_EQ(ERR_peek_error(), 0u) << ErrorText();
}

}  // namespace
}  // namespace x509auth_test
