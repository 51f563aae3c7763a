// Adding CA certificates and fetching a client certificate's CA chain.
#include <cstring>

#include "HostFixture.h"

namespace x509auth_test {
namespace {

class HostCaChainTest : public HostTest {
 protected:
  static int Add(const std::string& data) {
    return X509_Auth_AddAdditionalCertificateAuthorityToStore(
        reinterpret_cast<const unsigned char*>(data.data()), data.size());
  }
  static int Add(const Bytes& data) {
    return X509_Auth_AddAdditionalCertificateAuthorityToStore(data.data(), data.size());
  }
};

TEST_F(HostCaChainTest, AddedCasCompleteTheChainOfAListedCertificate) {
  Chain chain = MakeChain(KeyKind::k_rsa, "Chained Leaf");
  InstallFileCert(Base("base"), "leaf.pem", chain.leaf.get(), chain.leaf_key.get());
  Init({Base("base").string()});
  ASSERT_EQ(List().size(), 0u) << "without its CAs the leaf cannot be chained";

  EXPECT_EQ(Add(CertToPem(chain.root.get())), 1);
  EXPECT_EQ(Add(CertToDer(chain.intermediate.get())), 1);
  const auto records = List();
  ASSERT_EQ(records.size(), 1u) << rec().Dump();
  const X509_Auth_Certificate* leaf = records[0];
  ASSERT_EQ(leaf->ca_chain_count, 3u);
  EXPECT_EQ(Bytes(leaf->ca_chain[0], leaf->ca_chain[0] + 20), Sha1Thumbprint(chain.leaf.get()));
  EXPECT_EQ(Bytes(leaf->ca_chain[1], leaf->ca_chain[1] + 20),
            Sha1Thumbprint(chain.intermediate.get()));
  EXPECT_EQ(Bytes(leaf->ca_chain[2], leaf->ca_chain[2] + 20), Sha1Thumbprint(chain.root.get()));

  rec().Reset();
  uint64_t count = 0;
  X509_Auth_ASN_1* blobs = nullptr;
  ASSERT_EQ(X509_Auth_GetChainedCAsForCertificate(leaf, &count, &blobs), 0);
  // The leaf itself is not in the library's store: logged and skipped.
  ASSERT_EQ(count, 2u);
  const Bytes intermediate = CertToDer(chain.intermediate.get());
  const Bytes root = CertToDer(chain.root.get());
  EXPECT_EQ(Bytes(blobs[0].data, blobs[0].data + blobs[0].length), intermediate);
  EXPECT_EQ(Bytes(blobs[1].data, blobs[1].data + blobs[1].length), root);
  EXPECT_EQ(rec().WithFormat("Failed to find certificate thumbprint (error: %d)").size(), 1u);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error,
                        "Failed to find certificate thumbprint (error: %d)",
                        "Failed to find certificate thumbprint (error: 1)"));

  rec().Reset();
  X509_Auth_Free(blobs);
  char expected[64];
  std::snprintf(expected, sizeof expected, "asn1s ptr freed (ptr: %p)", static_cast<void*>(blobs));
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Info, "asn1s ptr freed (ptr: %p)", expected));
}

TEST_F(HostCaChainTest, MiddleEntryMissingYieldsTheOthersInOrder) {
  Chain chain = MakeChain(KeyKind::k_ec);
  Init({});
  ASSERT_EQ(Add(CertToDer(chain.root.get())), 1);
  ASSERT_EQ(Add(CertToDer(chain.leaf.get())), 1);
  const Bytes leaf = Sha1Thumbprint(chain.leaf.get());
  const Bytes missing = Sha1Thumbprint(chain.intermediate.get());
  const Bytes root = Sha1Thumbprint(chain.root.get());
  const uint8_t* members[] = {leaf.data(), missing.data(), root.data()};
  X509_Auth_Certificate record{};
  record.ca_chain_count = 3;
  record.ca_chain = members;
  rec().Reset();
  uint64_t count = 0;
  X509_Auth_ASN_1* blobs = nullptr;
  ASSERT_EQ(X509_Auth_GetChainedCAsForCertificate(&record, &count, &blobs), 0);
  ASSERT_EQ(count, 2u);
  EXPECT_EQ(Bytes(blobs[0].data, blobs[0].data + blobs[0].length), CertToDer(chain.leaf.get()));
  EXPECT_EQ(Bytes(blobs[1].data, blobs[1].data + blobs[1].length), CertToDer(chain.root.get()));
  EXPECT_EQ(rec().WithFormat("Failed to find certificate thumbprint (error: %d)").size(), 1u);
}

