// Signing and decryption through the C interface with file keys; every
// result is checked with the certificate's public key.
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include <cstring>
#include <stdexcept>

#include "HostFixture.h"

namespace x509auth_test {
namespace {

bool Verifies(X509* cert, X509_Auth_HashType type, const Bytes& digest,
              const X509_Auth_Signature& signature) {
  return VerifiesWithCertificate(cert, DigestFor(type), digest, signature.data, signature.length);
}

class HostKeyOperationsTest : public HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    InstallRsaAndEcFiles(Base("base"), "Signer", &rsa_key_, &rsa_, &ec_key_, &ec_);
    Init({Base("base").string()});
    rsa_thumbprint_ = Sha1Thumbprint(rsa_.get());
    ec_thumbprint_ = Sha1Thumbprint(ec_.get());
  }

  static X509_Auth_Result Sign(const Bytes& thumbprint, std::vector<uint32_t> algorithms,
                               X509_Auth_HashType type, const Bytes& hash,
                               const X509_Auth_Signature** signature) {
    return X509_Auth_SignHash(thumbprint.data(), algorithms.size(), algorithms.data(), type,
                              hash.data(), signature);
  }

  // A refused decryption: |code| with no detail, no plaintext, and the
  // error line |format| gave as |text|.
  static void ExpectDecryptRefused(const X509_Auth_Result& result, const X509_Auth_ASN_1* plaintext,
                                   int32_t code, const std::string& format,
                                   const std::string& text) {
    EXPECT_EQ(result.code, code);
    EXPECT_EQ(result.detail, 0u);
    EXPECT_EQ(plaintext, nullptr);
    EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error, format, text)) << rec().Dump();
  }

  TestKey rsa_key_, ec_key_;
  TestX509 rsa_, ec_;
  Bytes rsa_thumbprint_, ec_thumbprint_;
};

TEST_F(HostKeyOperationsTest, SignsEveryHashLengthWithRsaAndEcAndTheSignaturesVerify) {
  for (X509_Auth_HashType type : {X509_Auth_HashType_Sha1, X509_Auth_HashType_Sha256,
                                  X509_Auth_HashType_Sha384, X509_Auth_HashType_Sha512}) {
    const Bytes digest = DigestOf(type, "message " + std::to_string(type));
    for (auto* which : {&rsa_, &ec_}) {
      const Bytes& thumbprint = which == &rsa_ ? rsa_thumbprint_ : ec_thumbprint_;
      rec().Reset();
      const X509_Auth_Signature* signature = nullptr;
      const X509_Auth_Result result = Sign(thumbprint, {1, 2}, type, digest, &signature);
      ASSERT_EQ(result.code, 0) << rec().Dump();
      EXPECT_EQ(result.detail, 0u);
      ASSERT_NE(signature, nullptr);
      EXPECT_EQ(signature->algorithm, which == &rsa_ ? 1u : 2u);
      EXPECT_TRUE(Verifies(which->get(), type, digest, *signature)) << "hash type " << type;
      EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Info,
                            "Signing hash... (this might require user input)",
                            "Signing hash... (this might require user input)"));
      EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Info, "Successfully signed hash",
                            "Successfully signed hash"));
      X509_Auth_Free(signature);
    }
  }
}

TEST_F(HostKeyOperationsTest, RsaCertificateWithAnEcOnlyListFailsWithCodeSix) {
  const Bytes digest = DigestOf(X509_Auth_HashType_Sha256, "x");
  const X509_Auth_Signature* signature = reinterpret_cast<const X509_Auth_Signature*>(0x1);
  X509_Auth_Result result =
      Sign(rsa_thumbprint_, {2}, X509_Auth_HashType_Sha256, digest, &signature);
  EXPECT_EQ(result.code, 6);
  EXPECT_EQ(result.detail, 0u);
  EXPECT_EQ(signature, nullptr);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error,
                        "Certificate does not support requested algorithm",
                        "Certificate does not support requested algorithm"));
  result = Sign(rsa_thumbprint_, {2, 1}, X509_Auth_HashType_Sha256, digest, &signature);
  ASSERT_EQ(result.code, 0);
  EXPECT_EQ(signature->algorithm, 1u);
  EXPECT_TRUE(Verifies(rsa_.get(), X509_Auth_HashType_Sha256, digest, *signature));
}

