// Certificates of a smart card (a SoftHSM2 token here): off by default, so a
// program that already sees the card through its own module does not meet
// them twice; with token_certificates on they are objects of this token
// too, and the login PIN answers the card's PIN prompt.
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

}  // namespace
}  // namespace x509auth_test
