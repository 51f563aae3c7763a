// The listing's view of a users' store: the same certificates as
// Certificates(), in the same order with the same contexts, over the store's
// own parsed objects instead of copies.
#include "StoreTestSupport.h"

namespace quorvant::shared::x509 {
namespace {

using test::FileContext;
using test::SetBaseDirectories;
using test::StoreTest;

class SharedCertificatesTest : public StoreTest {
 protected:
  void TearDown() override {
    store_ = CertStore();
    StoreTest::TearDown();
  }
  CertStore store_;
};

TEST_F(SharedCertificatesTest, MatchesCertificatesButSharesTheParsedObjects) {
  auto first = NamedCert("First");
  auto second = NamedCert("Second", 1);
  x509auth_test::InstallFileCert(tmp_ / "b1", "a.pem", first.get());
  x509auth_test::InstallFileCert(tmp_ / "b2", "a.pem", second.get());
  SetBaseDirectories({(tmp_ / "b1").string(), (tmp_ / "b2").string()}, {});
  ASSERT_EQ(store_.Open(ICertificateStore::k_users_cert_store), 0u) << recorder_->Dump();
  auto added = NamedCert("Added", 2);
  const x509auth_test::Bytes der = x509auth_test::CertToDer(added.get());
  ASSERT_EQ(store_.AddEncodedCertificate(der.data(), der.size()), 0u);

  const auto copies = store_.Certificates();
  const auto shared = store_.SharedCertificates();
  const auto again = store_.SharedCertificates();
  ASSERT_EQ(Names(shared), (std::vector<std::string>{"First", "Second", "Added"}));
  ASSERT_EQ(Names(copies), Names(shared));
  for (std::size_t i = 0; i < shared.size(); ++i) {
    const Cert& copy = static_cast<const Cert&>(*copies[i]);
    const Cert& view = static_cast<const Cert&>(*shared[i]);
    EXPECT_EQ(copy.GetContext().index(), view.GetContext().index());
    EXPECT_EQ(X509_cmp(copy.GetX509(), view.GetX509()), 0);
    EXPECT_NE(copy.GetX509(), view.GetX509());
    EXPECT_EQ(view.GetX509(), static_cast<const Cert&>(*again[i]).GetX509());
    EXPECT_EQ(copy.Encode(), view.Encode());
  }
  EXPECT_EQ(FileContext(shared[1]).cert_path, FileContext(copies[1]).cert_path);
  EXPECT_EQ(FileContext(shared[1]).key_path, FileContext(copies[1]).key_path);
  EXPECT_EQ(FileContext(shared[0]).store, &store_);
}

TEST_F(SharedCertificatesTest, ACertificateOutlivesTheStoreThatListedIt) {
  auto only = NamedCert("Only");
  x509auth_test::InstallFileCert(tmp_ / "base", "a.pem", only.get());
  SetBaseDirectories({(tmp_ / "base").string()}, {});
  ASSERT_EQ(store_.Open(ICertificateStore::k_users_cert_store), 0u);
  auto shared = store_.SharedCertificates();
  store_ = CertStore();
  ASSERT_EQ(shared.size(), 1u);
  EXPECT_EQ(shared[0]->Name(), "Only");
}

}  // namespace
}  // namespace quorvant::shared::x509