TEST_F(HostKeyOperationsTest, EmptyAlgorithmListFailsWithCodeSix) {
  const Bytes digest = DigestOf(X509_Auth_HashType_Sha256, "x");
  const X509_Auth_Signature* signature = nullptr;
  EXPECT_EQ(Sign(ec_thumbprint_, {}, X509_Auth_HashType_Sha256, digest, &signature).code, 6);
}

TEST_F(HostKeyOperationsTest, AlgorithmAboveTwoThrowsUnimplementedBeforeAnyStoreIsOpened) {
  const Bytes digest = DigestOf(X509_Auth_HashType_Sha256, "x");
  const X509_Auth_Signature* signature = nullptr;
  rec().Reset();
  try {
    Sign(ec_thumbprint_, {1, 3}, X509_Auth_HashType_Sha256, digest, &signature);
    FAIL() << "no exception";
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "Unimplemented");
  }
  EXPECT_TRUE(rec().Logs().empty());
}

TEST_F(HostKeyOperationsTest, HashTypeFourThrowsInvalidHashType) {
  const Bytes digest(64, 1);
  const X509_Auth_Signature* signature = nullptr;
  try {
    Sign(ec_thumbprint_, {2}, 4, digest, &signature);
    FAIL() << "no exception";
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "Invalid hash type");
  }
}

TEST_F(HostKeyOperationsTest, UnknownThumbprintGivesCodeThreeWithTheLookupError) {
  const Bytes unknown(20, 0x11);
  const Bytes digest = DigestOf(X509_Auth_HashType_Sha256, "x");
  const X509_Auth_Signature* signature = nullptr;
  const X509_Auth_Result result =
      Sign(unknown, {1, 2}, X509_Auth_HashType_Sha256, digest, &signature);
  EXPECT_EQ(result.code, 3);
  EXPECT_EQ(result.detail, 1u);
  EXPECT_EQ(signature, nullptr);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error,
                        "Failed to find certificate thumbprint (error: %d)",
                        "Failed to find certificate thumbprint (error: 1)"));
}

TEST_F(HostKeyOperationsTest, AddedCaCertificateIsNotFoundForSigning) {
  Chain chain = MakeChain(KeyKind::k_ec);
  const std::string pem = CertToPem(chain.root.get());
  ASSERT_EQ(X509_Auth_AddAdditionalCertificateAuthorityToStore(
                reinterpret_cast<const unsigned char*>(pem.data()), pem.size()),
            1);
  const Bytes digest = DigestOf(X509_Auth_HashType_Sha256, "x");
  const X509_Auth_Signature* signature = nullptr;
  EXPECT_EQ(
      Sign(Sha1Thumbprint(chain.root.get()), {1, 2}, X509_Auth_HashType_Sha256, digest, &signature)
          .code,
      3);
}

TEST_F(HostKeyOperationsTest, MissingKeyFileGivesCodeFourWithDetailOne) {
  std::filesystem::remove(Base("base") / "keys" / "ec.pem.key");
  const Bytes digest = DigestOf(X509_Auth_HashType_Sha256, "x");
  const X509_Auth_Signature* signature = nullptr;
  const X509_Auth_Result result =
      Sign(ec_thumbprint_, {2}, X509_Auth_HashType_Sha256, digest, &signature);
  EXPECT_EQ(result.code, 4);
  EXPECT_EQ(result.detail, 1u);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error,
                        "Failed to open private key for certificate (error: %d)",
                        "Failed to open private key for certificate (error: 1)"));
}

TEST_F(HostKeyOperationsTest, EncryptedKeyPromptsOncePerRequest) {
  WriteFile(Base("base") / "keys" / "ec.pem.key", KeyToPem(ec_key_.get(), "s3cret"));
  const Bytes digest = DigestOf(X509_Auth_HashType_Sha256, "x");
  for (int request = 0; request < 2; ++request) {
    rec().ScriptAnswer(PinAnswer::Value("s3cret"));
    const X509_Auth_Signature* signature = nullptr;
    ASSERT_EQ(Sign(ec_thumbprint_, {2}, X509_Auth_HashType_Sha256, digest, &signature).code, 0)
        << rec().Dump();
    EXPECT_TRUE(Verifies(ec_.get(), X509_Auth_HashType_Sha256, digest, *signature));
  }
  ASSERT_EQ(rec().Prompts().size(), 2u);
  EXPECT_EQ(rec().Prompts()[0].title, "Enter password");
  EXPECT_EQ(rec().Prompts()[0].prompt,
            "Enter password for: " + (Base("base") / "keys" / "ec.pem.key").string());
  EXPECT_EQ(rec().Releases(), 2);
}

