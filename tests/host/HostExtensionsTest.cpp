// The library's extensions through the C interface: choosing the PKCS#11
// module explicitly (or none), and RSA-PSS signatures with file and token
// keys, every signature verified with the certificate's public key.
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <cstring>

#include "HostFixture.h"
#include "SoftHsmToken.h"

namespace x509auth_test {
namespace {

// Verifies an RSA-PSS signature with |cert|'s public key; |salt| as OpenSSL
// spells it (-2: whatever the signature says).
bool VerifiesPss(X509* cert, X509_Auth_HashType type, const Bytes& digest,
                 const X509_Auth_Signature* signature, int salt) {
  if (signature == nullptr) return false;
  EVP_PKEY* key = X509_get0_pubkey(cert);
  std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
      EVP_PKEY_CTX_new(key, nullptr), EVP_PKEY_CTX_free);
  return context != nullptr && EVP_PKEY_verify_init(context.get()) == 1 &&
         EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PSS_PADDING) == 1 &&
         EVP_PKEY_CTX_set_signature_md(context.get(), DigestFor(type)) == 1 &&
         EVP_PKEY_CTX_set_rsa_mgf1_md(context.get(), DigestFor(type)) == 1 &&
         EVP_PKEY_CTX_set_rsa_pss_saltlen(context.get(), salt) == 1 &&
         EVP_PKEY_verify(context.get(), signature->data, signature->length, digest.data(),
                         digest.size()) == 1;
}

class HostExtensionsTest : public HostTest {
 protected:
  void TearDown() override {
    HostTest::TearDown();
    // The choice is process-wide; leave the default for whatever runs next.
    X509_Auth_SetPkcs11Module(nullptr);
  }
};

TEST_F(HostExtensionsTest, SetPkcs11ModuleRefusesWhatIsNotAnAbsoluteRegularReadableFile) {
  Init({});
  WriteFile(temp_ / "module.so", std::string("not a module"));
  struct Case {
    std::string path;
    std::string line;
  } cases[] = {
      {"opensc-pkcs11.so", "PKCS#11 module refused: opensc-pkcs11.so is not an absolute path"},
      {"./module.so", "PKCS#11 module refused: ./module.so is not an absolute path"},
      {(temp_ / "missing.so").string(),
       "PKCS#11 module refused: " + (temp_ / "missing.so").string() +
           " cannot be found (No such file or directory)"},
      {temp_.path().string(),
       "PKCS#11 module refused: " + temp_.path().string() + " is not a regular file"},
  };
  for (const Case& c : cases) {
    rec().Reset();
    EXPECT_EQ(X509_Auth_SetPkcs11Module(c.path.c_str()), X509_Auth_ResultCode_InvalidArgument)
        << c.path;
    EXPECT_EQ(rec().Logs().size(), 1u) << rec().Dump();
    EXPECT_EQ(rec().Logs().empty() ? "" : rec().Logs()[0].text, c.line);
    EXPECT_EQ(rec().Logs().empty() ? -1 : rec().Logs()[0].priority, X509_Auth_LogPriority_Error);
  }
  EXPECT_EQ(X509_Auth_SetPkcs11Module((temp_ / "module.so").c_str()), 0);
  EXPECT_EQ(X509_Auth_SetPkcs11Module(""), 0);
  EXPECT_EQ(X509_Auth_SetPkcs11Module(nullptr), 0);
}

TEST_F(HostExtensionsTest, NoModuleListsFileCertificatesFromADirectoryWithoutAModule) {
  // A working directory with no module at all, as most hosts have.
  std::filesystem::remove(work_ / "opensc-pkcs11.so");
  TestKey key = SharedKey(KeyKind::k_ec);
  TestX509 cert = MakeClientCert("File EC", key.get());
  InstallFileCert(Base("base"), "ec.pem", cert.get(), key.get());

  // Without a choice, the working-directory lookup finds nothing and the
  // store cannot open, as it always did.
  Init({Base("base").string()});
  uint64_t count = 0;
  const X509_Auth_Certificate* records = nullptr;
  EXPECT_FALSE(X509_Auth_LoadClientCertificates(&count, &records));
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error, "PKCS11 shared object not found",
                        "PKCS11 shared object not found"));
  X509_Auth_DeInit();

  ASSERT_EQ(X509_Auth_SetPkcs11Module(""), 0);
  rec().Reset();
  Init({Base("base").string()});
  const auto listed = List();
  ASSERT_EQ(listed.size(), 1u) << rec().Dump();
  EXPECT_STREQ(listed[0]->name, "File EC");
  EXPECT_TRUE(rec().WithFormat("PKCS11 shared object not found").empty()) << rec().Dump();
  for (const LogEntry& entry : rec().Logs())
    EXPECT_LT(entry.priority, X509_Auth_LogPriority_Error) << entry.text;
  X509_Auth_Free(listed[0]);
}

