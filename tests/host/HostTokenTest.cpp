// A host session over certificate files and a SoftHSM2 token, through the C
// interface only: listing, PIN prompts, signing and decryption on the token,
// and exporting the token key.
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <cstring>

#include "HostFixture.h"
#include "SoftHsmToken.h"

namespace x509auth_test {
namespace {

Bytes Sha256(const std::string& message) {
  Bytes digest(32);
  EVP_Digest(message.data(), message.size(), digest.data(), nullptr, EVP_sha256(), nullptr);
  return digest;
}

bool VerifiesSha256(X509* cert, const Bytes& digest, const unsigned char* signature,
                    size_t length) {
  return VerifiesWithCertificate(cert, EVP_sha256(), digest, signature, length);
}

class HostTokenTest : public HostCardTest {
 protected:
  void SetUp() override {
    HostCardTest::SetUp();
    if (IsSkipped()) return;
    rsa_key_ = SharedKey(KeyKind::k_rsa, 1);
    ec_key_ = SharedKey(KeyKind::k_ec, 1);
    token_rsa_ = MakeClientCert("Token RSA", rsa_key_.get());
    token_ec_ = MakeClientCert("Token EC", ec_key_.get());
  }

  void ImportBoth() {
    hsm_->ImportCertAndKey("Card A", token_rsa_.get(), rsa_key_.get(), "01", "rsa");
    hsm_->ImportCertAndKey("Card A", token_ec_.get(), ec_key_.get(), "02", "ec");
  }

  // Both certificates on Card A, the library started on the token store,
  // and the listing.
  std::vector<const X509_Auth_Certificate*> ImportBothAndList() {
    ImportBoth();
    Init({});
    return List();
  }

  static const X509_Auth_Certificate* Find(const std::vector<const X509_Auth_Certificate*>& records,
                                           const char* name) {
    for (const X509_Auth_Certificate* record : records)
      if (std::strcmp(record->name, name) == 0) return record;
    return nullptr;
  }

  static X509_Auth_Result Sign(const X509_Auth_Certificate* record, const Bytes& digest,
                               const X509_Auth_Signature** signature,
                               std::vector<uint32_t> algorithms = {1, 2}) {
    return X509_Auth_SignHash(record->thumbprint, algorithms.size(), algorithms.data(),
                              X509_Auth_HashType_Sha256, digest.data(), signature);
  }

  TestKey rsa_key_, ec_key_;
  TestX509 token_rsa_, token_ec_;
};

TEST_F(HostTokenTest, FullSessionListsFilesThenTokenAndSignsOnTheTokenAfterOnePin) {
  ImportBoth();
  TestKey file_key = SharedKey(KeyKind::k_ec, 2);
  TestX509 file_cert = MakeClientCert("File EC", file_key.get());
  TestX509 home_cert = MakeClientCert("Home EC", file_key.get());
  InstallFileCert(Base("direct"), "file.pem", file_cert.get(), file_key.get());
  InstallFileCert(home_ / "rel", "home.pem", home_cert.get(), file_key.get());
  Init({Base("direct").string()}, {"rel"});

  const auto records = List();
  ASSERT_EQ(records.size(), 4u) << rec().Dump();
  EXPECT_STREQ(records[0]->name, "File EC");
  EXPECT_STREQ(records[1]->name, "Home EC");
  // Token certificates follow the files, in the token's order.
  std::vector<std::string> token_names = {records[2]->name, records[3]->name};
  std::sort(token_names.begin(), token_names.end());
  EXPECT_EQ(token_names, (std::vector<std::string>{"Token EC", "Token RSA"}));
  for (int i = 2; i < 4; ++i) {
    EXPECT_EQ(records[i]->cert_type, X509_Auth_CertificateType_SmartCard);
    EXPECT_EQ(records[i]->smart_card, 1);
    ASSERT_NE(records[i]->key_path, nullptr);
    EXPECT_STREQ(records[i]->key_path, "");
    EXPECT_EQ(records[i]->reserved, 0u);
  }
  const X509_Auth_Certificate* rsa = Find(records, "Token RSA");
  ASSERT_NE(rsa, nullptr);
  EXPECT_EQ(ThumbprintOf(rsa), Sha1Thumbprint(token_rsa_.get()));
  EXPECT_EQ(rsa->key_algorithm_group, X509_Auth_KeyAlgorithmGroup_Rsa);
  EXPECT_EQ(rec().WithFormat("Keys Path not returned for smart card, request separately").size(),
            2u);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Warning,
                        "Keys Path not returned for smart card, request separately",
                        "Keys Path not returned for smart card, request separately"));
  EXPECT_TRUE(rec().WithFormat("cert type: [%d]").empty());

