#include <unistd.h>

#include "StoreTestSupport.h"
#include "smartcard/Libp11Context.h"

namespace quorvant::shared::x509::test {
namespace {

// A users' store whose "./opensc-pkcs11.so" is SoftHSM2 with a token the test
// fills before opening. A watchdog fails a test that hangs in the module.
class TokenStoreTest : public CertStoreTest {
 protected:
  void SetUp() override {
    X509AUTH_SKIP_WITHOUT_SOFTHSM2();
    alarm(120);
    SetUpWith(Module::k_softhsm);
    hsm_->InitToken("Card A");
  }
  void TearDown() override {
    // The store's context share must go while the token still exists.
    CertStoreTest::TearDown();
    alarm(0);
  }
  void OpenStore() {
    ASSERT_EQ(store_.Open(ICertificateStore::k_users_cert_store), 0u) << recorder_->Dump();
  }
};

TEST_F(TokenStoreTest, TokenCertificatesAreCountedAndAddedToTheX509Store) {
  auto first = NamedCert("Token One");
  auto second = NamedCert("Token Two", 1);
  hsm_->ImportCert("Card A", first.get(), "01", "one");
  hsm_->ImportCert("Card A", second.get(), "02", "two");
  OpenStore();
  EXPECT_TRUE(recorder_->Has(X509_Auth_LogPriority_Warning,
                             "CertStore::OpenSmartCardStore x509 certs that we added =%d",
                             "CertStore::OpenSmartCardStore x509 certs that we added =2"))
      << recorder_->Dump();
  EXPECT_TRUE(test::StoreHolds(store_.X509Store(), first.get()));
  EXPECT_TRUE(test::StoreHolds(store_.X509Store(), second.get()));
  auto names = Names(store_.Certificates());
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"Token One", "Token Two"}));
}

TEST_F(TokenStoreTest, CertificatesListsFilesThenTokensThenAddedCertificates) {
  x509auth_test::InstallFileCert(tmp_ / "base", "file.pem", NamedCert("File").get());
  SetBaseDirectories({(tmp_ / "base").string()}, {});
  hsm_->ImportCert("Card A", NamedCert("Token", 1).get(), "01", "token");
  OpenStore();
  ASSERT_EQ(Add(NamedCert("Added", 2).get()), 0u);
  const auto certs = store_.Certificates();
  EXPECT_EQ(Names(certs), (std::vector<std::string>{"File", "Token", "Added"}));
  ASSERT_EQ(certs.size(), 3u);
  EXPECT_FALSE(certs[0]->SupportsSmartCard());
  EXPECT_TRUE(certs[1]->SupportsSmartCard());
  EXPECT_FALSE(certs[2]->SupportsSmartCard());
  EXPECT_EQ(certs[0]->GetContext().index(), 0u);
  EXPECT_EQ(certs[1]->GetContext().index(), 2u);
  EXPECT_EQ(certs[2]->GetContext().index(), 1u);
}

TEST_F(TokenStoreTest, TokenCertificateSharesTheContextAndPointsIntoLibp11) {
  auto cert = NamedCert("Token");
  hsm_->ImportCert("Card A", cert.get(), "01", "token");
  OpenStore();
  const auto certs = store_.Certificates();
  ASSERT_EQ(certs.size(), 1u);
  const Libp11CertContext& context = *std::get<2>(certs[0]->GetContext());
  EXPECT_EQ(context.store, &store_);
  ASSERT_NE(context.slot, nullptr);
  ASSERT_NE(context.slot->token, nullptr);
  EXPECT_STREQ(context.slot->token->label, "Card A");
  ASSERT_NE(context.cert, nullptr);
  // Not duplicated: the certificate is libp11's own.
  EXPECT_EQ(static_cast<const Cert&>(*certs[0]).GetX509(), context.cert->x509);
  EXPECT_EQ(X509_cmp(context.cert->x509, cert.get()), 0);
  auto live = Libp11Context::GetInstance();
  EXPECT_EQ(context.libp11_context, live);
  // The store's share, the certificate's and the one just taken.
  EXPECT_EQ(live.use_count(), 3);
  Thumbprint thumbprint{};
  ASSERT_TRUE(certs[0]->Thumbprint(thumbprint));
  EXPECT_EQ(thumbprint, ThumbprintOf(cert.get()));
}

