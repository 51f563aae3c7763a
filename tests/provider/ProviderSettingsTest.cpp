// Where the provider takes its settings from and what it never does: the
// PKCS#11 module only by an absolute path (pkcs11_module in openssl.cnf, or
// X509AUTH_MODULE), never from the working directory; CA files in PEM and
// DER; the tool's home directory by default; nothing on stderr unless asked.
#include <fstream>
#include <memory>

#include "ProviderFixture.h"
#include "SoftHsmToken.h"

namespace x509auth_test {
namespace {

// The name of the file the planted module leaves when it is loaded.
constexpr const char* k_marker = "planted-module-was-loaded";

class ProviderSettingsTest : public ProviderTest {
 protected:
  // openssl with only OPENSSL_CONF (and what the token needs) set.
  ChildResult OpensslWithConfig(const std::filesystem::path& cnf,
                                const std::vector<std::string>& arguments,
                                const std::string& input = "") const {
    ChildRun run;
    run.argv = {OpensslProgram()};
    run.argv.insert(run.argv.end(), arguments.begin(), arguments.end());
    run.env = SanitizerEnvironment();
    run.env["OPENSSL_CONF"] = cnf.string();
    if (const char* conf = std::getenv("SOFTHSM2_CONF")) run.env["SOFTHSM2_CONF"] = conf;
    run.cwd = work_.string();
    run.input = input;
    run.limit = std::chrono::seconds(40);
    return RunChild(run);
  }
};

TEST_F(ProviderSettingsTest, AModulePlantedInTheWorkingDirectoryIsNeverLoaded) {
  const std::string thumbprint = InstallClient(KeyKind::k_rsa, "RSA Client");
  std::filesystem::copy_file(PLANTED_MODULE_PATH, work_ / "opensc-pkcs11.so");
  std::filesystem::create_directories(work_ / "bin");
  // Also where the default lookup would go next: "bin" turned into "lib".
  std::filesystem::create_directories(work_ / "lib");
  std::filesystem::copy_file(PLANTED_MODULE_PATH, work_ / "lib" / "opensc-pkcs11.so");
  const ChildResult listed = Openssl("storeutl", {"-noout", "x509auth:"});
  EXPECT_EQ(listed.status, 0) << listed.err;
  EXPECT_NE(listed.out.find("Total found: 1"), std::string::npos) << listed.out;
  auto server = StartReversingServer();
  ASSERT_NE(server, nullptr);
  const ChildResult client = SendLine(thumbprint, {});
  EXPECT_TRUE(LineCameBack(client)) << client.err;
  cwd_override_ = work_ / "bin";
  EXPECT_EQ(Openssl("storeutl", {"-noout", "x509auth:"}).status, 0);
  EXPECT_FALSE(std::filesystem::exists(work_ / k_marker));
  EXPECT_FALSE(std::filesystem::exists(work_ / "bin" / k_marker));
}

TEST_F(ProviderSettingsTest, Pkcs11ModuleMustBeAnAbsolutePathToAReadableFile) {
  for (const std::string module : {"opensc-pkcs11.so", "/nonexistent/module.so", "/etc"}) {
    env_override_["X509AUTH_MODULE"] = module;
    const ChildResult listed = Openssl("storeutl", {"-noout", "x509auth:"});
    EXPECT_NE(listed.status, 0) << module;
    EXPECT_NE(listed.err.find("pkcs11_module " + module +
                              ": give the absolute path of a readable PKCS#11 module, or none"),
              std::string::npos)
        << listed.err;
  }
}

TEST_F(ProviderSettingsTest, QuietOnSuccessAndLinesOnStderrWhenAskedFor) {
  InstallClient(KeyKind::k_ec, "EC Client");
  const ChildResult quiet = Openssl("storeutl", {"-noout", "x509auth:"});
  EXPECT_EQ(quiet.status, 0);
  EXPECT_EQ(quiet.err, "");
  env_override_["X509AUTH_LOG"] = "info";
  const ChildResult told = Openssl("storeutl", {"-noout", "x509auth:"});
  EXPECT_EQ(told.status, 0);
  EXPECT_NE(told.err.find("x509auth: Loading client certificates from OS store"), std::string::npos)
      << told.err;
}

TEST_F(ProviderSettingsTest, AtWarningASuccessfulListingPrintsNothingAndTheStepTraceIsInfo) {
  InstallClient(KeyKind::k_rsa, "Traced Client");
  // Nothing a user should look at: no smart-card module that finds no
  // reader, no home folder that does not exist.
  env_override_["X509AUTH_MODULE"] = "none";
  env_override_["X509AUTH_HOME_DIRS"] = base_.filename().string();
  env_override_["HOME"] = base_.parent_path().string();
  env_override_["X509AUTH_LOG"] = "warning";
  const ChildResult warning = Openssl("storeutl", {"-noout", "x509auth:"});
  EXPECT_EQ(warning.status, 0);
  EXPECT_EQ(warning.err, "");
  env_override_["X509AUTH_LOG"] = "info";
  const ChildResult info = Openssl("storeutl", {"-noout", "x509auth:"});
  EXPECT_NE(info.err.find("x509auth: CertStore::Open"), std::string::npos) << info.err;
  EXPECT_NE(info.err.find("x509auth: Total Client Certificates picked: "), std::string::npos)
      << info.err;
}

TEST_F(ProviderSettingsTest, CaFilesMayBeDerOrPemWithSeveralCertificates) {
  Chain chain = MakeChain(KeyKind::k_ec, "Chained Client");
  WriteFile(base_ / "certs" / "client.pem", CertToPem(chain.leaf.get()));
  WriteFile(base_ / "keys" / "client.pem.key", KeyToPem(chain.leaf_key.get()));
  // Without the CAs the chain cannot be built and nothing is offered.
  env_override_["X509AUTH_CA_FILES"] = "";
  EXPECT_NE(Openssl("storeutl", {"-noout", "x509auth:"}).out.find("Total found: 0"),
            std::string::npos);
  // The root as DER, the intermediate in a PEM file that holds an unrelated
  // CA first.
  WriteFile(temp_ / "root.der", CertToDer(chain.root.get()));
  WriteUnrelatedCa(temp_ / "unrelated.pem");
  std::ifstream unrelated(temp_ / "unrelated.pem");
  const std::string unrelated_pem((std::istreambuf_iterator<char>(unrelated)),
                                  std::istreambuf_iterator<char>());
  WriteFile(temp_ / "intermediate.pem", unrelated_pem + CertToPem(chain.intermediate.get()));
  env_override_["X509AUTH_CA_FILES"] =
      (temp_ / "root.der").string() + ":" + (temp_ / "intermediate.pem").string();
  const ChildResult listed = Openssl("storeutl", {"-noout", "-text", "x509auth:"});
  EXPECT_NE(listed.out.find("Total found: 1"), std::string::npos) << listed.out << listed.err;
  EXPECT_NE(listed.out.find("Subject: CN=Chained Client"), std::string::npos);
}

TEST_F(ProviderSettingsTest, ADamagedCertificateInACaFileHidesNeitherTheCasAfterItNorOtherBlocks) {
  Chain chain = MakeChain(KeyKind::k_ec, "Chained Client");
  WriteFile(base_ / "certs" / "client.pem", CertToPem(chain.leaf.get()));
  WriteFile(base_ / "keys" / "client.pem.key", KeyToPem(chain.leaf_key.get()));
  WriteFile(temp_ / "root.der", CertToDer(chain.root.get()));
  // A certificate block whose content is no certificate, and a key kept in
  // the same file, both before the intermediate the chain needs.
  const std::string damaged =
      "-----BEGIN CERTIFICATE-----\nAAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8=\n"
      "-----END CERTIFICATE-----\n";
  WriteFile(temp_ / "intermediate.pem",
            damaged + KeyToPem(chain.leaf_key.get()) + CertToPem(chain.intermediate.get()));
  env_override_["X509AUTH_CA_FILES"] =
      (temp_ / "root.der").string() + ":" + (temp_ / "intermediate.pem").string();
  const ChildResult listed = Openssl("storeutl", {"-noout", "-text", "x509auth:"});
  EXPECT_NE(listed.out.find("Total found: 1"), std::string::npos) << listed.out << listed.err;
  EXPECT_NE(listed.out.find("Subject: CN=Chained Client"), std::string::npos) << listed.out;
}

TEST_F(ProviderSettingsTest, AtErrorALeftOutCertificateIsNamedWithTheSettingThatFixesIt) {
  InstallClient(KeyKind::k_rsa, "Offered Client");
  const ForeignClient client = MakeClientOfUnknownCa("Unchained Client");
  const std::filesystem::path left_out = base_ / "certs" / "unchained.pem";
  WriteFile(left_out, CertToPem(client.leaf.get()));
  WriteFile(base_ / "keys" / "unchained.pem.key", KeyToPem(client.leaf_key.get()));
  env_override_["X509AUTH_MODULE"] = "none";
  env_override_["X509AUTH_LOG"] = "error";
  const ChildResult listed = Openssl("storeutl", {"-noout", "x509auth:"});
  EXPECT_EQ(listed.status, 0) << listed.err;
  EXPECT_NE(listed.out.find("Total found: 1"), std::string::npos) << listed.out;
  const std::string named = "x509auth: certificate " + left_out.string() +
                            " (Unchained Client) is not offered: its chain cannot be built (";
  const std::size_t at = listed.err.find(named);
  ASSERT_NE(at, std::string::npos) << listed.err;
  EXPECT_NE(listed.err.find("; add its CA to ca_files (or X509AUTH_CA_FILES)\n", at),
            std::string::npos)
      << listed.err;
  EXPECT_EQ(listed.err.find(named, at + 1), std::string::npos) << listed.err;
  EXPECT_EQ(listed.err.find("Offered Client"), std::string::npos) << listed.err;

  // Quiet unless asked, like every other line.
  env_override_.erase("X509AUTH_LOG");
  EXPECT_EQ(Openssl("storeutl", {"-noout", "x509auth:"}).err, "");

  // Given its CA, it is offered and not named.
  WriteFile(temp_ / "unknown-ca.pem", CertToPem(client.root.get()));
  env_override_["X509AUTH_CA_FILES"] =
      CasFile().string() + ":" + (temp_ / "unknown-ca.pem").string();
  env_override_["X509AUTH_LOG"] = "error";
  const ChildResult fixed = Openssl("storeutl", {"-noout", "x509auth:"});
  EXPECT_NE(fixed.out.find("Total found: 2"), std::string::npos) << fixed.out << fixed.err;
  EXPECT_EQ(fixed.err.find("is not offered"), std::string::npos) << fixed.err;
}

TEST_F(ProviderSettingsTest, HomeDirectoryDefaultsToTheToolsOne) {
  Chain chain = MakeChain(KeyKind::k_ec, "Home Client");
  const std::filesystem::path home = temp_ / "home";
  WriteFile(home / ".x509-auth" / "certs" / "home.pem", CertToPem(chain.leaf.get()));
  WriteFile(home / ".x509-auth" / "keys" / "home.pem.key", KeyToPem(chain.leaf_key.get()));
  AddCas(chain);
  env_override_["HOME"] = home.string();
  env_override_["X509AUTH_DIRS"] = "";
  const ChildResult listed = Openssl("storeutl", {"-noout", "-text", "x509auth:"});
  EXPECT_NE(listed.out.find("Subject: CN=Home Client"), std::string::npos)
      << listed.out << listed.err;
}

TEST_F(ProviderSettingsTest, PkeyutlPssAndPkcs1SignaturesVerifyWithStockOpenssl) {
  const std::string thumbprint = InstallClient(KeyKind::k_rsa, "RSA Signer");
  WriteFile(work_ / "signer.crt", leaf_certs_["RSA Signer"]);
  WriteFile(work_ / "hash.bin", Bytes(32, 0x42));
  const std::vector<std::vector<std::string>> paddings = {
      {"-pkeyopt", "rsa_padding_mode:pkcs1"},
      {"-pkeyopt", "rsa_padding_mode:pss", "-pkeyopt", "rsa_pss_saltlen:digest"},
      {"-pkeyopt", "rsa_padding_mode:pss", "-pkeyopt", "rsa_pss_saltlen:max"},
      {"-pkeyopt", "rsa_padding_mode:pss", "-pkeyopt", "rsa_pss_saltlen:16"}};
  for (const std::vector<std::string>& padding : paddings) {
    std::vector<std::string> sign = {"-sign",   "-inkey",   "x509auth:thumbprint=" + thumbprint,
                                     "-in",     "hash.bin", "-out",
                                     "sig.bin", "-pkeyopt", "digest:sha256"};
    sign.insert(sign.end(), padding.begin(), padding.end());
    const ChildResult made = Openssl("pkeyutl", sign);
    ASSERT_EQ(made.status, 0) << padding.back() << made.err;
    std::vector<std::string> verify = {"-verify",  "-certin",      "-inkey",   "signer.crt",
                                       "-in",      "hash.bin",     "-sigfile", "sig.bin",
                                       "-pkeyopt", "digest:sha256"};
    verify.insert(verify.end(), padding.begin(), padding.end());
    const ChildResult checked = Openssl("pkeyutl", verify, "", false);
    EXPECT_EQ(checked.status, 0) << padding.back() << checked.out << checked.err;
    EXPECT_NE(checked.out.find("Signature Verified Successfully"), std::string::npos);
  }
  // Without a digest, OpenSSL would make a raw PKCS#1 signature; refused.
  const ChildResult raw =
      Openssl("pkeyutl", {"-sign", "-inkey", "x509auth:thumbprint=" + thumbprint, "-in", "hash.bin",
                          "-out", "raw.bin"});
  EXPECT_NE(raw.status, 0);
  EXPECT_NE(raw.err.find("an RSA signature needs its digest set"), std::string::npos) << raw.err;
  // Any other padding is refused with the two that work named.
  const ChildResult x931 = Openssl(
      "pkeyutl", {"-sign", "-inkey", "x509auth:thumbprint=" + thumbprint, "-in", "hash.bin", "-out",
                  "x931.bin", "-pkeyopt", "digest:sha256", "-pkeyopt", "rsa_padding_mode:x931"});
  EXPECT_NE(x931.status, 0);
  EXPECT_NE(x931.err.find("unsupported padding (x509auth signs RSA with PKCS#1 v1.5 or PSS)"),
            std::string::npos)
      << x931.err;
}

class ProviderTokenSettingsTest : public ProviderSettingsTest {
 protected:
  void SetUp() override {
    X509AUTH_SKIP_WITHOUT_SOFTHSM2();
    ProviderSettingsTest::SetUp();
    SoftHsmToken::Options options;
    options.module_link_directory.clear();
    hsm_ = std::make_unique<SoftHsmToken>(options);
    hsm_->InitToken("Card A");
    rsa_ = MakeChain(KeyKind::k_rsa, "Token RSA");
    hsm_->ImportCertAndKey("Card A", rsa_.leaf.get(), rsa_.leaf_key.get(), "01", "rsa");
    AddCas(rsa_);
    thumbprint_ = LowerHex(Sha1Thumbprint(rsa_.leaf.get()));
    // The token's helper entered a directory of its own; the programs run
    // in the test's, which holds no module.
    cwd_override_ = work_;
  }
  void TearDown() override {
    hsm_.reset();
    ProviderSettingsTest::TearDown();
  }

