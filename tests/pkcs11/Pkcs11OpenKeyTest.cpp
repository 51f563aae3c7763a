// The module signs and decrypts on a key it opened once through the
// library: many C_Sign on one key object, the key file rewritten, replaced
// by another key or deleted between two of them.
#include <openssl/rsa.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "Pkcs11Session.h"

namespace x509auth_test {
namespace {

const Bytes k_data = {'o', 'p', 'e', 'n'};

Bytes Sha256(const Bytes& data) {
  Bytes digest(32);
  EVP_Digest(data.data(), data.size(), digest.data(), nullptr, EVP_sha256(), nullptr);
  return digest;
}

// Puts |content| in place of |path| as a new file, as an editor does.
template <typename Content>
void ReplaceFile(const std::filesystem::path& path, const Content& content) {
  const std::filesystem::path fresh = path.string() + ".new";
  WriteFile(fresh, content);
  std::filesystem::rename(fresh, path);
}

class Pkcs11OpenKeyTest : public Pkcs11Test {
 protected:
  // Signs k_data with CKM_SHA256_RSA_PKCS; the result, and whether the
  // signature verifies with |client|'s certificate.
  static CK_RV SignRsa(const ModuleSession& s, const InstalledClient& client, bool* verified) {
    CK_RV rv = CKR_OK;
    const Bytes signature = s.Sign(s.One(CKO_PRIVATE_KEY, client.thumbprint),
                                   {CKM_SHA256_RSA_PKCS, nullptr, 0}, k_data, &rv);
    *verified =
        rv == CKR_OK && VerifiesWithCertificate(client.cert.get(), EVP_sha256(), Sha256(k_data),
                                                signature.data(), signature.size());
    return rv;
  }
};

TEST_F(Pkcs11OpenKeyTest, ManySignaturesOnOneKeyObjectEachVerify) {
  const InstalledClient& rsa = Install(KeyKind::k_rsa, "Alice");
  const InstalledClient& ec = Install(KeyKind::k_ec, "Bob");
  LoadedModule module;
  ModuleSession s(module);
  const CK_OBJECT_HANDLE ec_key = s.One(CKO_PRIVATE_KEY, ec.thumbprint);
  for (int i = 0; i < 25; ++i) {
    bool verified = false;
    EXPECT_EQ(SignRsa(s, rsa, &verified), CKR_OK);
    EXPECT_TRUE(verified) << i;
    const Bytes digest = Sha256(Bytes{static_cast<unsigned char>(i)});
    const Bytes raw = s.Sign(ec_key, {CKM_ECDSA, nullptr, 0}, digest);
    EXPECT_TRUE(RawEcdsaVerifies(ec.cert.get(), EVP_sha256(), digest, raw)) << i;
  }
}

TEST_F(Pkcs11OpenKeyTest, ManyDecryptionsOnOneKeyObjectGiveThePlaintext) {
  const InstalledClient& rsa = Install(KeyKind::k_rsa, "Alice");
  LoadedModule module;
  ModuleSession s(module);
  const CK_OBJECT_HANDLE key = s.One(CKO_PRIVATE_KEY, rsa.thumbprint);
  for (int i = 0; i < 5; ++i) {
    const Bytes secret = {1, 2, 3, static_cast<unsigned char>(i)};
    Bytes ciphertext = EncryptToCertificate(rsa.cert.get(), RSA_PKCS1_PADDING, secret);
    CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};
    ASSERT_EQ(s.f()->C_DecryptInit(s.session(), &mechanism, key), CKR_OK);
    Bytes plaintext(512);
    CK_ULONG length = plaintext.size();
    ASSERT_EQ(s.f()->C_Decrypt(s.session(), ciphertext.data(), ciphertext.size(), plaintext.data(),
                               &length),
              CKR_OK);
    plaintext.resize(length);
    EXPECT_EQ(plaintext, secret);
  }
}

TEST_F(Pkcs11OpenKeyTest, KeyFileRewrittenBetweenTwoSignaturesIsReadAgainAndSigns) {
  const InstalledClient& rsa = Install(KeyKind::k_rsa, "Alice");
  LoadedModule module;
  ModuleSession s(module);
  bool verified = false;
  ASSERT_EQ(SignRsa(s, rsa, &verified), CKR_OK);
  ASSERT_TRUE(verified);
  // The same key in another encoding: a new file the open key reads again.
  ReplaceFile(rsa.key_file, KeyToDer(rsa.key.get()));
  EXPECT_EQ(SignRsa(s, rsa, &verified), CKR_OK);
  EXPECT_TRUE(verified);
}

TEST_F(Pkcs11OpenKeyTest, KeyFileReplacedByAnotherKeyIsKeyChangedUntilTheKeyIsBack) {
  const InstalledClient& rsa = Install(KeyKind::k_rsa, "Alice");
  const TestKey other = SharedKey(KeyKind::k_rsa, 3);
  setenv("X509AUTH_LOG", "error", 1);
  LoadedModule module;
  ModuleSession s(module);
  bool verified = false;
  ASSERT_EQ(SignRsa(s, rsa, &verified), CKR_OK);
  ReplaceFile(rsa.key_file, KeyToPem(other.get()));
  testing::internal::CaptureStderr();
  EXPECT_EQ(SignRsa(s, rsa, &verified), CKR_KEY_CHANGED);
  EXPECT_NE(testing::internal::GetCapturedStderr().find(
                "x509auth-pkcs11: [error] the key file of this key no longer holds its "
                "certificate's key\n"),
            std::string::npos);
  EXPECT_FALSE(verified);
  ReplaceFile(rsa.key_file, KeyToPem(rsa.key.get()));
  EXPECT_EQ(SignRsa(s, rsa, &verified), CKR_OK);
  EXPECT_TRUE(verified);
}

TEST_F(Pkcs11OpenKeyTest, KeyFileDeletedBetweenTwoSignaturesIsFunctionFailed) {
  const InstalledClient& rsa = Install(KeyKind::k_rsa, "Alice");
  LoadedModule module;
  ModuleSession s(module);
  bool verified = false;
  ASSERT_EQ(SignRsa(s, rsa, &verified), CKR_OK);
  std::filesystem::remove(rsa.key_file);
  EXPECT_EQ(SignRsa(s, rsa, &verified), CKR_FUNCTION_FAILED);
  EXPECT_FALSE(verified);
}

}  // namespace
}  // namespace x509auth_test