TEST_F(HostExtensionsTest, ChosenModuleIsLoadedAndTheWorkingDirectoryIsNotLookedAt) {
  X509AUTH_SKIP_WITHOUT_SOFTHSM2();
  SoftHsmToken::Options options;
  // The working directory holds a file by the default name that is no
  // module at all: were it loaded, the load would fail.
  options.module_link_target = "/etc/hostname";
  SoftHsmToken hsm(options);
  hsm.InitToken("Card A");
  TestKey key = SharedKey(KeyKind::k_ec, 1);
  TestX509 cert = MakeClientCert("Token EC", key.get());
  hsm.ImportCertAndKey("Card A", cert.get(), key.get(), "01", "ec");

  ASSERT_EQ(X509_Auth_SetPkcs11Module(SoftHsmToken::ModulePath().c_str()), 0);
  Init({});
  const auto listed = List();
  ASSERT_EQ(listed.size(), 1u) << rec().Dump();
  EXPECT_STREQ(listed[0]->name, "Token EC");
  EXPECT_TRUE(rec().WithFormat("unable to load PKCS11_CTX [%i]").empty()) << rec().Dump();
  X509_Auth_Free(listed[0]);
  X509_Auth_DeInit();

  // Back to the default lookup: now the planted file is what gets loaded.
  ASSERT_EQ(X509_Auth_SetPkcs11Module(nullptr), 0);
  rec().Reset();
  Init({});
  uint64_t count = 0;
  const X509_Auth_Certificate* records = nullptr;
  X509_Auth_LoadClientCertificates(&count, &records);
  EXPECT_FALSE(rec().WithFormat("unable to load PKCS11_CTX [%i]").empty()) << rec().Dump();
  EXPECT_EQ(count, 0u);
  X509_Auth_Free(records);
}

class HostPssTest : public HostExtensionsTest {
 protected:
  void SetUp() override {
    HostExtensionsTest::SetUp();
    ASSERT_EQ(X509_Auth_SetPkcs11Module(""), 0);
    InstallRsaAndEcFiles(Base("base"), "PSS", &rsa_key_, &rsa_, &ec_key_, &ec_);
    Init({Base("base").string()});
  }

  TestKey rsa_key_, ec_key_;
  TestX509 rsa_, ec_;
};

TEST_F(HostPssTest, FileKeySignsEveryDigestWithEverySaltThatVerifies) {
  const Bytes thumbprint = Sha1Thumbprint(rsa_.get());
  const int rsa_bytes = EVP_PKEY_size(rsa_key_.get());
  for (X509_Auth_HashType type : {X509_Auth_HashType_Sha1, X509_Auth_HashType_Sha256,
                                  X509_Auth_HashType_Sha384, X509_Auth_HashType_Sha512}) {
    const Bytes digest = DigestOf(type, "message for PSS");
    const int longest =
        (EVP_PKEY_bits(rsa_key_.get()) - 1 + 7) / 8 - static_cast<int>(digest.size()) - 2;
    struct Salt {
      int32_t asked;
      int expected;
    } salts[] = {{X509_AUTH_PSS_SALT_DIGEST, static_cast<int>(digest.size())},
                 {X509_AUTH_PSS_SALT_AUTO, longest},
                 {X509_AUTH_PSS_SALT_MAX, longest},
                 {0, 0},
                 {7, 7}};
    for (const Salt& salt : salts) {
      const X509_Auth_Signature* signature = nullptr;
      const X509_Auth_Result result =
          X509_Auth_SignHashPss(thumbprint.data(), type, digest.data(), salt.asked, &signature);
      ASSERT_EQ(result.code, 0) << rec().Dump();
      ASSERT_NE(signature, nullptr);
      EXPECT_EQ(signature->algorithm, static_cast<uint32_t>(X509_Auth_Algorithm_Rsa));
      EXPECT_EQ(signature->length, static_cast<uint64_t>(rsa_bytes));
      // Verified with the exact salt length: a different one would fail.
      EXPECT_TRUE(VerifiesPss(rsa_.get(), type, digest, signature, salt.expected))
          << "hash type " << type << " salt " << salt.asked;
      X509_Auth_Free(signature);
    }
  }
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Info, "Successfully signed hash with RSA-PSS",
                        "Successfully signed hash with RSA-PSS"));
}

