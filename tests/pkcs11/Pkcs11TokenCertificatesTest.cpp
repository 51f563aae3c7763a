// Certificates of a smart card (a SoftHSM2 token here): off by default, so a
// program that already sees the card through its own module does not meet
// them twice; with token_certificates on they are objects of this token
// too, and the login PIN answers the card's PIN prompt, but only when no key
// file asked for it: a key file's password never reaches the card.
#include <openssl/ecdsa.h>

#include "Pkcs11Session.h"
#include "SoftHsmToken.h"

namespace x509auth_test {
namespace {

class Pkcs11TokenCertificatesTest : public Pkcs11Test {
 protected:
  void SetUp() override {
    X509AUTH_SKIP_WITHOUT_SOFTHSM2();
    Pkcs11Test::SetUp();
    chain_ = MakeChain(KeyKind::k_ec, "Card Holder");
    cas_pem_ += CertToPem(chain_.root.get()) + CertToPem(chain_.intermediate.get());
    WriteFile(CasFile(), cas_pem_);
    hsm_.InitToken("Card");
    hsm_.ImportCertAndKey("Card", chain_.leaf.get(), chain_.leaf_key.get(), "01", "card");
    setenv("X509AUTH_MODULE", SOFTHSM2_MODULE_PATH, 1);
    thumbprint_ = Sha1Thumbprint(chain_.leaf.get());
  }

  // What pkcs11-tool says of SoftHSM2's tokens. SoftHSM2 keeps "user PIN
  // count low" in the token's files from a wrong C_Login until a right one.
  std::string TokenFlags() const {
    const ChildResult listed = Run({"pkcs11-tool", "--module", SOFTHSM2_MODULE_PATH, "-T"});
    EXPECT_EQ(listed.status, 0) << listed.err;
    EXPECT_NE(listed.out.find("Card"), std::string::npos) << listed.out;
    return listed.out;
  }

  // Signs with the card's EC key; its result code.
  CK_RV SignWithCardKey(const ModuleSession& s) const {
    const Bytes digest(32, 0x5a);
    CK_RV rv = CKR_OK;
    const Bytes raw =
        s.Sign(s.One(CKO_PRIVATE_KEY, thumbprint_), {CKM_ECDSA, nullptr, 0}, digest, &rv);
    if (rv == CKR_OK && !RawEcdsaVerifies(chain_.leaf.get(), EVP_sha256(), digest, raw))
      ADD_FAILURE() << "the card's signature does not verify";
    return rv;
  }

  // Signs with a key file's RSA key; its result code.
  static CK_RV SignWithFileKey(const ModuleSession& s, const InstalledClient& client) {
    const Bytes data = {'d', 'a', 't', 'a'};
    CK_RV rv = CKR_OK;
    const Bytes signature = s.Sign(s.One(CKO_PRIVATE_KEY, client.thumbprint),
                                   {CKM_SHA256_RSA_PKCS, nullptr, 0}, data, &rv);
    Bytes digest(32);
    EVP_Digest(data.data(), data.size(), digest.data(), nullptr, EVP_sha256(), nullptr);
    if (rv == CKR_OK && !VerifiesWithCertificate(client.cert.get(), EVP_sha256(), digest,
                                                 signature.data(), signature.size()))
      ADD_FAILURE() << "the key file's signature does not verify";
    return rv;
  }

  static constexpr const char* k_pin_count_low = "user PIN count low";

