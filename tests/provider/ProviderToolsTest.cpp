// openssl pkeyutl and storeutl through the provider, and the provider loaded
// from an openssl.cnf section.

#include "ProviderFixture.h"

namespace x509auth_test {
namespace {

class ProviderPkeyutlTest : public ProviderTest {
 protected:
  void SetUp() override {
    ProviderTest::SetUp();
    WriteFile(work_ / "message.txt", std::string("the data whose hash is signed\n"));
    ChildRun hash;
    hash.argv = {OpensslProgram(), "dgst", "-sha256", "-binary", "-out", "hash.bin", "message.txt"};
    ASSERT_EQ(RunChild(hash).status, 0);
  }

  std::string Uri(const std::string& thumbprint) const {
    return "x509auth:thumbprint=" + thumbprint;
  }
};

TEST_F(ProviderPkeyutlTest, SignThroughProviderVerifiesWithProviderAndWithCertificate) {
  for (KeyKind kind : {KeyKind::k_rsa, KeyKind::k_ec}) {
    const std::string name = kind == KeyKind::k_rsa ? "RSA Signer" : "EC Signer";
    const std::string thumbprint = InstallClient(kind, name);
    const std::string sig = name + ".sig";
    ChildResult signed_ = Openssl("pkeyutl", {"-sign", "-inkey", Uri(thumbprint), "-in", "hash.bin",
                                              "-out", sig, "-pkeyopt", "digest:sha256"});
    ASSERT_EQ(signed_.status, 0) << signed_.err;
    const ChildResult by_provider =
        Openssl("pkeyutl", {"-verify", "-inkey", Uri(thumbprint), "-in", "hash.bin", "-sigfile",
                            sig, "-pkeyopt", "digest:sha256"});
    EXPECT_EQ(by_provider.status, 0) << by_provider.err;
    EXPECT_NE(by_provider.out.find("Signature Verified Successfully"), std::string::npos);
    // Independently, with OpenSSL's own implementation and the certificate.
    WriteFile(work_ / (name + ".crt"), leaf_certs_[name]);
    const ChildResult by_certificate =
        Openssl("pkeyutl",
                {"-verify", "-certin", "-inkey", name + ".crt", "-in", "hash.bin", "-sigfile", sig,
                 "-pkeyopt", "digest:sha256"},
                "", false);
    EXPECT_EQ(by_certificate.status, 0) << by_certificate.out << by_certificate.err;
    // A different hash does not verify.
    WriteFile(work_ / "other.bin", Bytes(32, 0x5a));
    const ChildResult wrong =
        Openssl("pkeyutl", {"-verify", "-inkey", Uri(thumbprint), "-in", "other.bin", "-sigfile",
                            sig, "-pkeyopt", "digest:sha256"});
    EXPECT_NE(wrong.status, 0);
  }
}

TEST_F(ProviderPkeyutlTest, EncryptAndDecryptRoundTripsWithPkcs1AndOaep) {
  const std::string thumbprint = InstallClient(KeyKind::k_rsa, "RSA Decrypter");
  WriteFile(work_ / "decrypter.crt", leaf_certs_["RSA Decrypter"]);
  WriteFile(work_ / "secret.txt", std::string("a session key, say"));
  for (const std::string padding : {"pkcs1", "oaep"}) {
    // Encrypted once by OpenSSL's default implementation from the
    // certificate, once through the provider's key.
    const ChildResult by_cert =
        Openssl("pkeyutl",
                {"-encrypt", "-certin", "-inkey", "decrypter.crt", "-in", "secret.txt", "-out",
                 padding + ".cert.bin", "-pkeyopt", "rsa_padding_mode:" + padding},
                "", false);
    ASSERT_EQ(by_cert.status, 0) << by_cert.err;
    const ChildResult by_provider =
        Openssl("pkeyutl", {"-encrypt", "-inkey", Uri(thumbprint), "-in", "secret.txt", "-out",
                            padding + ".prov.bin", "-pkeyopt", "rsa_padding_mode:" + padding});
    ASSERT_EQ(by_provider.status, 0) << by_provider.err;
    for (const std::string source : {".cert.bin", ".prov.bin"}) {
      const ChildResult decrypted =
          Openssl("pkeyutl", {"-decrypt", "-inkey", Uri(thumbprint), "-in", padding + source,
                              "-pkeyopt", "rsa_padding_mode:" + padding});
      EXPECT_EQ(decrypted.status, 0) << padding << source << decrypted.err;
      EXPECT_EQ(decrypted.out, "a session key, say") << padding << source;
    }
  }
}

TEST_F(ProviderPkeyutlTest, OaepWithAnotherDigestIsRefusedClearly) {
  const std::string thumbprint = InstallClient(KeyKind::k_rsa, "RSA Decrypter");
  WriteFile(work_ / "secret.txt", std::string("x"));
  const ChildResult decrypted =
      Openssl("pkeyutl", {"-decrypt", "-inkey", Uri(thumbprint), "-in", "secret.txt", "-pkeyopt",
                          "rsa_padding_mode:oaep", "-pkeyopt", "rsa_oaep_md:sha256"});
  EXPECT_NE(decrypted.status, 0);
  EXPECT_NE(decrypted.err.find("x509auth decrypts OAEP with SHA-1 only"), std::string::npos)
      << decrypted.err;
}

TEST_F(ProviderTest, StoreutlListsEveryOfferedCertificate) {
  InstallClient(KeyKind::k_rsa, "First Client");
  InstallClient(KeyKind::k_ec, "Second Client");
  const ChildResult listed = Openssl("storeutl", {"-noout", "-text", "x509auth:"});
  EXPECT_EQ(listed.status, 0) << listed.err;
  EXPECT_NE(listed.out.find("Total found: 2"), std::string::npos) << listed.out;
  EXPECT_NE(listed.out.find("Subject: CN=First Client"), std::string::npos) << listed.out;
  EXPECT_NE(listed.out.find("Subject: CN=Second Client"), std::string::npos) << listed.out;
}

TEST_F(ProviderTest, StoreRefusesAnUnrecognisedUri) {
  InstallClient(KeyKind::k_ec, "EC Client");
  const ChildResult listed = Openssl("storeutl", {"-noout", "x509auth:subject=EC Client"});
  EXPECT_NE(listed.status, 0);
  EXPECT_NE(listed.err.find("unrecognised x509auth URI"), std::string::npos) << listed.err;
}

TEST_F(ProviderTest, OpensslCnfSectionLoadsTheProviderWithItsSettings) {
  InstallClient(KeyKind::k_ec, "Configured Client");
  const std::filesystem::path cnf = WriteOpensslConfig(
      "dirs = " + base_.string() + "\nca_files = " + CasFile().string() + "\nlog_level = error\n");
  ChildRun run;
  run.argv = {OpensslProgram(), "storeutl", "-noout", "-text", "x509auth:"};
  run.env = SanitizerEnvironment();
  run.env["OPENSSL_CONF"] = cnf.string();
  // The section's values, not these, must be used.
  run.env["X509AUTH_DIRS"] = (temp_ / "nowhere").string();
  const ChildResult listed = RunChild(run);
  EXPECT_EQ(listed.status, 0) << listed.err;
  EXPECT_NE(listed.out.find("Subject: CN=Configured Client"), std::string::npos) << listed.out;
  EXPECT_NE(listed.out.find("Total found: 1"), std::string::npos) << listed.out;
}

TEST_F(ProviderTest, BadLogLevelStopsTheProviderFromLoadingWithTheReason) {
  ChildRun run;
  run.argv = {OpensslProgram(), "list", "-providers"};
  for (const std::string& a : ProviderArguments()) run.argv.push_back(a);
  run.env = SanitizerEnvironment();
  run.env["X509AUTH_LOG"] = "loud";
  const ChildResult listed = RunChild(run);
  EXPECT_NE(listed.status, 0);
  EXPECT_NE(listed.err.find("log_level 'loud'"), std::string::npos) << listed.err;
}

}  // namespace
}  // namespace x509auth_test