TEST_F(HostPssTest, RefusalsAreResultCodesWithALogLineAndANullSignature) {
  const Bytes rsa = Sha1Thumbprint(rsa_.get());
  const Bytes ec = Sha1Thumbprint(ec_.get());
  const Bytes digest = DigestOf(X509_Auth_HashType_Sha256, "refused");
  const X509_Auth_Signature* signature = reinterpret_cast<const X509_Auth_Signature*>(&digest);
  const auto sign = [&](const Bytes& thumbprint, uint32_t type, int32_t salt) {
    signature = reinterpret_cast<const X509_Auth_Signature*>(&digest);
    return X509_Auth_SignHashPss(thumbprint.data(), type, digest.data(), salt, &signature).code;
  };
  EXPECT_EQ(sign(ec, X509_Auth_HashType_Sha256, -1), X509_Auth_ResultCode_AlgorithmNotSupported);
  EXPECT_EQ(signature, nullptr);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error,
                        "Certificate does not support RSA-PSS signatures",
                        "Certificate does not support RSA-PSS signatures"));
  EXPECT_EQ(sign(rsa, 4, -1), X509_Auth_ResultCode_InvalidArgument);
  EXPECT_EQ(signature, nullptr);
  EXPECT_EQ(sign(rsa, X509_Auth_HashType_Sha256, -4), X509_Auth_ResultCode_InvalidArgument);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error,
                        "X509_Auth_SignHashPss: invalid argument (a null pointer, hash type %u or "
                        "salt length %d)",
                        "X509_Auth_SignHashPss: invalid argument (a null pointer, hash type 1 or "
                        "salt length -4)"));
  rec().Reset();
  EXPECT_EQ(sign(rsa, X509_Auth_HashType_Sha256, 100000), X509_Auth_ResultCode_InvalidArgument);
  EXPECT_EQ(signature, nullptr);
  ASSERT_EQ(rec().WithFormat("Key::SignPss salt length %d does not fit a %d-bit key").size(), 1u)
      << rec().Dump();
  EXPECT_EQ(rec().WithFormat("Key::SignPss salt length %d does not fit a %d-bit key")[0].text,
            "Key::SignPss salt length 100000 does not fit a " +
                std::to_string(EVP_PKEY_bits(rsa_key_.get())) + "-bit key");
  Bytes unknown(20, 0xab);
  EXPECT_EQ(sign(unknown, X509_Auth_HashType_Sha256, -1), X509_Auth_ResultCode_CertificateNotFound);
  EXPECT_EQ(signature, nullptr);
  EXPECT_EQ(X509_Auth_SignHashPss(nullptr, 1, digest.data(), -1, &signature).code,
            X509_Auth_ResultCode_InvalidArgument);
  EXPECT_EQ(X509_Auth_SignHashPss(rsa.data(), 1, nullptr, -1, &signature).code,
            X509_Auth_ResultCode_InvalidArgument);
  EXPECT_EQ(X509_Auth_SignHashPss(rsa.data(), 1, digest.data(), -1, nullptr).code,
            X509_Auth_ResultCode_InvalidArgument);
}

TEST_F(HostPssTest, EncryptedKeyFileAsksForItsPasswordOnceAndSigns) {
  TestKey key = SharedKey(KeyKind::k_rsa, 1);
  TestX509 cert = MakeClientCert("PSS encrypted", key.get());
  InstallFileCert(Base("enc"), "enc.pem", cert.get());
  WriteFile(Base("enc") / "keys" / "enc.pem.key", KeyToPem(key.get(), "secret"));
  Init({Base("enc").string()});
  rec().Reset();
  rec().ScriptAnswer(PinAnswer::Value("secret"));
  const Bytes digest = DigestOf(X509_Auth_HashType_Sha384, "encrypted");
  const X509_Auth_Signature* signature = nullptr;
  const Bytes thumbprint = Sha1Thumbprint(cert.get());
  ASSERT_EQ(X509_Auth_SignHashPss(thumbprint.data(), X509_Auth_HashType_Sha384, digest.data(),
                                  X509_AUTH_PSS_SALT_DIGEST, &signature)
                .code,
            0)
      << rec().Dump();
  ASSERT_EQ(rec().Prompts().size(), 1u);
  EXPECT_EQ(rec().Prompts()[0].title, "Enter password");
  EXPECT_EQ(rec().Releases(), 1);
  EXPECT_TRUE(VerifiesPss(cert.get(), X509_Auth_HashType_Sha384, digest, signature, 48));
  X509_Auth_Free(signature);

  // A wrong password: the key cannot be opened, as for X509_Auth_SignHash.
  rec().ScriptAnswer(PinAnswer::Value("wrong"));
  EXPECT_EQ(X509_Auth_SignHashPss(thumbprint.data(), X509_Auth_HashType_Sha384, digest.data(),
                                  X509_AUTH_PSS_SALT_DIGEST, &signature)
                .code,
            X509_Auth_ResultCode_KeyOpenFailed);
  EXPECT_EQ(signature, nullptr);
}