TEST_F(HostKeyOperationsTest, DecryptsBothPaddingsAndTrimsThePlaintext) {
  const Bytes secret = {'p', 'r', 'e', '-', 'm', 'a', 's', 't', 'e', 'r'};
  for (auto [algorithm, padding] :
       {std::pair{1u, RSA_PKCS1_PADDING}, std::pair{2u, RSA_PKCS1_OAEP_PADDING}}) {
    const Bytes ciphertext = EncryptToCertificate(rsa_.get(), padding, secret);
    ASSERT_EQ(ciphertext.size(), 256u);
    rec().Reset();
    const X509_Auth_ASN_1* plaintext = nullptr;
    const X509_Auth_Result result = X509_Auth_Decrypt(
        rsa_thumbprint_.data(), algorithm, ciphertext.size(), ciphertext.data(), &plaintext);
    ASSERT_EQ(result.code, 0) << rec().Dump();
    ASSERT_NE(plaintext, nullptr);
    EXPECT_EQ(Bytes(plaintext->data, plaintext->data + plaintext->length), secret);
    EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Info, "Successfully decrypted data",
                          "Successfully decrypted data"));
    X509_Auth_Free(plaintext);
  }
}

TEST_F(HostKeyOperationsTest, DecryptWithAnEcCertificateGivesCodeSix) {
  const Bytes data(32, 7);
  const X509_Auth_ASN_1* plaintext = reinterpret_cast<const X509_Auth_ASN_1*>(0x1);
  const X509_Auth_Result result =
      X509_Auth_Decrypt(ec_thumbprint_.data(), 1, data.size(), data.data(), &plaintext);
  ExpectDecryptRefused(result, plaintext, 6, "Certificate does not support RSA decryption",
                       "Certificate does not support RSA decryption");
}

TEST_F(HostKeyOperationsTest, DecryptAlgorithmAboveTwoThrowsUnimplemented) {
  const Bytes data(256, 7);
  const X509_Auth_ASN_1* plaintext = nullptr;
  try {
    X509_Auth_Decrypt(rsa_thumbprint_.data(), 3, data.size(), data.data(), &plaintext);
    FAIL() << "no exception";
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "Unimplemented");
  }
}

TEST_F(HostKeyOperationsTest, BadPaddingFailsWithCodeOneAndTheKeysDetail) {
  const Bytes garbage = CiphertextWithBadPkcs1Padding(rsa_.get());
  const X509_Auth_ASN_1* plaintext = nullptr;
  const X509_Auth_Result result =
      X509_Auth_Decrypt(rsa_thumbprint_.data(), 1, garbage.size(), garbage.data(), &plaintext);
  ExpectDecryptRefused(result, plaintext, 1, "Failed to decrypt data (error: %d, %lu)",
                       "Failed to decrypt data (error: 1, 0)");
}

TEST_F(HostKeyOperationsTest, EmptyCiphertextIsPassedOnAndOpenSslDecides) {
  const X509_Auth_ASN_1* plaintext = nullptr;
  const X509_Auth_Result result =
      X509_Auth_Decrypt(rsa_thumbprint_.data(), 1, 0, nullptr, &plaintext);
  EXPECT_EQ(result.code, 1) << rec().Dump();
  EXPECT_EQ(plaintext, nullptr);
}

TEST_F(HostKeyOperationsTest, KeyExportOfAFileCertificateSaysUseTheKeyPath) {
  const auto records = List();
  ASSERT_EQ(records.size(), 2u);
  void* key = reinterpret_cast<void*>(0x5);
  rec().Reset();
  EXPECT_EQ(X509_Auth_GetPrivateKeyForCertificate(records[0], &key), 10);
  EXPECT_EQ(key, reinterpret_cast<void*>(0x5));
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Warning,
                        "cert type is CertFileContext: Use Pvt Key Path not this function",
                        "cert type is CertFileContext: Use Pvt Key Path not this function"));
  EXPECT_TRUE(rec().Prompts().empty());
}