  std::unique_ptr<SoftHsmToken> hsm_;
  Chain rsa_;
  std::string thumbprint_;
};

TEST_F(ProviderTokenSettingsTest, OpensslCnfNamesTheModuleWithNoEnvironmentFromAnEmptyDirectory) {
  const std::filesystem::path cnf =
      WriteOpensslConfig("pkcs11_module = " + SoftHsmToken::ModulePath().string() +
                         "\nca_files = " + CasFile().string() + "\n");
  const ChildResult listed = OpensslWithConfig(cnf, {"storeutl", "-noout", "-text", "x509auth:"});
  EXPECT_EQ(listed.status, 0) << listed.err;
  EXPECT_NE(listed.out.find("Subject: CN=Token RSA"), std::string::npos)
      << listed.out << listed.err;
  EXPECT_EQ(listed.err, "");
  auto server = StartReversingServer();
  ASSERT_NE(server, nullptr);
  const ChildResult client = OpensslWithConfig(
      cnf,
      {"s_client", "-connect", server_.Address(), "-cert", "x509auth:thumbprint=" + thumbprint_,
       "-key", "x509auth:thumbprint=" + thumbprint_, "-pass", "pass:1234", "-CAfile",
       server_.CertificateFile().string(), "-verify_return_error", "-ign_eof"},
      "hello through x509auth\nCLOSE\n");
  EXPECT_TRUE(LineCameBack(client)) << client.out << client.err;
  EXPECT_NE(client.out.find("New, TLSv1.3"), std::string::npos);
  EXPECT_TRUE(ServerVerified(*server, "Token RSA")) << server->Output();
  // In openssl.cnf, "module" stays OpenSSL's own key: the provider's path.
  EXPECT_EQ(client.err.find("C_GetFunctionList"), std::string::npos) << client.err;
}

TEST_F(ProviderTokenSettingsTest, PkeyutlPssAndPkcs1WithATokenKeyVerifyWithStockOpenssl) {
  env_override_["X509AUTH_MODULE"] = SoftHsmToken::ModulePath().string();
  WriteFile(work_ / "token.crt", CertToPem(rsa_.leaf.get()));
  WriteFile(work_ / "hash.bin", Bytes(48, 0x17));
  for (const std::string padding : {"pkcs1", "pss"}) {
    const ChildResult made =
        Openssl("pkeyutl", {"-sign", "-inkey", "x509auth:thumbprint=" + thumbprint_, "-passin",
                            "pass:1234", "-in", "hash.bin", "-out", "sig.bin", "-pkeyopt",
                            "digest:sha384", "-pkeyopt", "rsa_padding_mode:" + padding});
    ASSERT_EQ(made.status, 0) << padding << made.err;
    const ChildResult checked =
        Openssl("pkeyutl",
                {"-verify", "-certin", "-inkey", "token.crt", "-in", "hash.bin", "-sigfile",
                 "sig.bin", "-pkeyopt", "digest:sha384", "-pkeyopt", "rsa_padding_mode:" + padding},
                "", false);
    EXPECT_EQ(checked.status, 0) << padding << checked.out << checked.err;
  }
}

}  // namespace
}  // namespace x509auth_test