  Chain chain_;
  SoftHsmToken hsm_;
  Bytes thumbprint_;
};

TEST_F(Pkcs11TokenCertificatesTest, TokenCertificatesAreLeftOutByDefault) {
  LoadedModule module;
  ModuleSession s(module);
  EXPECT_TRUE(s.FindClass(CKO_CERTIFICATE, thumbprint_).empty());
  CK_TOKEN_INFO info{};
  ASSERT_EQ(s.f()->C_GetTokenInfo(s.slot(), &info), CKR_OK);
  EXPECT_FALSE(info.flags & CKF_LOGIN_REQUIRED);
}

TEST_F(Pkcs11TokenCertificatesTest, NoModuleChosenLoadsNoneFromTheWorkingDirectory) {
  // SoftHsmToken left "./opensc-pkcs11.so" (SoftHSM2) in the working
  // directory, where the library's old lookup would find it.
  ASSERT_TRUE(std::filesystem::exists("opensc-pkcs11.so"));
  setenv("X509AUTH_TOKEN_CERTIFICATES", "on", 1);
  setenv("X509AUTH_MODULE", "", 1);
  LoadedModule module;
  ModuleSession s(module);
  EXPECT_TRUE(s.FindClass(CKO_CERTIFICATE, thumbprint_).empty());
}

TEST_F(Pkcs11TokenCertificatesTest, WithTokenCertificatesOnTheCardsKeySignsAfterLoginWithItsPin) {
  setenv("X509AUTH_TOKEN_CERTIFICATES", "on", 1);
  LoadedModule module;
  ModuleSession s(module);
  EXPECT_EQ(s.FindClass(CKO_CERTIFICATE, thumbprint_).size(), 1u);
  CK_TOKEN_INFO info{};
  ASSERT_EQ(s.f()->C_GetTokenInfo(s.slot(), &info), CKR_OK);
  EXPECT_TRUE(info.flags & CKF_LOGIN_REQUIRED);
  EXPECT_EQ(s.Login("0000"), CKR_PIN_INCORRECT);
  ASSERT_EQ(s.Login(SoftHsmToken::k_default_pin), CKR_OK);
  const CK_OBJECT_HANDLE key = s.One(CKO_PRIVATE_KEY, thumbprint_);
  Bytes digest(32, 0x5a);
  const Bytes raw = s.Sign(key, {CKM_ECDSA, nullptr, 0}, digest);
  ASSERT_EQ(raw.size(), 64u);
  EXPECT_TRUE(RawEcdsaVerifies(chain_.leaf.get(), EVP_sha256(), digest, raw));
}

TEST_F(Pkcs11TokenCertificatesTest,
       AWrongKeyFilePasswordAtLoginIsPinIncorrectAndNeverReachesTheCard) {
  setenv("X509AUTH_TOKEN_CERTIFICATES", "on", 1);
  Install(KeyKind::k_rsa, "Alice", "file-secret");
  LoadedModule module;
  ModuleSession s(module);
  EXPECT_EQ(s.FindClass(CKO_CERTIFICATE, thumbprint_).size(), 1u);
  for (const char* typed : {"0000", "1111", "2222", "3333"})
    EXPECT_EQ(s.Login(typed), CKR_PIN_INCORRECT) << typed;
  // While a key file asks, even the card's own PIN is checked against key
  // files only.
  EXPECT_EQ(s.Login(SoftHsmToken::k_default_pin), CKR_PIN_INCORRECT);
  CK_SESSION_INFO info{};
  ASSERT_EQ(s.f()->C_GetSessionInfo(s.session(), &info), CKR_OK);
  EXPECT_EQ(info.state, CKS_RO_PUBLIC_SESSION);
  // The card never saw a wrong PIN.
  EXPECT_EQ(TokenFlags().find(k_pin_count_low), std::string::npos);
}

TEST_F(Pkcs11TokenCertificatesTest, TheKeyFilesPasswordSignsWithTheFileKeyAndTheCardKeyFailsAlone) {
  setenv("X509AUTH_TOKEN_CERTIFICATES", "on", 1);
  setenv("X509AUTH_LOG", "warning", 1);
  const InstalledClient& alice = Install(KeyKind::k_rsa, "Alice", "file-secret");
  LoadedModule module;
  ModuleSession s(module);
  ASSERT_EQ(s.Login("file-secret"), CKR_OK);
  EXPECT_EQ(SignWithFileKey(s, alice), CKR_OK);
  // The card's PIN prompt is not given the key file's password: the card
  // key fails alone, as a key file of another password does, and the card
  // was not tried.
  testing::internal::CaptureStderr();
  EXPECT_EQ(SignWithCardKey(s), CKR_PIN_INCORRECT);
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("Enter pin for token: Card: not answered, the login PIN is a key file's "
                     "password and never goes to a token"),
            std::string::npos)
      << err;
  EXPECT_EQ(err.find("file-secret"), std::string::npos) << err;
  EXPECT_EQ(SignWithFileKey(s, alice), CKR_OK);
  EXPECT_EQ(TokenFlags().find(k_pin_count_low), std::string::npos);
}

TEST_F(Pkcs11TokenCertificatesTest, WhenOnlyTheCardAsksTheLoginPinIsTheCardsAndEveryKeySigns) {
  setenv("X509AUTH_TOKEN_CERTIFICATES", "on", 1);
  const InstalledClient& plain = Install(KeyKind::k_rsa, "Plain");
  LoadedModule module;
  ModuleSession s(module);
  // Only the card asks: the PIN is the card's and is tried there, wrong
  // ones included (the card counts them).
  EXPECT_EQ(s.Login("0000"), CKR_PIN_INCORRECT);
  EXPECT_NE(TokenFlags().find(k_pin_count_low), std::string::npos);
  ASSERT_EQ(s.Login(SoftHsmToken::k_default_pin), CKR_OK);
  EXPECT_EQ(SignWithCardKey(s), CKR_OK);
  EXPECT_EQ(SignWithFileKey(s, plain), CKR_OK);
  EXPECT_EQ(TokenFlags().find(k_pin_count_low), std::string::npos);
}

// The library watches the tokens for the module: a card that goes away
// (its SoftHSM2 token deleted here) takes its objects and the login its PIN
// made with it, and its key's handle is refused when an operation starts.
TEST_F(Pkcs11TokenCertificatesTest, ObjectsOfACardThatWentAwayAreInvalidHandlesAndItsLoginEnds) {
  setenv("X509AUTH_TOKEN_CERTIFICATES", "on", 1);
  LoadedModule module;
  ModuleSession s(module);
  const CK_OBJECT_HANDLE cert = s.One(CKO_CERTIFICATE, thumbprint_);
  ASSERT_EQ(s.Login(SoftHsmToken::k_default_pin), CKR_OK);
  const CK_OBJECT_HANDLE key = s.One(CKO_PRIVATE_KEY, thumbprint_);
  ASSERT_EQ(SignWithCardKey(s), CKR_OK);

  hsm_.DeleteToken("Card");
  CK_MECHANISM mechanism{CKM_ECDSA, nullptr, 0};
  EXPECT_EQ(s.f()->C_SignInit(s.session(), &mechanism, key), CKR_KEY_HANDLE_INVALID);
  CK_ATTRIBUTE value{CKA_VALUE, nullptr, 0};
  EXPECT_EQ(s.f()->C_GetAttributeValue(s.session(), cert, &value, 1), CKR_OBJECT_HANDLE_INVALID);
  EXPECT_TRUE(s.FindClass(CKO_CERTIFICATE, thumbprint_).empty());
  CK_SESSION_INFO info{};
  ASSERT_EQ(s.f()->C_GetSessionInfo(s.session(), &info), CKR_OK);
  EXPECT_EQ(info.state, CKS_RO_PUBLIC_SESSION);
  // The module's own token stays: only its objects changed.
  CK_SLOT_INFO slot_info{};
  ASSERT_EQ(s.f()->C_GetSlotInfo(s.slot(), &slot_info), CKR_OK);
  EXPECT_TRUE(slot_info.flags & CKF_TOKEN_PRESENT);
}

}  // namespace
}  // namespace x509auth_test
