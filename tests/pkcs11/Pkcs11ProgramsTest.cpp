// Real PKCS#11 programs with the built module: OpenSC's pkcs11-tool,
// GnuTLS's p11tool and NSS's modutil and certutil. Signatures are checked
// with stock openssl and the certificate's public key.
#include <regex>

#include "Pkcs11Fixture.h"

namespace x509auth_test {
namespace {

class Pkcs11ProgramsTest : public Pkcs11Test {
 protected:
  ChildResult Pkcs11Tool(std::vector<std::string> arguments, const std::string& pin = "") const {
    std::vector<std::string> argv = {"pkcs11-tool", "--module", ModulePath()};
    if (!pin.empty()) {
      argv.push_back("--login");
      argv.push_back("--pin");
      argv.push_back(pin);
    }
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return Run(argv);
  }

  ChildResult Openssl(const std::vector<std::string>& arguments) const {
    std::vector<std::string> argv = {OpensslProgram()};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    ChildRun run;
    run.argv = argv;
    run.cwd = temp_.path().string();
    return RunChild(run);
  }

  // The certificate's public key in a PEM file, for openssl's verification.
  std::string PublicKeyFile(const InstalledClient& client) const {
    const std::string file = (temp_ / (client.name + ".pub")).string();
    EXPECT_EQ(Openssl({"x509", "-in", client.cert_file.string(), "-pubkey", "-noout", "-out", file})
                  .status,
              0);
    return file;
  }

  std::string File(const std::string& name, const Bytes& content) const {
    WriteFile(temp_ / name, content);
    return (temp_ / name).string();
  }
  std::string File(const std::string& name, const std::string& content) const {
    return File(name, Bytes(content.begin(), content.end()));
  }

  static Bytes Digest(const EVP_MD* md, const std::string& data) {
    Bytes digest(EVP_MAX_MD_SIZE);
    unsigned int length = 0;
    EVP_Digest(data.data(), data.size(), digest.data(), &length, md, nullptr);
    digest.resize(length);
    return digest;
  }

