// One certificate found by its thumbprint without listing the others: the
// record equals the listing's, the lookup order is files, tokens, added CAs,
// and a file certificate never loads the PKCS#11 module.
#include <cstring>
#include <fstream>
#include <sstream>

#include "ForkedChild.h"
#include "HostFixture.h"
#include "SoftHsmToken.h"

namespace x509auth_test {
namespace {

int Add(X509* cert) {
  const std::string pem = CertToPem(cert);
  return X509_Auth_AddAdditionalCertificateAuthorityToStore(
      reinterpret_cast<const unsigned char*>(pem.data()), pem.size());
}

Bytes ChainEntry(const X509_Auth_Certificate* record, uint64_t index) {
  return Bytes(record->ca_chain[index], record->ca_chain[index] + 20);
}

// Every field of two records, pointers compared by what they point to.
void ExpectSameRecord(const X509_Auth_Certificate* found, const X509_Auth_Certificate* listed) {
  EXPECT_STREQ(found->name, listed->name);
  EXPECT_STREQ(found->issuer_name, listed->issuer_name);
  EXPECT_EQ(found->not_before, listed->not_before);
  EXPECT_EQ(found->not_after, listed->not_after);
  EXPECT_EQ(found->smart_card, listed->smart_card);
  EXPECT_EQ(found->padding, 0u);
  EXPECT_EQ(0, std::memcmp(found->thumbprint, listed->thumbprint, 20));
  ASSERT_EQ(found->encoded_length, listed->encoded_length);
  EXPECT_EQ(0, std::memcmp(found->encoded, listed->encoded, found->encoded_length));
  ASSERT_EQ(found->ca_chain_count, listed->ca_chain_count);
  for (uint64_t i = 0; i < found->ca_chain_count; ++i)
    EXPECT_EQ(ChainEntry(found, i), ChainEntry(listed, i)) << "chain entry " << i;
  EXPECT_EQ(found->key_algorithm_group, listed->key_algorithm_group);
  EXPECT_EQ(found->cert_type, listed->cert_type);
  EXPECT_STREQ(found->key_path, listed->key_path);
  EXPECT_EQ(found->reserved, 0u);
}

// Whether the process has a mapping of a file whose path holds |name|.
bool Mapped(const std::string& name) {
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line))
    if (line.find(name) != std::string::npos) return true;
  return false;
}

class HostFindCertificateTest : public HostTest {
 protected:
  static X509_Auth_ResultCode Find(X509* cert, const X509_Auth_Certificate** record) {
    const Bytes thumbprint = Sha1Thumbprint(cert);
    return X509_Auth_FindCertificate(thumbprint.data(), record);
  }
};

TEST_F(HostFindCertificateTest, FileCertificateRecordEqualsTheListingsWithItsAddedCaChain) {
  Chain chain = MakeChain(KeyKind::k_ec, "Found Leaf");
  TestKey other_key = SharedKey(KeyKind::k_rsa);
  TestX509 other = MakeClientCert("Other File", other_key.get());
  InstallFileCert(Base("base"), "leaf.pem", chain.leaf.get(), chain.leaf_key.get());
  InstallFileCert(Base("base"), "other.pem", other.get(), other_key.get());
  Init({Base("base").string()});
  ASSERT_EQ(Add(chain.root.get()), 1);
  ASSERT_EQ(Add(chain.intermediate.get()), 1);

  const auto listed = List();
  ASSERT_EQ(listed.size(), 2u) << rec().Dump();
  for (const X509_Auth_Certificate* record : listed) {
    const X509_Auth_Certificate* found = nullptr;
    ASSERT_EQ(X509_Auth_FindCertificate(record->thumbprint, &found), 0) << rec().Dump();
    ASSERT_NE(found, nullptr);
    ExpectSameRecord(found, record);
    X509_Auth_Free(found);
  }
  const X509_Auth_Certificate* leaf = nullptr;
  ASSERT_EQ(Find(chain.leaf.get(), &leaf), 0);
  ASSERT_EQ(leaf->ca_chain_count, 3u);
  EXPECT_EQ(ChainEntry(leaf, 2), Sha1Thumbprint(chain.root.get()));
  EXPECT_EQ(leaf->cert_type, X509_Auth_CertificateType_FileBased);
  EXPECT_EQ(std::string(leaf->key_path), (Base("base") / "keys" / "leaf.pem.key").string());
  X509_Auth_Free(leaf);
  EXPECT_EQ(rec().Outstanding(), 0);
}