  rec().ScriptAnswer(PinAnswer::Value("1234"));
  const Bytes digest = Sha256("signed on the token");
  const X509_Auth_Signature* signature = nullptr;
  ASSERT_EQ(Sign(rsa, digest, &signature).code, 0) << rec().Dump();
  ASSERT_EQ(rec().Prompts().size(), 1u);
  EXPECT_EQ(rec().Prompts()[0].title, "Enter pin");
  EXPECT_EQ(rec().Prompts()[0].prompt, "Enter pin for token: Card A");
  EXPECT_EQ(rec().Releases(), 1);
  EXPECT_EQ(signature->algorithm, 1u);
  EXPECT_TRUE(VerifiesSha256(token_rsa_.get(), digest, signature->data, signature->length));

  // The login stays with the library's context: the EC key needs no PIN.
  const X509_Auth_Certificate* ec = Find(records, "Token EC");
  const X509_Auth_Signature* ec_signature = nullptr;
  ASSERT_EQ(Sign(ec, digest, &ec_signature).code, 0) << rec().Dump();
  EXPECT_EQ(rec().Prompts().size(), 1u);
  EXPECT_TRUE(VerifiesSha256(token_ec_.get(), digest, ec_signature->data, ec_signature->length));
  X509_Auth_Free(signature);
  X509_Auth_Free(ec_signature);
  X509_Auth_Free(records[0]);
}

TEST_F(HostTokenTest, TokenRsaKeyDecryptsBothPaddings) {
  const auto records = ImportBothAndList();
  const X509_Auth_Certificate* rsa = Find(records, "Token RSA");
  ASSERT_NE(rsa, nullptr) << rec().Dump();
  rec().ScriptAnswer(PinAnswer::Value("1234"));
  const Bytes secret = {1, 2, 3, 4, 5, 6, 7, 8};
  for (auto [algorithm, padding] :
       {std::pair{1u, RSA_PKCS1_PADDING}, std::pair{2u, RSA_PKCS1_OAEP_PADDING}}) {
    const Bytes ciphertext = EncryptToCertificate(token_rsa_.get(), padding, secret);
    const X509_Auth_ASN_1* plaintext = nullptr;
    const X509_Auth_Result result = X509_Auth_Decrypt(rsa->thumbprint, algorithm, ciphertext.size(),
                                                      ciphertext.data(), &plaintext);
    ASSERT_EQ(result.code, 0) << rec().Dump();
    EXPECT_EQ(Bytes(plaintext->data, plaintext->data + plaintext->length), secret);
  }
}

TEST_F(HostTokenTest, WrongPinTellsTheHostAndTheKeyCannotBeOpened) {
  const auto records = ImportBothAndList();
  const X509_Auth_Certificate* ec = Find(records, "Token EC");
  ASSERT_NE(ec, nullptr);
  rec().ScriptAnswer(PinAnswer::Value("0000"));
  const X509_Auth_Signature* signature = nullptr;
  const X509_Auth_Result result = Sign(ec, Sha256("x"), &signature);
  EXPECT_EQ(result.code, 4);
  EXPECT_EQ(result.detail, 1u);
  EXPECT_EQ(signature, nullptr);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error, "Login failed. Maybe the pin was incorrect.\n",
                        "Login failed. Maybe the pin was incorrect.\n"));
  ASSERT_EQ(rec().Messages().size(), 1u);
  EXPECT_EQ(rec().Messages()[0].message, "Incorrect pin entered for: Card A");
  EXPECT_EQ(rec().Messages()[0].title, "Smartcard error");
  EXPECT_FALSE(
      rec()
          .WithFormat("Error logging in to token before obtaining private key! Error code: [%i]")
          .empty());
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error,
                        "Error loading private key for smart card cert: [%s]",
                        "Error loading private key for smart card cert: [Token EC]"));
  EXPECT_EQ(rec().Releases(), 1);
}

TEST_F(HostTokenTest, ExportedTokenKeySignsDataThatVerifies) {
  const auto records = ImportBothAndList();
  const X509_Auth_Certificate* rsa = Find(records, "Token RSA");
  ASSERT_NE(rsa, nullptr);
  rec().Reset();
  rec().ScriptAnswer(PinAnswer::Value("1234"));
  void* exported = nullptr;
  ASSERT_EQ(X509_Auth_GetPrivateKeyForCertificate(rsa, &exported), 0) << rec().Dump();
  ASSERT_NE(exported, nullptr);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Warning, "cert type: Libp11CertContext",
                        "cert type: Libp11CertContext"));
  const auto pointer_lines = rec().WithFormat("PKCS11_CERT* cert_ptr: [%p]");
  ASSERT_EQ(pointer_lines.size(), 1u);
  EXPECT_EQ(pointer_lines[0].priority, X509_Auth_LogPriority_Error);

  // The host owns the key; it signs through the token.
  // Freed at the end while the library still holds the token's context.
  const EvpPkeyPtr owned_key(static_cast<EVP_PKEY*>(exported));
  EVP_PKEY* key = owned_key.get();
  const Bytes digest = Sha256("exported key");
  {
    const EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new(key, nullptr));
    ASSERT_GT(EVP_PKEY_sign_init(ctx.get()), 0);
    ASSERT_GT(EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING), 0);
    ASSERT_GT(EVP_PKEY_CTX_set_signature_md(ctx.get(), EVP_sha256()), 0);
    size_t length = 512;
    Bytes signature(length);
    ASSERT_GT(EVP_PKEY_sign(ctx.get(), signature.data(), &length, digest.data(), digest.size()), 0);
    EXPECT_TRUE(VerifiesSha256(token_rsa_.get(), digest, signature.data(), length));
  }
}

