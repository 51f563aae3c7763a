// `x509-auth chain`: thumbprints and subjects leaf first, and --pem with the
// leaf and the CA certificates the library hands out.
#include <openssl/pem.h>

#include "ToolFixture.h"

namespace x509auth_test {
namespace {

class ChainCommandTest : public ToolTest {};

TEST_F(ChainCommandTest, ListsLeafIntermediateAndRootWithSubjectsAndWritesThemAsPem) {
  Chain chain = MakeChain(KeyKind::k_rsa, "Chain Leaf");
  InstallFileCert(Base("b"), "leaf.pem", chain.leaf.get(), chain.leaf_key.get());
  WriteFile(temp_ / "root.pem", CertToPem(chain.root.get()));
  WriteFile(temp_ / "intermediate.pem", CertToPem(chain.intermediate.get()));
  const std::string leaf = HexOf(Sha1Thumbprint(chain.leaf.get()));
  const std::vector<std::string> common{"--dir",    Base("b").string(),
                                        "--add-ca", (temp_ / "root.pem").string(),
                                        "--add-ca", (temp_ / "intermediate.pem").string()};

  std::vector<std::string> args = common;
  args.insert(args.end(), {"chain", leaf.substr(0, 8)});
  const ToolResult result = RunTool(args);
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(
      Lines(result.out),
      (std::vector<std::string>{
          "0  " + leaf + "  Chain Leaf",
          "1  " + HexOf(Sha1Thumbprint(chain.intermediate.get())) + "  " + "Test Intermediate CA",
          "2  " + HexOf(Sha1Thumbprint(chain.root.get())) + "  " + "Test Root CA"}));
  // The leaf is never among the added CAs; that expected miss is not an error.
  EXPECT_EQ(result.err.find("[error] Failed to find certificate thumbprint"), std::string::npos)
      << result.err;

  args.push_back("--pem");
  const ToolResult pem = RunTool(args);
  ASSERT_EQ(pem.status, 0) << pem.err;
  std::vector<std::string> thumbprints;
  std::unique_ptr<BIO, decltype(&BIO_free)> bio(
      BIO_new_mem_buf(pem.out.data(), static_cast<int>(pem.out.size())), &BIO_free);
  while (X509* cert = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)) {
    TestX509 owned(cert);
    thumbprints.push_back(HexOf(Sha1Thumbprint(cert)));
  }
  EXPECT_EQ(thumbprints,
            (std::vector<std::string>{leaf, HexOf(Sha1Thumbprint(chain.intermediate.get())),
                                      HexOf(Sha1Thumbprint(chain.root.get()))}));
}

TEST_F(ChainCommandTest, SelfSignedCertificateIsItsOwnChain) {
  TestKey ec = SharedKey(KeyKind::k_ec, 0);
  TestX509 cert = ClientCert("Alone", ec.get());
  InstallFileCert(Base("b"), "alone.pem", cert.get(), ec.get());
  const std::string thumb = HexOf(Sha1Thumbprint(cert.get()));
  const ToolResult result = RunTool({"--dir", Base("b").string(), "chain", thumb});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "0  " + thumb + "  Alone\n");
}

}  // namespace
}  // namespace x509auth_test