TEST_F(HostFindCertificateTest, AddedCaCertificateIsFoundAfterFilesWithTypeOther) {
  Chain chain = MakeChain(KeyKind::k_rsa);
  Init({Base("base").string()});
  ASSERT_EQ(Add(chain.root.get()), 1);

  const X509_Auth_Certificate* found = nullptr;
  ASSERT_EQ(Find(chain.root.get(), &found), 0) << rec().Dump();
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->cert_type, X509_Auth_CertificateType_Other);
  EXPECT_EQ(Bytes(found->encoded, found->encoded + found->encoded_length),
            CertToDer(chain.root.get()));
  EXPECT_EQ(Bytes(found->thumbprint, found->thumbprint + 20), Sha1Thumbprint(chain.root.get()));
  EXPECT_STREQ(found->key_path, "");
  // A self-signed root that the host trusts is its own chain.
  ASSERT_EQ(found->ca_chain_count, 1u);
  EXPECT_EQ(ChainEntry(found, 0), Sha1Thumbprint(chain.root.get()));
  X509_Auth_Free(found);
}

TEST_F(HostFindCertificateTest, UnknownThumbprintGivesCertificateNotFoundAndItsLines) {
  Init({Base("base").string()});
  const Bytes unknown(20, 0xAB);
  const X509_Auth_Certificate* found = reinterpret_cast<const X509_Auth_Certificate*>(&unknown);
  EXPECT_EQ(X509_Auth_FindCertificate(unknown.data(), &found),
            X509_Auth_ResultCode_CertificateNotFound);
  EXPECT_EQ(found, nullptr);
  std::string decimal;
  for (int i = 0; i < 20; ++i) decimal += "171";
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Warning,
                        "Failed to find certificate with thumprint: [%s]",
                        "Failed to find certificate with thumprint: [" + decimal + "]"))
      << rec().Dump();
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error,
                        "Failed to find certificate thumbprint (error: %d)",
                        "Failed to find certificate thumbprint (error: 1)"));
}

TEST_F(HostFindCertificateTest, FileCertificateTheListingLeavesOutIsNotFoundWithItsReason) {
  TestKey key = SharedKey(KeyKind::k_ec);
  TestX509 server = MakeClientCert("Server Only", key.get(), "serverAuth", "keyEncipherment");
  InstallFileCert(Base("base"), "server.pem", server.get(), key.get());
  Init({Base("base").string()});
  EXPECT_EQ(List().size(), 0u);

  const X509_Auth_Certificate* found = nullptr;
  EXPECT_EQ(Find(server.get(), &found), X509_Auth_ResultCode_CertificateNotFound);
  EXPECT_EQ(found, nullptr);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error,
                        "X509_Auth_FindCertificate: [%s] is not offered for client "
                        "authentication (key usage)",
                        "X509_Auth_FindCertificate: [Server Only] is not offered for client "
                        "authentication (key usage)"))
      << rec().Dump();
}

TEST_F(HostFindCertificateTest, NullArgumentsGiveInvalidArgumentAndALine) {
  TestKey key = SharedKey(KeyKind::k_ec);
  TestX509 cert = MakeClientCert("Null Args", key.get());
  InstallFileCert(Base("base"), "cert.pem", cert.get(), key.get());
  Init({Base("base").string()});
  const Bytes thumbprint = Sha1Thumbprint(cert.get());
  const X509_Auth_Certificate* found = reinterpret_cast<const X509_Auth_Certificate*>(&key);
  EXPECT_EQ(X509_Auth_FindCertificate(nullptr, &found), X509_Auth_ResultCode_InvalidArgument);
  EXPECT_EQ(found, nullptr);
  EXPECT_EQ(X509_Auth_FindCertificate(thumbprint.data(), nullptr),
            X509_Auth_ResultCode_InvalidArgument);
  EXPECT_EQ(rec().WithFormat("%s: invalid argument").size(), 2u) << rec().Dump();
}