TEST_F(HostTokenTest, ExportWithACancelledPinGivesSevenWithTheHostStatus) {
  const auto records = ImportBothAndList();
  rec().Reset();
  rec().ScriptAnswer(PinAnswer::Status(5));
  void* exported = reinterpret_cast<void*>(0x3);
  EXPECT_EQ(X509_Auth_GetPrivateKeyForCertificate(Find(records, "Token EC"), &exported), 7);
  EXPECT_EQ(exported, reinterpret_cast<void*>(0x3));
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error, "Error getting login details: %i",
                        "Error getting login details: 5"));
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error,
                        "Error logging in to token before obtaining private key! Error code: [%i]",
                        "Error logging in to token before obtaining private key! Error code: [5]"));
  EXPECT_EQ(rec().Releases(), 1);
}

TEST_F(HostTokenTest, ExportOfACertificateWithoutKeyOnTheTokenGivesEight) {
  hsm_->ImportCert("Card A", token_ec_.get(), "07", "lonely");
  Init({});
  const auto records = List();
  ASSERT_EQ(records.size(), 1u) << rec().Dump();
  rec().Reset();
  rec().ScriptAnswer(PinAnswer::Value("1234"));
  void* exported = nullptr;
  EXPECT_EQ(X509_Auth_GetPrivateKeyForCertificate(records[0], &exported), 8);
  EXPECT_EQ(exported, nullptr);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error,
                        "Error loading private key for smart card cert: [%s] find key null",
                        "Error loading private key for smart card cert: [Token EC] find key null"));
}

TEST_F(HostTokenTest, PssCertificateWithAnRsaKeyOpensButFailsWithSixWhateverTheList) {
  // A card can hold an RSA-PSS certificate beside a plain RSA key: the key
  // opens as RSA, but the certificate's group is "other".
  TestKey pss_key = MakeKey(KeyKind::k_rsa_pss);
  TestX509 pss_cert = MakeClientCert("Token PSS", pss_key.get());
  hsm_->ImportCertAndKey("Card A", pss_cert.get(), rsa_key_.get(), "09", "pss");
  Init({});
  const auto records = List();
  ASSERT_EQ(records.size(), 1u) << rec().Dump();
  EXPECT_EQ(records[0]->key_algorithm_group, X509_Auth_KeyAlgorithmGroup_Other);
  rec().ScriptAnswer(PinAnswer::Value("1234"));
  for (std::vector<uint32_t> list : {std::vector<uint32_t>{0}, std::vector<uint32_t>{0, 1, 2}}) {
    const X509_Auth_Signature* signature = nullptr;
    const X509_Auth_Result result = Sign(records[0], Sha256("x"), &signature, list);
    EXPECT_EQ(result.code, 6) << rec().Dump();
    EXPECT_EQ(result.detail, 0u);
  }
  EXPECT_EQ(rec().WithFormat("Certificate does not support requested algorithm").size(), 2u);
}

TEST_F(HostTokenTest, TokenDeletedBetweenListingAndSigningFailsWithoutHanging) {
  const auto records = ImportBothAndList();
  const X509_Auth_Certificate* ec = Find(records, "Token EC");
  ASSERT_NE(ec, nullptr);
  const Bytes thumbprint = ThumbprintOf(ec);
  hsm_->DeleteToken("Card A");
  rec().ScriptAnswer(PinAnswer::Value("1234"));
  const X509_Auth_Signature* signature = nullptr;
  const uint32_t algorithms[] = {1, 2};
  const Bytes digest = Sha256("x");
  const X509_Auth_Result result = X509_Auth_SignHash(
      thumbprint.data(), 2, algorithms, X509_Auth_HashType_Sha256, digest.data(), &signature);
  // The context listed the token before it went away; whatever the step that
  // notices, the request ends with a failure code and no signature.
  EXPECT_NE(result.code, 0) << rec().Dump();
  EXPECT_EQ(signature, nullptr);
}

}  // namespace
}  // namespace x509auth_test