TEST_F(HostCaChainTest, EmptyChainGivesCountZeroNullArrayAndAKeptList) {
  Init({});
  X509_Auth_Certificate record{};
  uint64_t count = 5;
  X509_Auth_ASN_1* blobs = reinterpret_cast<X509_Auth_ASN_1*>(0x8);
  ASSERT_EQ(X509_Auth_GetChainedCAsForCertificate(&record, &count, &blobs), 0);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(blobs, nullptr);
  // The kept empty list answers to the null address, with its log line.
  rec().Reset();
  X509_Auth_Free(nullptr);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Info, "asn1s ptr freed (ptr: %p)", [] {
    char text[64];
    std::snprintf(text, sizeof text, "asn1s ptr freed (ptr: %p)", static_cast<void*>(nullptr));
    return std::string(text);
  }()));
  rec().Reset();
  X509_Auth_Free(nullptr);
  EXPECT_TRUE(rec().Logs().empty()) << "the list was freed the first time";
}

TEST_F(HostCaChainTest, FreeOfNullTakesEmptyCertificateListsBeforeEmptyChains) {
  Init({Base("none").string()});
  ASSERT_EQ(List().size(), 0u);
  X509_Auth_Certificate record{};
  uint64_t count = 0;
  X509_Auth_ASN_1* blobs = nullptr;
  ASSERT_EQ(X509_Auth_GetChainedCAsForCertificate(&record, &count, &blobs), 0);
  rec().Reset();
  X509_Auth_Free(nullptr);  // the empty certificate list, silently
  EXPECT_TRUE(rec().Logs().empty());
  X509_Auth_Free(nullptr);  // then the empty chain, with its line
  EXPECT_EQ(rec().WithFormat("asn1s ptr freed (ptr: %p)").size(), 1u);
  X509_Auth_Free(nullptr);  // nothing is left
  EXPECT_EQ(rec().Logs().size(), 1u);
}

TEST_F(HostCaChainTest, NullArgumentsGiveTwoThreeFourInThatOrder) {
  Init({});
  X509_Auth_Certificate record{};
  uint64_t count = 0;
  X509_Auth_ASN_1* blobs = nullptr;
  rec().Reset();
  EXPECT_EQ(X509_Auth_GetChainedCAsForCertificate(nullptr, nullptr, nullptr), 2);
  EXPECT_EQ(X509_Auth_GetChainedCAsForCertificate(&record, nullptr, nullptr), 3);
  EXPECT_EQ(X509_Auth_GetChainedCAsForCertificate(&record, &count, nullptr), 4);
  ASSERT_EQ(rec().Logs().size(), 3u);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error,
                        "KeyStore::GetChainedCAsForCertificate Cert is null",
                        "KeyStore::GetChainedCAsForCertificate Cert is null"));
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error,
                        "KeyStore::GetChainedCAsForCertificate total is null",
                        "KeyStore::GetChainedCAsForCertificate total is null"));
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error,
                        "KeyStore::GetChainedCAsForCertificate asn1 is null",
                        "KeyStore::GetChainedCAsForCertificate asn1 is null"));
  (void)blobs;
}

TEST_F(HostCaChainTest, ShortOrIndentedPemIsTakenAsDerAndRefused) {
  Chain chain = MakeChain(KeyKind::k_ec);
  Init({});
  rec().Reset();
  EXPECT_EQ(Add(std::string("-----BEGIN CERT")), 0);
  EXPECT_EQ(Add(" " + CertToPem(chain.root.get())), 0);
  // Both went to the store as DER bytes, which do not parse: error 1.
  const auto lines = rec().WithFormat("AddAdditionalCertificateAuthorityToStore error (%lu)");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].priority, X509_Auth_LogPriority_Warning);
  EXPECT_EQ(lines[0].text, "AddAdditionalCertificateAuthorityToStore error (1)");
  EXPECT_TRUE(rec().WithFormat("Unable to convert PEM to DER").empty());
}

TEST_F(HostCaChainTest, PemThatDoesNotParseIsRefusedAtInfo) {
  Init({});
  rec().Reset();
  EXPECT_EQ(Add(std::string("-----BEGIN CERTIFICATE-----\nnot base64 at all\n")), 0);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Warning, "Unable to convert PEM to DER",
                        "Unable to convert PEM to DER"));
  EXPECT_TRUE(
      rec().Has(X509_Auth_LogPriority_Info,
                "KeyStore::AddAdditionalCertificateAuthorityToStore ConvertPemDataToDer failed.",
                "KeyStore::AddAdditionalCertificateAuthorityToStore ConvertPemDataToDer failed."));
}

TEST_F(HostCaChainTest, AddingTheSameCaTwiceStillSucceeds) {
  Chain chain = MakeChain(KeyKind::k_ec);
  Init({});
  EXPECT_EQ(Add(CertToPem(chain.root.get())), 1);
  EXPECT_EQ(Add(CertToPem(chain.root.get())), 1);
}

}  // namespace
}  // namespace x509auth_test