class HostFindTokenCertificateTest : public HostCardTest {
 protected:
  void SetUp() override {
    HostCardTest::SetUp();
    if (IsSkipped()) return;
    token_key_ = SharedKey(KeyKind::k_ec, 1);
    token_ = MakeClientCert("Token EC", token_key_.get());
    hsm_->ImportCertAndKey("Card A", token_.get(), token_key_.get(), "01", "ec");
    file_key_ = SharedKey(KeyKind::k_ec, 2);
    file_ = MakeClientCert("File EC", file_key_.get());
    InstallFileCert(Base("base"), "file.pem", file_.get(), file_key_.get());
  }

  TestKey token_key_, file_key_;
  TestX509 token_, file_;
};

TEST_F(HostFindTokenCertificateTest, TokenCertificateRecordEqualsTheListings) {
  Init({Base("base").string()});
  const auto listed = List();
  ASSERT_EQ(listed.size(), 2u) << rec().Dump();
  const X509_Auth_Certificate* found = nullptr;
  ASSERT_EQ(X509_Auth_FindCertificate(listed[1]->thumbprint, &found), 0) << rec().Dump();
  EXPECT_EQ(found->cert_type, X509_Auth_CertificateType_SmartCard);
  EXPECT_EQ(Bytes(found->thumbprint, found->thumbprint + 20), Sha1Thumbprint(token_.get()));
  ExpectSameRecord(found, listed[1]);
  X509_Auth_Free(found);
}

// In a child, which has never loaded a module: a file certificate is found
// with no PKCS#11 module mapped, and a token certificate then maps it.
TEST_F(HostFindTokenCertificateTest, FileCertificateIsFoundWithoutLoadingThePkcs11Module) {
  const std::string outcome = RunInChild([this] {
    Init({Base("base").string()});
    std::ostringstream report;
    const X509_Auth_Certificate* found = nullptr;
    const Bytes file_thumbprint = Sha1Thumbprint(file_.get());
    report << "file " << X509_Auth_FindCertificate(file_thumbprint.data(), &found);
    report << (found != nullptr && std::strcmp(found->name, "File EC") == 0 ? " named" : " -");
    X509_Auth_Free(found);
    report << (Mapped("softhsm") ? " mapped" : " unmapped");
    const Bytes token_thumbprint = Sha1Thumbprint(token_.get());
    found = nullptr;
    report << "; token " << X509_Auth_FindCertificate(token_thumbprint.data(), &found);
    report << (found != nullptr && std::strcmp(found->name, "Token EC") == 0 ? " named" : " -");
    X509_Auth_Free(found);
    report << (Mapped("softhsm") ? " mapped" : " unmapped");
    X509_Auth_DeInit();
    return report.str();
  });
  EXPECT_EQ(outcome, "file 0 named unmapped; token 0 named mapped");
}

// X509_Auth_OpenKey finds a file certificate the same way.
TEST_F(HostFindTokenCertificateTest, OpenKeyOfAFileCertificateLoadsNoPkcs11Module) {
  const std::string outcome = RunInChild([this] {
    Init({Base("base").string()});
    std::ostringstream report;
    const Bytes thumbprint = Sha1Thumbprint(file_.get());
    X509_Auth_KeyHandle handle = 0;
    report << "open " << X509_Auth_OpenKey(thumbprint.data(), &handle).code;
    report << (Mapped("softhsm") ? " mapped" : " unmapped");
    report << " close " << X509_Auth_CloseKey(handle);
    X509_Auth_DeInit();
    return report.str();
  });
  EXPECT_EQ(outcome, "open 0 unmapped close 0");
}

}  // namespace
}  // namespace x509auth_test