  const std::string data_ = "The quick brown fox jumps over the lazy dog\n";
};

TEST_F(Pkcs11ProgramsTest, Pkcs11ToolListsTheSlotTheTokenAndItsObjects) {
  const InstalledClient& alice = Install(KeyKind::k_rsa, "Alice");
  Install(KeyKind::k_ec, "Bob");
  const ChildResult listed = Pkcs11Tool({"-L"});
  ASSERT_EQ(listed.status, 0) << listed.err;
  EXPECT_NE(listed.out.find("token label        : x509auth"), std::string::npos) << listed.out;
  const ChildResult objects = Pkcs11Tool({"-O"});
  ASSERT_EQ(objects.status, 0) << objects.err;
  EXPECT_NE(objects.out.find("label:      Alice"), std::string::npos) << objects.out;
  EXPECT_NE(objects.out.find("label:      Bob"), std::string::npos);
  EXPECT_NE(objects.out.find("ID:         " + alice.hex), std::string::npos);
  EXPECT_NE(objects.out.find("Private Key Object; RSA"), std::string::npos);
  EXPECT_NE(objects.out.find("Private Key Object; EC"), std::string::npos);
  EXPECT_NE(objects.out.find("label:      Test Root CA"), std::string::npos);
  const ChildResult mechanisms = Pkcs11Tool({"-M"});
  EXPECT_NE(mechanisms.out.find("SHA256-RSA-PKCS-PSS"), std::string::npos) << mechanisms.out;
  EXPECT_NE(mechanisms.out.find("ECDSA-SHA384"), std::string::npos);
}

TEST_F(Pkcs11ProgramsTest, Pkcs11ToolSignsWithEveryMechanismAndOpensslVerifies) {
  const InstalledClient& rsa = Install(KeyKind::k_rsa, "Alice");
  const InstalledClient& ec = Install(KeyKind::k_ec, "Bob", "s3cret");
  const std::string rsa_pub = PublicKeyFile(rsa);
  const std::string ec_pub = PublicKeyFile(ec);
  const std::string data = File("data", data_);
  const std::string pin = "s3cret";  // Bob's password; Alice's key asks for none

  auto sign = [&](const InstalledClient& client, const std::vector<std::string>& extra,
                  const std::string& input) {
    std::vector<std::string> arguments = {
        "--sign", "--id", client.hex, "-i", input, "-o", (temp_ / "sig").string()};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    const ChildResult signed_ = Pkcs11Tool(arguments, pin);
    EXPECT_EQ(signed_.status, 0) << signed_.err;
    return (temp_ / "sig").string();
  };
  auto verifies = [&](const std::vector<std::string>& arguments) {
    const ChildResult verified = Openssl(arguments);
    return verified.status == 0 && verified.out.find("Verified OK") != std::string::npos;
  };

  for (const char* hash : {"sha1", "sha256", "sha384", "sha512"}) {
    SCOPED_TRACE(hash);
    std::string upper = hash;
    for (char& c : upper) c = static_cast<char>(std::toupper(c));
    std::string sig = sign(rsa, {"-m", upper + "-RSA-PKCS"}, data);
    EXPECT_TRUE(
        verifies({"dgst", std::string("-") + hash, "-verify", rsa_pub, "-signature", sig, data}));
    sig = sign(rsa, {"-m", upper + "-RSA-PKCS-PSS", "--mgf", "MGF1-" + upper, "--salt-len", "-1"},
               data);
    EXPECT_TRUE(
        verifies({"dgst", std::string("-") + hash, "-sigopt", "rsa_padding_mode:pss", "-sigopt",
                  "rsa_pss_saltlen:-1", "-verify", rsa_pub, "-signature", sig, data}));
    sig = sign(ec, {"-m", "ECDSA-" + upper, "--signature-format", "openssl"}, data);
    EXPECT_TRUE(
        verifies({"dgst", std::string("-") + hash, "-verify", ec_pub, "-signature", sig, data}));
  }
  // The mechanisms that take the digest (or the DigestInfo) from the program.
  const Bytes digest = Digest(EVP_sha256(), data_);
  static const unsigned char k_sha256_prefix[] = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60,
                                                  0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02,
                                                  0x01, 0x05, 0x00, 0x04, 0x20};
  Bytes digest_info(sizeof(k_sha256_prefix) + digest.size());
  std::copy(std::begin(k_sha256_prefix), std::end(k_sha256_prefix), digest_info.begin());
  std::copy(digest.begin(), digest.end(), digest_info.begin() + sizeof(k_sha256_prefix));
  std::string sig = sign(rsa, {"-m", "RSA-PKCS"}, File("digest-info", digest_info));
  EXPECT_TRUE(verifies({"dgst", "-sha256", "-verify", rsa_pub, "-signature", sig, data}));
  const std::string digest_file = File("digest", digest);
  sig = sign(rsa,
             {"-m", "RSA-PKCS-PSS", "--hash-algorithm", "SHA256", "--mgf", "MGF1-SHA256",
              "--salt-len", "-1"},
             digest_file);
  EXPECT_TRUE(verifies({"dgst", "-sha256", "-sigopt", "rsa_padding_mode:pss", "-sigopt",
                        "rsa_pss_saltlen:-1", "-verify", rsa_pub, "-signature", sig, data}));
  sig = sign(ec, {"-m", "ECDSA", "--signature-format", "openssl"}, digest_file);
  EXPECT_TRUE(verifies({"dgst", "-sha256", "-verify", ec_pub, "-signature", sig, data}));
}

TEST_F(Pkcs11ProgramsTest, Pkcs11ToolDecryptsPkcs1AndOaep) {
  const InstalledClient& rsa = Install(KeyKind::k_rsa, "Alice");
  const std::string rsa_pub = PublicKeyFile(rsa);
  const std::string data = File("data", std::string("a secret"));
  ASSERT_EQ(Openssl({"pkeyutl", "-encrypt", "-pubin", "-inkey", rsa_pub, "-in", data, "-out",
                     "pkcs1.bin"})
                .status,
            0);
  ASSERT_EQ(Openssl({"pkeyutl", "-encrypt", "-pubin", "-inkey", rsa_pub, "-pkeyopt",
                     "rsa_padding_mode:oaep", "-in", data, "-out", "oaep.bin"})
                .status,
            0);
  ChildResult decrypted = Pkcs11Tool(
      {"--decrypt", "-m", "RSA-PKCS", "--id", rsa.hex, "-i", (temp_ / "pkcs1.bin").string()});
  EXPECT_EQ(decrypted.status, 0) << decrypted.err;
  EXPECT_EQ(decrypted.out, "a secret");
  decrypted = Pkcs11Tool({"--decrypt", "-m", "RSA-PKCS-OAEP", "--hash-algorithm", "SHA-1", "--mgf",
                          "MGF1-SHA1", "--id", rsa.hex, "-i", (temp_ / "oaep.bin").string()});
  EXPECT_EQ(decrypted.status, 0) << decrypted.err;
  EXPECT_EQ(decrypted.out, "a secret");
}

TEST_F(Pkcs11ProgramsTest,
       P11toolListsCertificatesAndKeysAndTestSignsRsaEcAndPasswordProtectedKeys) {
  if (!HaveProgram("p11tool")) GTEST_SKIP() << "p11tool (gnutls-bin) missing";
  Install(KeyKind::k_rsa, "Alice");
  Install(KeyKind::k_ec, "Bob");
  Install(KeyKind::k_rsa, "Carol", "s3cret", 7);
  const std::map<std::string, std::string> pin = {{"GNUTLS_PIN", "s3cret"}};
  const ChildResult certs = Run({"p11tool", "--provider", ModulePath(), "--list-all-certs"});
  ASSERT_EQ(certs.status, 0) << certs.err;
  for (const char* label : {"Label: Alice", "Label: Bob", "Label: Carol", "Label: Test Root CA",
                            "CKA_CERTIFICATE_CATEGORY=CA"})
    EXPECT_NE(certs.out.find(label), std::string::npos) << label << "\n" << certs.out;
  const ChildResult keys =
      Run({"p11tool", "--provider", ModulePath(), "--login", "--list-privkeys"}, "", pin);
  ASSERT_EQ(keys.status, 0) << keys.err;
  EXPECT_NE(keys.out.find("Private key (RSA-2048)"), std::string::npos) << keys.out;
  EXPECT_NE(keys.out.find("Private key (EC/ECDSA-SECP256R1)"), std::string::npos);
  for (const char* name : {"Alice", "Bob", "Carol"}) {
    SCOPED_TRACE(name);
    const ChildResult tested =
        Run({"p11tool", "--provider", ModulePath(), "--login", "--test-sign",
             std::string("pkcs11:token=x509auth;object=") + name + ";type=private"},
            "", pin);
    EXPECT_EQ(tested.status, 0) << tested.out << tested.err;
    EXPECT_NE(tested.err.find("Verifying against public key in the token... ok"), std::string::npos)
        << tested.out << tested.err;
  }
}

TEST_F(Pkcs11ProgramsTest, NssListsTheCertificatesAndKeysOfTheModuleAddedWithModutil) {
  if (!HaveProgram("modutil") || !HaveProgram("certutil")) GTEST_SKIP() << "libnss3-tools missing";
  Install(KeyKind::k_rsa, "Alice");
  Install(KeyKind::k_ec, "Bob");
  const std::string db = "sql:" + (temp_ / "nssdb").string();
  std::filesystem::create_directories(temp_ / "nssdb");
  ASSERT_EQ(Run({"certutil", "-N", "-d", db, "--empty-password"}).status, 0);
  const ChildResult added =
      Run({"modutil", "-dbdir", db, "-add", "x509auth", "-libfile", ModulePath(), "-force"});
  ASSERT_EQ(added.status, 0) << added.out << added.err;
  const ChildResult certs = Run({"certutil", "-L", "-d", db, "-h", "all"});
  ASSERT_EQ(certs.status, 0) << certs.err;
  EXPECT_NE(certs.out.find("x509auth:Alice"), std::string::npos) << certs.out;
  EXPECT_NE(certs.out.find("x509auth:Bob"), std::string::npos) << certs.out;
  const ChildResult keys = Run({"certutil", "-K", "-d", db, "-h", "all"}, "\n");
  ASSERT_EQ(keys.status, 0) << keys.out << keys.err;
  EXPECT_NE(keys.out.find("Checking token \"x509auth\""), std::string::npos) << keys.out;
  EXPECT_NE(keys.out.find("> rsa      " + clients_[0]->hex + "   Alice"), std::string::npos)
      << keys.out;
  EXPECT_NE(keys.out.find("> ec       " + clients_[1]->hex + "   Bob"), std::string::npos)
      << keys.out;
}

TEST_F(Pkcs11ProgramsTest, Pkcs11ToolSelfTestWithLoginReportsNoErrors) {
  Install(KeyKind::k_rsa, "Alice");
  Install(KeyKind::k_rsa, "Carol", "s3cret", 1);
  Install(KeyKind::k_ec, "Bob", "s3cret");
  const ChildResult tested = Pkcs11Tool({"--test"}, "s3cret");
  EXPECT_EQ(tested.status, 0) << tested.out << tested.err;
  EXPECT_NE(tested.out.find("No errors"), std::string::npos) << tested.out << tested.err;
  // What it checked: the digests, and that the token has no generator.
  EXPECT_NE(tested.out.find("Digests:"), std::string::npos) << tested.out;
  EXPECT_FALSE(std::regex_search(tested.out, std::regex("[0-9]+ errors"))) << tested.out;
}

}  // namespace
}  // namespace x509auth_test