TEST_F(HostKeyOperationsTest, KeyExportNullArgumentsGiveTwoThenThree) {
  const auto records = List();
  rec().Reset();
  void* key = nullptr;
  EXPECT_EQ(X509_Auth_GetPrivateKeyForCertificate(nullptr, nullptr), 2);
  EXPECT_EQ(X509_Auth_GetPrivateKeyForCertificate(records[0], nullptr), 3);
  ASSERT_EQ(rec().Logs().size(), 2u);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error,
                        "Failed to GetPrivateKeyForCertificate Cert is null",
                        "Failed to GetPrivateKeyForCertificate Cert is null"));
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error,
                        "Failed to GetPrivateKeyForCertificate pvt_key ptr is null",
                        "Failed to GetPrivateKeyForCertificate pvt_key ptr is null"));
  (void)key;
}

TEST_F(HostKeyOperationsTest, KeyExportOfAnUnknownOrAddedCertificateGivesSix) {
  Chain chain = MakeChain(KeyKind::k_ec);
  const Bytes der = CertToDer(chain.root.get());
  ASSERT_EQ(X509_Auth_AddAdditionalCertificateAuthorityToStore(der.data(), der.size()), 1);
  const Bytes thumbprint = Sha1Thumbprint(chain.root.get());
  X509_Auth_Certificate record{};
  record.thumbprint = thumbprint.data();
  void* key = nullptr;
  rec().Reset();
  EXPECT_EQ(X509_Auth_GetPrivateKeyForCertificate(&record, &key), 6);
  EXPECT_TRUE(rec().Has(
      X509_Auth_LogPriority_Error,
      "Failed to show certificate dialog. Failed to find certificate thumbprint (error: %d)",
      "Failed to show certificate dialog. Failed to find certificate thumbprint (error: 1)"));
}

TEST_F(HostKeyOperationsTest, StoreThatCannotOpenGivesCodeTwoFiveAndTheStoreError) {
  // Without a PKCS#11 module the next context has no token source, and
  // every fresh users' store fails to open.
  X509_Auth_DeInit();
  std::filesystem::remove(work_ / "opensc-pkcs11.so");
  Init({Base("base").string()});
  rec().Reset();
  const Bytes digest = DigestOf(X509_Auth_HashType_Sha256, "x");
  const X509_Auth_Signature* signature = reinterpret_cast<const X509_Auth_Signature*>(0x1);
  X509_Auth_Result result =
      Sign(ec_thumbprint_, {2}, X509_Auth_HashType_Sha256, digest, &signature);
  EXPECT_EQ(result.code, 2);
  EXPECT_EQ(result.detail, 0xFFFFFFFFu);
  EXPECT_EQ(signature, nullptr);
  const X509_Auth_ASN_1* plaintext = reinterpret_cast<const X509_Auth_ASN_1*>(0x1);
  result = X509_Auth_Decrypt(rsa_thumbprint_.data(), 1, digest.size(), digest.data(), &plaintext);
  EXPECT_EQ(result.code, 2);
  EXPECT_EQ(result.detail, 0xFFFFFFFFu);
  EXPECT_EQ(plaintext, nullptr);
  const auto lines = rec().WithFormat("Failed to open cert store (error: %d)");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].priority, X509_Auth_LogPriority_Error);
  EXPECT_EQ(lines[0].text, "Failed to open cert store (error: -1)");

  X509_Auth_Certificate record{};
  record.thumbprint = ec_thumbprint_.data();
  void* key = nullptr;
  rec().Reset();
  EXPECT_EQ(X509_Auth_GetPrivateKeyForCertificate(&record, &key), 5);
  EXPECT_TRUE(
      rec().Has(X509_Auth_LogPriority_Error,
                "Failed to show certificate dialog. Failed to open cert store (error: %d)",
                "Failed to show certificate dialog. Failed to open cert store (error: -1)"));
}

TEST_F(HostKeyOperationsTest, KeyOfAnotherCertificateGivesCodeFour) {
  WriteFile(Base("base") / "keys" / "ec.pem.key", KeyToPem(SharedKey(KeyKind::k_ec, 7).get()));
  const Bytes digest = DigestOf(X509_Auth_HashType_Sha256, "x");
  const X509_Auth_Signature* signature = nullptr;
  const X509_Auth_Result result =
      Sign(ec_thumbprint_, {2}, X509_Auth_HashType_Sha256, digest, &signature);
  EXPECT_EQ(result.code, 4);
  EXPECT_EQ(result.detail, 1u);
  EXPECT_FALSE(
      rec().WithFormat("Private key file [%s] does not appear to match cert [%s]").empty());
}

}  // namespace
}  // namespace x509auth_test