TEST_F(TokenStoreTest, FindThumbprintFindsTheTokenCertificate) {
  x509auth_test::InstallFileCert(tmp_ / "base", "file.pem", NamedCert("File").get());
  SetBaseDirectories({(tmp_ / "base").string()}, {});
  auto token = NamedCert("Token", 1);
  hsm_->ImportCert("Card A", token.get(), "01", "token");
  OpenStore();
  std::unique_ptr<ICertificate> found;
  ASSERT_EQ(store_.FindThumbprint(ThumbprintOf(token.get()), &found), 0u);
  ASSERT_EQ(found->GetContext().index(), 2u);
  EXPECT_TRUE(found->SupportsSmartCard());
  EXPECT_EQ(found->Name(), "Token");
  EXPECT_NE(std::get<2>(found->GetContext())->slot, nullptr);
}

TEST_F(TokenStoreTest, FindThumbprintPrefersFileOverToken) {
  auto both = NamedCert("Both");
  x509auth_test::InstallFileCert(tmp_ / "base", "both.pem", both.get());
  SetBaseDirectories({(tmp_ / "base").string()}, {});
  hsm_->ImportCert("Card A", both.get(), "01", "both");
  OpenStore();
  EXPECT_EQ(store_.Certificates().size(), 2u);
  std::unique_ptr<ICertificate> found;
  ASSERT_EQ(store_.FindThumbprint(ThumbprintOf(both.get()), &found), 0u);
  ASSERT_EQ(found->GetContext().index(), 0u);
  EXPECT_EQ(FileContext(found).key_path, tmp_ / "base" / "keys" / "both.pem.key");
}

TEST_F(TokenStoreTest, FindThumbprintPrefersTokenOverAddedCertificate) {
  auto both = NamedCert("Both");
  hsm_->ImportCert("Card A", both.get(), "01", "both");
  OpenStore();
  ASSERT_EQ(Add(both.get()), 0u);
  std::unique_ptr<ICertificate> found;
  ASSERT_EQ(store_.FindThumbprint(ThumbprintOf(both.get()), &found), 0u);
  EXPECT_EQ(found->GetContext().index(), 2u);
}

TEST_F(TokenStoreTest, TokenLeafChainsThroughFileCas) {
  x509auth_test::Chain pki = x509auth_test::MakeChain(x509auth_test::KeyKind::k_ec);
  x509auth_test::InstallFileCert(tmp_ / "base", "root.pem", pki.root.get());
  x509auth_test::InstallFileCert(tmp_ / "base", "intermediate.pem", pki.intermediate.get());
  SetBaseDirectories({(tmp_ / "base").string()}, {});
  hsm_->ImportCertAndKey("Card A", pki.leaf.get(), pki.leaf_key.get(), "01", "leaf");
  OpenStore();
  std::unique_ptr<ICertificate> leaf;
  ASSERT_EQ(store_.FindThumbprint(ThumbprintOf(pki.leaf.get()), &leaf), 0u);
  ASSERT_TRUE(leaf->SupportsSmartCard());
  std::vector<Thumbprint> chain;
  ASSERT_TRUE(leaf->CaChain(chain, nullptr)) << recorder_->Dump();
  ASSERT_EQ(chain.size(), 3u);
  EXPECT_EQ(chain[0], ThumbprintOf(pki.leaf.get()));
  EXPECT_EQ(chain[2], ThumbprintOf(pki.root.get()));
}

TEST_F(TokenStoreTest, MovedStoreKeepsItsTokenCertificatesAndContext) {
  hsm_->ImportCert("Card A", NamedCert("Token").get(), "01", "token");
  OpenStore();
  CertStore moved(std::move(store_));
  const auto certs = moved.Certificates();
  ASSERT_EQ(Names(certs), std::vector<std::string>{"Token"});
  EXPECT_NE(std::get<2>(certs[0]->GetContext())->libp11_context, nullptr);
  EXPECT_TRUE(store_.Certificates().empty());
}

TEST_F(TokenStoreTest, EmptyTokenAddsNothingAndOpenSucceeds) {
  x509auth_test::InstallFileCert(tmp_ / "base", "file.pem", NamedCert("File").get());
  SetBaseDirectories({(tmp_ / "base").string()}, {});
  OpenStore();
  EXPECT_TRUE(recorder_->Has(X509_Auth_LogPriority_Warning,
                             "CertStore::OpenSmartCardStore x509 certs that we added =%d",
                             "CertStore::OpenSmartCardStore x509 certs that we added =0"));
  EXPECT_EQ(Names(store_.Certificates()), std::vector<std::string>{"File"});
}

}  // namespace
}  // namespace quorvant::shared::x509::test
