// The listing's and the key operations' view of a users' store: the same
// certificates as Certificates() and FindThumbprint, over the store's own
// parsed objects instead of copies; and the X509_STORE filled only when asked
// for, with what filling it at once would have given.
#include "StoreTestSupport.h"

namespace quorvant::shared::x509::test {
namespace {

class SharedCertificatesTest : public CertStoreTest {};

TEST_F(SharedCertificatesTest, MatchesCertificatesButSharesTheParsedObjects) {
  auto first = NamedCert("First");
  auto second = NamedCert("Second", 1);
  x509auth_test::InstallFileCert(tmp_ / "b1", "a.pem", first.get());
  x509auth_test::InstallFileCert(tmp_ / "b2", "a.pem", second.get());
  SetBaseDirectories({(tmp_ / "b1").string(), (tmp_ / "b2").string()}, {});
  ASSERT_EQ(store_.Open(ICertificateStore::k_users_cert_store), 0u) << recorder_->Dump();
  auto added = NamedCert("Added", 2);
  ASSERT_EQ(Add(added.get()), 0u);

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

TEST_F(SharedCertificatesTest, FindThumbprintSharedFindsWhatFindThumbprintFinds) {
  auto first = NamedCert("First");
  x509auth_test::InstallFileCert(tmp_ / "b1", "a.pem", first.get());
  x509auth_test::InstallFileCert(tmp_ / "b2", "a.pem", first.get());
  SetBaseDirectories({(tmp_ / "b1").string(), (tmp_ / "b2").string()}, {});
  ASSERT_EQ(store_.Open(ICertificateStore::k_users_cert_store), 0u);
  auto added = NamedCert("Added", 2);
  ASSERT_EQ(Add(added.get()), 0u);

  std::unique_ptr<ICertificate> copy, shared;
  ASSERT_EQ(store_.FindThumbprint(ThumbprintOf(first.get()), &copy), 0u);
  ASSERT_EQ(store_.FindThumbprintShared(ThumbprintOf(first.get()), &shared), 0u);
  // The first base directory's file, with its key path.
  EXPECT_EQ(FileContext(shared).key_path, tmp_ / "b1" / "keys" / "a.pem.key");
  EXPECT_EQ(FileContext(shared).key_path, FileContext(copy).key_path);
  EXPECT_EQ(X509_cmp(FileContext(shared).x509.get(), first.get()), 0);
  ASSERT_EQ(store_.FindThumbprintShared(ThumbprintOf(added.get()), &shared), 0u);
  EXPECT_EQ(shared->GetContext().index(), 1u);
  EXPECT_EQ(shared->Name(), "Added");

  recorder_->Reset();
  std::unique_ptr<ICertificate> none;
  EXPECT_EQ(store_.FindThumbprintShared(Thumbprint{}, &none), 1u);
  EXPECT_EQ(none, nullptr);
  ASSERT_EQ(recorder_->Logs().size(), 1u);
  EXPECT_EQ(recorder_->Logs()[0].format, "Failed to find certificate with thumprint: [%s]");
}

TEST_F(SharedCertificatesTest, TheX509StoreHoldsWhatAddingEachAtOnceWouldHaveLeft) {
  auto ca_one = NamedCert("Same Name", 1);
  auto ca_two = NamedCert("Other CA", 2);
  auto file_one = NamedCert("Same Name", 3);  // same subject as a CA, other key
  auto file_two = NamedCert("File Two");
  x509auth_test::WriteFile(tmp_ / "bundle.pem", x509auth_test::CertToPem(ca_one.get()) +
                                                    x509auth_test::CertToPem(ca_two.get()) +
                                                    x509auth_test::CertToPem(file_two.get()));
  env_->Set("SSL_CERT_FILE", (tmp_ / "bundle.pem").string());
  env_->Set("SSL_CERT_DIR", (tmp_ / "no-dir").string());
  x509auth_test::InstallFileCert(tmp_ / "base", "one.pem", file_one.get());
  x509auth_test::InstallFileCert(tmp_ / "base", "two.pem", file_two.get());
  SetBaseDirectories({(tmp_ / "base").string()}, {});
  ASSERT_EQ(store_.Open(ICertificateStore::k_users_cert_store), 0u) << recorder_->Dump();

  // What filling at once did: the files in scan order. The CA file's
  // certificates join only when a chain first needs an issuer.
  X509StorePtr expected(X509_STORE_new());
  for (const auto& cert : store_.Certificates())
    X509_STORE_add_cert(expected.get(), static_cast<const Cert&>(*cert).GetX509());
  auto added = NamedCert("Added", 4);
  X509_STORE_add_cert(expected.get(), added.get());
  // Adding fills the store first, so the added certificate comes last.
  ASSERT_EQ(Add(added.get()), 0u);

  const std::vector<X509*> want = x509auth_test::SortedStoreCerts(expected.get());
  const std::vector<X509*> got = x509auth_test::SortedStoreCerts(store_.X509Store());
  ASSERT_EQ(got.size(), want.size());
  ASSERT_EQ(got.size(), 3u);
  for (std::size_t i = 0; i < got.size(); ++i) EXPECT_EQ(X509_cmp(got[i], want[i]), 0) << i;
}

}  // namespace
}  // namespace quorvant::shared::x509::test