// Token keys, on tokens that offer RSA-PSS, only raw RSA, or neither.
class HostTokenPssTest : public HostExtensionsTest {
 protected:
  void SetUp() override {
    X509AUTH_SKIP_WITHOUT_SOFTHSM2();
    HostExtensionsTest::SetUp();
  }
  void Start(const std::string& mechanisms) {
    SoftHsmToken::Options options;
    options.module_link_directory.clear();
    options.mechanisms = mechanisms;
    hsm_.emplace(options);
    hsm_->InitToken("Card A");
    key_ = SharedKey(KeyKind::k_rsa, 2);
    cert_ = MakeClientCert("Token RSA", key_.get());
    hsm_->ImportCertAndKey("Card A", cert_.get(), key_.get(), "01", "rsa");
    ASSERT_EQ(X509_Auth_SetPkcs11Module(SoftHsmToken::ModulePath().c_str()), 0);
    Init({});
    rec().ScriptAnswer(PinAnswer::Value("1234"));
  }
  void TearDown() override {
    HostExtensionsTest::TearDown();
    hsm_.reset();
  }

  X509_Auth_Result Sign(int32_t salt, const X509_Auth_Signature** signature) {
    digest_ = DigestOf(X509_Auth_HashType_Sha256, "token PSS");
    const Bytes thumbprint = Sha1Thumbprint(cert_.get());
    return X509_Auth_SignHashPss(thumbprint.data(), X509_Auth_HashType_Sha256, digest_.data(), salt,
                                 signature);
  }

  std::optional<SoftHsmToken> hsm_;
  TestKey key_;
  TestX509 cert_;
  Bytes digest_;
};

TEST_F(HostTokenPssTest, TokenWithRsaPssSignsWithItsOwnMechanism) {
  Start("ALL");
  const X509_Auth_Signature* signature = nullptr;
  ASSERT_EQ(Sign(X509_AUTH_PSS_SALT_DIGEST, &signature).code, 0) << rec().Dump();
  EXPECT_EQ(rec().Prompts().size(), 1u);
  EXPECT_TRUE(VerifiesPss(cert_.get(), X509_Auth_HashType_Sha256, digest_, signature, 32));
  X509_Auth_Free(signature);
  ASSERT_EQ(Sign(X509_AUTH_PSS_SALT_MAX, &signature).code, 0) << rec().Dump();
  const int longest = (EVP_PKEY_bits(key_.get()) - 1 + 7) / 8 - 32 - 2;
  EXPECT_TRUE(VerifiesPss(cert_.get(), X509_Auth_HashType_Sha256, digest_, signature, longest));
  X509_Auth_Free(signature);
}

TEST_F(HostTokenPssTest, TokenWithOnlyRawRsaSignsABlockTheLibraryEncodes) {
  Start("-CKM_RSA_PKCS_PSS,CKM_SHA1_RSA_PKCS_PSS,CKM_SHA256_RSA_PKCS_PSS");
  const X509_Auth_Signature* signature = nullptr;
  ASSERT_EQ(Sign(X509_AUTH_PSS_SALT_DIGEST, &signature).code, 0) << rec().Dump();
  EXPECT_TRUE(VerifiesPss(cert_.get(), X509_Auth_HashType_Sha256, digest_, signature, 32));
  X509_Auth_Free(signature);
}

TEST_F(HostTokenPssTest, TokenWithNeitherMechanismGivesItsOwnCodeAndLine) {
  Start("-CKM_RSA_PKCS_PSS,CKM_RSA_X_509");
  const X509_Auth_Signature* signature = nullptr;
  EXPECT_EQ(Sign(X509_AUTH_PSS_SALT_DIGEST, &signature).code,
            X509_Auth_ResultCode_MechanismNotSupported)
      << rec().Dump();
  EXPECT_EQ(signature, nullptr);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error,
                        "Token [%s] offers neither CKM_RSA_PKCS_PSS nor CKM_RSA_X_509 for signing",
                        "Token [Card A] offers neither CKM_RSA_PKCS_PSS nor CKM_RSA_X_509 for "
                        "signing"));
  // PKCS#1 v1.5 on the same key still works.
  const uint32_t rsa = X509_Auth_Algorithm_Rsa;
  const Bytes thumbprint = Sha1Thumbprint(cert_.get());
  EXPECT_EQ(X509_Auth_SignHash(thumbprint.data(), 1, &rsa, X509_Auth_HashType_Sha256,
                               digest_.data(), &signature)
                .code,
            0)
      << rec().Dump();
  X509_Auth_Free(signature);
}

}  // namespace
}  // namespace x509auth_test
