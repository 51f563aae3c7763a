// `x509-auth sign`: every hash, both key families, input from a file or
// stdin, output as hex or raw, passwords given non-interactively, and the
// failures with their one line and exit status.
#include <openssl/evp.h>

#include "ToolFixture.h"

namespace x509auth_test {
namespace {

Bytes FromHex(const std::string& hex) {
  Bytes bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
    bytes.push_back(static_cast<unsigned char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  return bytes;
}

Bytes Digest(const EVP_MD* md, const std::string& message) {
  Bytes digest(static_cast<std::size_t>(EVP_MD_size(md)));
  EVP_Digest(message.data(), message.size(), digest.data(), nullptr, md, nullptr);
  return digest;
}

class SignCommandTest : public ToolFileKeysTest {
 protected:
  SignCommandTest() : ToolFileKeysTest("Signer") {}
  std::string Thumb(X509* cert) const { return HexOf(Sha1Thumbprint(cert)); }
};

TEST_F(SignCommandTest, EveryHashWithBothKeyFamiliesVerifiesWithTheCertificate) {
  const std::string message = "message to sign";
  WriteFile(temp_ / "in.txt", message);
  const std::pair<const char*, const EVP_MD*> hashes[] = {{"sha1", EVP_sha1()},
                                                          {"sha256", EVP_sha256()},
                                                          {"sha384", EVP_sha384()},
                                                          {"sha512", EVP_sha512()}};
  for (X509* cert : {rsa_cert_.get(), ec_cert_.get()}) {
    for (const auto& [name, md] : hashes) {
      const std::string out = (temp_ / (std::string(name) + ".sig")).string();
      const ToolResult result = RunTool({"--dir", Base("b").string(), "sign", Thumb(cert), "--hash",
                                         name, "--in", (temp_ / "in.txt").string(), "--out", out});
      ASSERT_EQ(result.status, 0) << name << ": " << result.err;
      EXPECT_EQ(result.out, "");
      EXPECT_NE(result.err.find("verified with the certificate's public key"), std::string::npos)
          << result.err;
      EXPECT_NE(result.err.find(std::string(name) + " digest"), std::string::npos) << result.err;
      const Bytes signature = ReadFileBytes(out);
      EXPECT_TRUE(VerifiesWithCertificate(cert, md, Digest(md, message), signature.data(),
                                          signature.size()))
          << name;
    }
  }
}

TEST_F(SignCommandTest, StdinToHexOnStdoutWithAnUppercaseColonThumbprint) {
  std::string thumb = Thumb(rsa_cert_.get());
  std::string colons;
  for (std::size_t i = 0; i < thumb.size(); i += 2) {
    if (i) colons += ':';
    colons += static_cast<char>(std::toupper(thumb[i]));
    colons += static_cast<char>(std::toupper(thumb[i + 1]));
  }
  ToolRun run{{"--dir", Base("b").string(), "sign", colons}};
  run.input = "from stdin";
  const ToolResult result = RunTool(run);
  ASSERT_EQ(result.status, 0) << result.err;
  const std::vector<std::string> lines = Lines(result.out);
  ASSERT_EQ(lines.size(), 1u);
  const Bytes signature = FromHex(lines[0]);
  EXPECT_EQ(signature.size(), 256u);
  EXPECT_TRUE(VerifiesWithCertificate(rsa_cert_.get(), EVP_sha256(),
                                      Digest(EVP_sha256(), "from stdin"), signature.data(),
                                      signature.size()));
  // -q keeps the result and drops the note.
  run.args.insert(run.args.begin(), "-q");
  const ToolResult quiet = RunTool(run);
  EXPECT_EQ(quiet.status, 0);
  EXPECT_EQ(quiet.err, "");
}

TEST_F(SignCommandTest, EncryptedKeyTakesItsPasswordFromEnvOrDescriptor) {
  TestKey key = SharedKey(KeyKind::k_ec, 1);
  TestX509 cert = ClientCert("Locked", key.get());
  WriteFile(Base("locked") / "certs" / "locked.pem", CertToPem(cert.get()));
  WriteFile(Base("locked") / "keys" / "locked.pem.key", KeyToPem(key.get(), "s3cret"));
  const std::vector<std::string> args{"--dir", Base("locked").string(), "sign", Thumb(cert.get())};

  ToolRun env_run{args};
  env_run.args.insert(env_run.args.begin(), {"--password-env", "KEY_PASSWORD"});
  env_run.env["KEY_PASSWORD"] = "s3cret";
  const ToolResult by_env = RunTool(env_run);
  ASSERT_EQ(by_env.status, 0) << by_env.err;
  const Bytes signature = FromHex(Lines(by_env.out).at(0));
  EXPECT_TRUE(VerifiesWithCertificate(cert.get(), EVP_sha256(), Digest(EVP_sha256(), ""),
                                      signature.data(), signature.size()));

  ToolRun fd_run{args};
  fd_run.args.insert(fd_run.args.begin(), {"--password-fd", "3"});
  fd_run.fd3 = "s3cret\n";
  const ToolResult by_fd = RunTool(fd_run);
  EXPECT_EQ(by_fd.status, 0) << by_fd.err;

  fd_run.fd3 = "wrong\n";
  const ToolResult wrong = RunTool(fd_run);
  EXPECT_EQ(wrong.status, 1);
  // The library's code 4 and its parse failure after an answered prompt: a
  // wrong password, said so, with the library's line under it.
  const std::string key_path = (Base("locked") / "keys" / "locked.pem.key").string();
  EXPECT_EQ(ToolLines(wrong.err).back(),
            "x509-auth: signing with Locked failed: wrong password for the key file " + key_path)
      << wrong.err;
  EXPECT_NE(wrong.err.find("  [error] Failed to parse private key file [" + key_path + "]"),
            std::string::npos)
      << wrong.err;
}

TEST_F(SignCommandTest, NoTerminalAndNoSourceSaysWhichPromptWentUnanswered) {
  TestKey key = SharedKey(KeyKind::k_ec, 1);
  TestX509 cert = ClientCert("Locked", key.get());
  WriteFile(Base("locked") / "certs" / "locked.pem", CertToPem(cert.get()));
  const std::string key_path = (Base("locked") / "keys" / "locked.pem.key").string();
  WriteFile(key_path, KeyToPem(key.get(), "s3cret"));
  const ToolResult result = RunTool({"--dir", Base("locked").string(), "sign", Thumb(cert.get())});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("result code 4"), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("the prompt for the password of the key file " + key_path +
                            " went unanswered: there is no terminal to ask on; give "
                            "--password-env VAR or --password-fd N"),
            std::string::npos)
      << result.err;
  // An unset variable is named.
  const ToolResult unset = RunTool({"--password-env", "NO_SUCH_VARIABLE_X", "--dir",
                                    Base("locked").string(), "sign", Thumb(cert.get())});
  EXPECT_EQ(unset.status, 1);
  EXPECT_NE(
      unset.err.find("the environment variable NO_SUCH_VARIABLE_X (--password-env) is not set"),
      std::string::npos)
      << unset.err;
}

TEST_F(SignCommandTest, MissingInputFileAndUnwritableOutputFail) {
  const ToolResult no_input = RunTool({"--dir", Base("b").string(), "sign", Thumb(ec_cert_.get()),
                                       "--in", (temp_ / "absent.txt").string()});
  EXPECT_EQ(no_input.status, 1);
  EXPECT_NE(no_input.err.find("x509-auth: cannot read " + (temp_ / "absent.txt").string()),
            std::string::npos)
      << no_input.err;
  const ToolResult no_output = RunTool({"--dir", Base("b").string(), "sign", Thumb(ec_cert_.get()),
                                        "--out", (temp_ / "no-such-dir" / "sig").string()});
  EXPECT_EQ(no_output.status, 1);
  EXPECT_NE(no_output.err.find("x509-auth: cannot write"), std::string::npos) << no_output.err;
}

TEST_F(SignCommandTest, KeyFileMissingIsResultCodeFourWithItsMeaning) {
  TestKey key = SharedKey(KeyKind::k_ec, 1);
  TestX509 cert = ClientCert("Keyless", key.get());
  InstallFileCert(Base("keyless"), "keyless.pem", cert.get());
  const ToolResult result = RunTool({"--dir", Base("keyless").string(), "sign", Thumb(cert.get())});
  // Offered (nothing checks the key file while listing), but the key cannot be opened.
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(ToolLines(result.err).back(),
            "x509-auth: signing with Keyless failed: result code 4 (the private key could not be "
            "opened (missing key file, wrong password or PIN, or no answer)), detail 1")
      << result.err;
}

}  // namespace
}  // namespace x509auth_test
