#include "StoreTestSupport.h"

namespace quorvant::shared::x509::test {
namespace {

constexpr const char* k_not_found = "Failed to find certificate with thumprint: [%s]";

// A users' store over one base directory (OpenSC finds no readers, so no
// token certificates).
class LookupTest : public CertStoreTest {
 protected:
  void OpenWithFiles(const std::vector<std::pair<std::string, X509*>>& files) {
    for (const auto& [name, cert] : files)
      x509auth_test::InstallFileCert(tmp_ / "base", name, cert);
    SetBaseDirectories({(tmp_ / "base").string()}, {});
    ASSERT_EQ(store_.Open(ICertificateStore::k_users_cert_store), 0u) << recorder_->Dump();
    recorder_->Reset();
  }
};

TEST_F(LookupTest, CertificatesListsFilesThenAddedCertificates) {
  auto file = NamedCert("From File");
  OpenWithFiles({{"a.pem", file.get()}});
  ASSERT_EQ(Add(NamedCert("Added One", 1).get()), 0u);
  ASSERT_EQ(Add(NamedCert("Added Two", 2).get()), 0u);
  const auto certs = store_.Certificates();
  EXPECT_EQ(Names(certs), (std::vector<std::string>{"From File", "Added One", "Added Two"}));
  EXPECT_EQ(certs[0]->GetContext().index(), 0u);
  EXPECT_EQ(certs[1]->GetContext().index(), 1u);
  EXPECT_EQ(certs[2]->GetContext().index(), 1u);
  for (const auto& cert : certs) EXPECT_FALSE(cert->SupportsSmartCard());
  EXPECT_EQ(std::get<1>(certs[1]->GetContext())->store, &store_);
  EXPECT_EQ(FileContext(certs[0]).store, &store_);
  EXPECT_TRUE(recorder_->Logs().empty()) << recorder_->Dump();
}

TEST_F(LookupTest, EachCertificatesCallGivesIndependentCopies) {
  auto file = NamedCert("Copied");
  OpenWithFiles({{"a.pem", file.get()}});
  ASSERT_EQ(Add(NamedCert("Added", 1).get()), 0u);
  auto first = store_.Certificates();
  auto second = store_.Certificates();
  ASSERT_EQ(first.size(), 2u);
  ASSERT_EQ(second.size(), 2u);
  for (std::size_t i = 0; i < first.size(); ++i) {
    const Cert& a = static_cast<const Cert&>(*first[i]);
    const Cert& b = static_cast<const Cert&>(*second[i]);
    EXPECT_NE(a.GetX509(), b.GetX509());
    EXPECT_EQ(X509_cmp(a.GetX509(), b.GetX509()), 0);
  }
  first.clear();
  EXPECT_EQ(second[0]->Name(), "Copied");
  EXPECT_EQ(second[1]->Name(), "Added");
}

TEST_F(LookupTest, ListedCertificatesSurviveLaterAdditions) {
  OpenWithFiles({{"a.pem", NamedCert("Early").get()}});
  auto before = store_.Certificates();
  for (int i = 0; i < 20; ++i) ASSERT_EQ(Add(NamedCert("Later " + std::to_string(i), 1).get()), 0u);
  EXPECT_EQ(before[0]->Name(), "Early");
  EXPECT_EQ(store_.Certificates().size(), 21u);
}

TEST_F(LookupTest, FindThumbprintPrefersFileOverAddedCertificate) {
  auto cert = NamedCert("Both");
  OpenWithFiles({{"both.pem", cert.get()}});
  ASSERT_EQ(Add(cert.get()), 0u);
  std::unique_ptr<ICertificate> found;
  ASSERT_EQ(store_.FindThumbprint(ThumbprintOf(cert.get()), &found), 0u);
  ASSERT_TRUE(found);
  ASSERT_EQ(found->GetContext().index(), 0u);
  EXPECT_EQ(FileContext(found).key_path, tmp_ / "base" / "keys" / "both.pem.key");
  EXPECT_EQ(FileContext(found).cert_path, tmp_ / "base" / "certs" / "both.pem");
  EXPECT_TRUE(recorder_->Logs().empty()) << recorder_->Dump();
}

TEST_F(LookupTest, FindThumbprintFindsAnAddedCertificateAsACopy) {
  OpenWithFiles({{"a.pem", NamedCert("File").get()}});
  auto added = NamedCert("Added", 1);
  ASSERT_EQ(Add(added.get()), 0u);
  std::unique_ptr<ICertificate> found;
  ASSERT_EQ(store_.FindThumbprint(ThumbprintOf(added.get()), &found), 0u);
  ASSERT_EQ(found->GetContext().index(), 1u);
  EXPECT_EQ(found->Name(), "Added");
  EXPECT_EQ(std::get<1>(found->GetContext())->store, &store_);
  std::unique_ptr<ICertificate> again;
  ASSERT_EQ(store_.FindThumbprint(ThumbprintOf(added.get()), &again), 0u);
  EXPECT_NE(static_cast<const Cert&>(*found).GetX509(), static_cast<const Cert&>(*again).GetX509());
}

TEST_F(LookupTest, FindThumbprintReplacesWhatTheOutPointerOwned) {
  auto file = NamedCert("Wanted");
  OpenWithFiles({{"a.pem", file.get()}});
  ASSERT_EQ(Add(NamedCert("Previous", 1).get()), 0u);
  std::unique_ptr<ICertificate> out = std::move(store_.Certificates()[1]);
  ASSERT_EQ(out->Name(), "Previous");
  ASSERT_EQ(store_.FindThumbprint(ThumbprintOf(file.get()), &out), 0u);
  EXPECT_EQ(out->Name(), "Wanted");
}

TEST_F(LookupTest, AllZeroThumbprintNotFoundLogsTwentyZeroDigits) {
  OpenWithFiles({{"a.pem", NamedCert("Some").get()}});
  std::unique_ptr<ICertificate> out = std::move(store_.Certificates()[0]);
  ICertificate* kept = out.get();
  EXPECT_EQ(store_.FindThumbprint(Thumbprint{}, &out), 1u);
  EXPECT_EQ(out.get(), kept);
  ASSERT_EQ(recorder_->Logs().size(), 1u) << recorder_->Dump();
  EXPECT_TRUE(recorder_->Has(X509_Auth_LogPriority_Warning, k_not_found,
                             "Failed to find certificate with thumprint: [00000000000000000000]"));
}

TEST_F(LookupTest, NotFoundThumbprintIsWrittenAsUnpaddedDecimalBytes) {
  CertStore store;
  ASSERT_EQ(store.Open(static_cast<ICertificateStore::CertStoreType>(1)), 0u);
  Thumbprint wanted{};
  wanted[0] = 0x0A;
  wanted[1] = 0x00;
  wanted[2] = 0xFF;
  wanted[19] = 0x07;
  std::unique_ptr<ICertificate> out;
  EXPECT_EQ(store.FindThumbprint(wanted, &out), 1u);
  EXPECT_FALSE(out);
  EXPECT_TRUE(recorder_->Has(
      X509_Auth_LogPriority_Warning, k_not_found,
      "Failed to find certificate with thumprint: [100255" + std::string(16, '0') + "7]"))
      << recorder_->Dump();
}

TEST_F(LookupTest, AddEncodedCertificateWithTruncatedDerReturnsOneAndChangesNothing) {
  OpenWithFiles({{"a.pem", NamedCert("File").get()}});
  auto cert = NamedCert("Truncated", 1);
  x509auth_test::Bytes der = x509auth_test::CertToDer(cert.get());
  const int objects = sk_X509_OBJECT_num(X509_STORE_get0_objects(store_.X509Store()));
  EXPECT_EQ(store_.AddEncodedCertificate(der.data(), der.size() - 10), 1u);
  const x509auth_test::Bytes garbage{0x30, 0x03, 0x01, 0x01, 0xFF, 0x00};
  EXPECT_EQ(store_.AddEncodedCertificate(garbage.data(), garbage.size()), 1u);
  EXPECT_EQ(Names(store_.Certificates()), std::vector<std::string>{"File"});
  EXPECT_EQ(sk_X509_OBJECT_num(X509_STORE_get0_objects(store_.X509Store())), objects);
  EXPECT_TRUE(recorder_->Logs().empty()) << recorder_->Dump();
}

TEST_F(LookupTest, AddedCertificateIsInTheX509StoreAndListedLast) {
  OpenWithFiles({{"a.pem", NamedCert("File").get()}});
  auto cert = NamedCert("Added", 1);
  EXPECT_EQ(Add(cert.get()), 0u);
  EXPECT_TRUE(test::StoreHolds(store_.X509Store(), cert.get()));
  EXPECT_EQ(Names(store_.Certificates()).back(), "Added");
}

TEST_F(LookupTest, AddingTheSameCertificateTwiceSucceedsAndKeepsBoth) {
  OpenWithFiles({});
  auto cert = NamedCert("Twice");
  // OpenSSL 3.0 accepts a certificate already in the X509_STORE.
  EXPECT_EQ(Add(cert.get()), 0u);
  EXPECT_EQ(Add(cert.get()), 0u);
  EXPECT_EQ(Names(store_.Certificates()), (std::vector<std::string>{"Twice", "Twice"}));
}

TEST_F(LookupTest, SizeAboveThirtyTwoBitsIsCutToItsLowThirtyTwoBits) {
  OpenWithFiles({});
  auto cert = NamedCert("Big Size");
  const x509auth_test::Bytes der = x509auth_test::CertToDer(cert.get());
  // Only der.size() bytes remain once the size is cut, so nothing past the
  // buffer is read.
  EXPECT_EQ(store_.AddEncodedCertificate(der.data(), (std::size_t{1} << 32) + der.size()), 0u);
  // 2^31 + n becomes a negative length, which OpenSSL refuses.
  EXPECT_EQ(store_.AddEncodedCertificate(der.data(), (std::size_t{1} << 31) + der.size()), 1u);
  EXPECT_EQ(Names(store_.Certificates()), std::vector<std::string>{"Big Size"});
}

TEST_F(LookupTest, AddToAnUnopenedStoreFailsButKeepsTheCertificate) {
  CertStore store;
  auto cert = NamedCert("Unopened");
  const x509auth_test::Bytes der = x509auth_test::CertToDer(cert.get());
  EXPECT_EQ(store.AddEncodedCertificate(der.data(), der.size()), 1u);
  EXPECT_FALSE(store.IsOpen());
  EXPECT_EQ(Names(store.Certificates()), std::vector<std::string>{"Unopened"});
}

TEST_F(LookupTest, StoreOfAnotherKindListsOnlyWhatWasAdded) {
  CertStore store;
  ASSERT_EQ(store.Open(static_cast<ICertificateStore::CertStoreType>(7)), 0u);
  EXPECT_TRUE(store.Certificates().empty());
  auto ca = NamedCert("Host CA");
  const x509auth_test::Bytes der = x509auth_test::CertToDer(ca.get());
  EXPECT_EQ(store.AddEncodedCertificate(der.data(), der.size()), 0u);
  EXPECT_EQ(Names(store.Certificates()), std::vector<std::string>{"Host CA"});
}

TEST_F(LookupTest, MoveConstructionTakesEverythingAndLeavesTheSourceClosedAndEmpty) {
  OpenWithFiles({{"a.pem", NamedCert("File").get()}});
  ASSERT_EQ(Add(NamedCert("Added", 1).get()), 0u);
  X509_STORE* x509_store = store_.X509Store();
  CertStore moved(std::move(store_));
  EXPECT_EQ(moved.X509Store(), x509_store);
  EXPECT_TRUE(moved.IsOpen());
  const auto certs = moved.Certificates();
  EXPECT_EQ(Names(certs), (std::vector<std::string>{"File", "Added"}));
  EXPECT_EQ(FileContext(certs[0]).store, &moved);
  EXPECT_FALSE(store_.IsOpen());
  EXPECT_EQ(store_.X509Store(), nullptr);
  EXPECT_TRUE(store_.Certificates().empty());
  std::unique_ptr<ICertificate> out;
  EXPECT_EQ(store_.FindThumbprint(Thumbprint{}, &out), 1u);
}

TEST_F(LookupTest, MoveAssignmentReplacesTheTargetAndTheSourceCanBeOpenedAgain) {
  OpenWithFiles({{"a.pem", NamedCert("Source File").get()}});
  CertStore target;
  ASSERT_EQ(target.Open(static_cast<ICertificateStore::CertStoreType>(1)), 0u);
  auto old_cert = NamedCert("Target Added", 2);
  const x509auth_test::Bytes der = x509auth_test::CertToDer(old_cert.get());
  ASSERT_EQ(target.AddEncodedCertificate(der.data(), der.size()), 0u);
  X509_STORE* source_store = store_.X509Store();

  target = std::move(store_);
  EXPECT_EQ(target.X509Store(), source_store);
  EXPECT_EQ(Names(target.Certificates()), std::vector<std::string>{"Source File"});
  EXPECT_FALSE(store_.IsOpen());
  EXPECT_TRUE(store_.Certificates().empty());

  // A moved-from store opens again like a new one.
  recorder_->Reset();
  EXPECT_EQ(store_.Open(ICertificateStore::k_users_cert_store), 0u) << recorder_->Dump();
  EXPECT_EQ(Names(store_.Certificates()), std::vector<std::string>{"Source File"});
  EXPECT_NE(store_.X509Store(), target.X509Store());
}

TEST_F(LookupTest, ChainOfAFileCertificateUsesTheStoresFileCas) {
  x509auth_test::Chain pki = x509auth_test::MakeChain();
  OpenWithFiles({{"root.pem", pki.root.get()},
                 {"intermediate.pem", pki.intermediate.get()},
                 {"leaf.pem", pki.leaf.get()}});
  std::unique_ptr<ICertificate> leaf;
  ASSERT_EQ(store_.FindThumbprint(ThumbprintOf(pki.leaf.get()), &leaf), 0u);
  std::vector<Thumbprint> chain;
  ASSERT_TRUE(leaf->CaChain(chain, nullptr)) << recorder_->Dump();
  ASSERT_EQ(chain.size(), 3u);
  EXPECT_EQ(chain[0], ThumbprintOf(pki.leaf.get()));
  EXPECT_EQ(chain[1], ThumbprintOf(pki.intermediate.get()));
  EXPECT_EQ(chain[2], ThumbprintOf(pki.root.get()));
}

TEST_F(LookupTest, ChainTrustsCasAddedToTheExtraStore) {
  x509auth_test::Chain pki = x509auth_test::MakeChain();
  OpenWithFiles({{"intermediate.pem", pki.intermediate.get()}, {"leaf.pem", pki.leaf.get()}});
  CertStore added_cas;
  ASSERT_EQ(added_cas.Open(static_cast<ICertificateStore::CertStoreType>(1)), 0u);
  const x509auth_test::Bytes root_der = x509auth_test::CertToDer(pki.root.get());
  ASSERT_EQ(added_cas.AddEncodedCertificate(root_der.data(), root_der.size()), 0u);
  std::unique_ptr<ICertificate> leaf;
  ASSERT_EQ(store_.FindThumbprint(ThumbprintOf(pki.leaf.get()), &leaf), 0u);
  std::vector<Thumbprint> without;
  EXPECT_FALSE(leaf->CaChain(without, nullptr));
  std::vector<Thumbprint> chain;
  ASSERT_TRUE(leaf->CaChain(chain, &added_cas)) << recorder_->Dump();
  EXPECT_EQ(chain.size(), 3u);
}

}  // namespace
}  // namespace quorvant::shared::x509::test
