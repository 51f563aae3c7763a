// Cases where the tool once answered with silence or a wrong-sounding line:
// base directories that cannot be one, certificates that exist but are not
// offered, doctor's unreadable, duplicate and key states, the KEY column,
// unknown commands, `help`, the option labels and sign --pss.
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <sys/stat.h>

#include "ChildProcess.h"
#include "ToolFixture.h"

namespace x509auth_test {
namespace {

Bytes FromHex(const std::string& hex) {
  Bytes bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
    bytes.push_back(static_cast<unsigned char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  return bytes;
}

class ClearAnswersTest : public ToolTest {
 protected:
  std::string Thumb(X509* cert) const { return HexOf(Sha1Thumbprint(cert)); }
  static const nlohmann::json* At(const nlohmann::json& report, const std::string& path) {
    for (const auto& entry : report)
      if (entry["path"] == path) return &entry;
    return nullptr;
  }
};

TEST_F(ClearAnswersTest, BaseDirectoryThatCannotBeOneIsWarnedAbout) {
  TestKey ec = SharedKey(KeyKind::k_ec, 1);
  TestX509 cert = ClientCert("Present", ec.get());
  InstallFileCert(Base("b"), "present.pem", cert.get(), ec.get());
  WriteFile(Base("file"), std::string("a file\n"));
  const std::string certs = (Base("b") / "certs").string();
  const std::map<std::string, std::string> expected{
      {Base("typo").string(),
       "x509-auth: warning: --dir " + Base("typo").string() + " does not exist"},
      {Base("file").string(), "x509-auth: warning: --dir " + Base("file").string() +
                                  " is not a folder; give the folder that holds certs/ and keys/"},
      {certs, "x509-auth: warning: --dir " + certs +
                  " is a certs folder itself; give the folder above it (" + Base("b").string() +
                  ")"}};
  for (const auto& [dir, warning] : expected) {
    const ToolResult result = RunTool({"--dir", dir, "list"});
    EXPECT_EQ(result.status, 0) << result.err;  // a warning, not a failure
    EXPECT_EQ(result.err, warning + "\n");
    EXPECT_EQ(RunTool({"-q", "--dir", dir, "list"}).err, "");
  }
  // A proper base gets no warning.
  EXPECT_EQ(RunTool({"--dir", Base("b").string(), "list"}).err, "");
}

TEST_F(ClearAnswersTest, CertificateThatExistsButIsNotOfferedIsNamedWithTheReason) {
  TestKey ec = SharedKey(KeyKind::k_ec, 1);
  TestX509 expired = ClientCert("Old One", ec.get(), "20000101000000Z", "20010101000000Z");
  InstallFileCert(Base("b"), "old.pem", expired.get(), ec.get());
  CertOptions server_only;
  server_only.common_name = "Server Only";
  server_only.extended_key_usage = "serverAuth";
  server_only.key_usage = "critical,keyEncipherment";
  TestX509 server = MakeCert(server_only, ec.get());
  InstallFileCert(Base("b"), "server.pem", server.get(), ec.get());
  const std::string old_path = (Base("b") / "certs" / "old.pem").string();
  const std::string server_path = (Base("b") / "certs" / "server.pem").string();
  const std::string dir = Base("b").string();

  const ToolResult chain = RunTool({"--dir", dir, "chain", Thumb(expired.get()).substr(0, 8)});
  EXPECT_EQ(chain.status, 1);
  EXPECT_EQ(chain.err,
            "x509-auth: Old One (" + old_path +
                ") exists but is not offered: chain (certificate has expired (OpenSSL verify "
                "error 10 at depth 0)); expired (not valid after 2001-01-01T00:00:00Z) (see "
                "'x509-auth doctor')\n");
  const std::string server_line = "x509-auth: Server Only (" + server_path +
                                  ") exists but is not offered: key-usage (neither TLS client "
                                  "authentication (extended key usage) nor digital signature (key "
                                  "usage) is allowed) (see 'x509-auth doctor')\n";
  const std::string thumb = Thumb(server.get());
  ToolRun show({"--dir", dir, "show", thumb});
  show.env["DISPLAY"] = ":99";
  show.env["PATH"] = "/bin:/usr/bin";
  for (const ToolRun& run :
       {ToolRun({"--dir", dir, "sign", thumb, "--in", "/dev/null"}),
        ToolRun({"--dir", dir, "decrypt", thumb, "--padding", "oaep", "--in", "/dev/null"}),
        ToolRun({"--dir", dir, "tls", "127.0.0.1:1", "--cert", thumb.substr(0, 10)})}) {
    const ToolResult result = RunTool(run);
    EXPECT_EQ(result.status, 1) << run.args[2];
    EXPECT_EQ(result.err, server_line) << run.args[2];
  }
}

TEST_F(ClearAnswersTest, DoctorSaysDuplicateAndKeyStatesAndListMarksThem) {
  TestKey ec = SharedKey(KeyKind::k_ec, 1);
  TestKey other = SharedKey(KeyKind::k_ec, 2);
  TestX509 twice = ClientCert("Twice", ec.get());
  InstallFileCert(Base("b"), "a.pem", twice.get(), ec.get());
  InstallFileCert(Base("b"), "b.der", twice.get(), ec.get(), /*der=*/true);
  TestX509 keyless = ClientCert("Keyless", ec.get());
  InstallFileCert(Base("b"), "keyless.pem", keyless.get());
  TestX509 mismatch = ClientCert("Mismatch", ec.get());
  InstallFileCert(Base("b"), "mismatch.pem", mismatch.get(), other.get());
  const std::string certs = (Base("b") / "certs").string();

  const ToolResult doctor = RunTool({"--dir", Base("b").string(), "doctor", "--json"});
  ASSERT_EQ(doctor.status, 0) << doctor.err;
  const nlohmann::json report = nlohmann::json::parse(doctor.out);
  const nlohmann::json* second = At(report, certs + "/b.der");
  ASSERT_NE(second, nullptr) << doctor.out;
  EXPECT_EQ((*second)["reasons"], std::vector<std::string>{"duplicate"});
  EXPECT_EQ((*second)["details"]["duplicate"],
            "the same certificate as " + certs + "/a.pem, which sign, decrypt and tls use");
  EXPECT_EQ((*At(report, certs + "/a.pem"))["reasons"], std::vector<std::string>{});
  EXPECT_EQ((*At(report, certs + "/keyless.pem"))["reasons"],
            std::vector<std::string>{"key-missing"});
  EXPECT_EQ((*At(report, certs + "/mismatch.pem"))["reasons"],
            std::vector<std::string>{"key-mismatch"});

  // The table lists the certificate once, says so, and marks the keys.
  const ToolResult list = RunTool({"--dir", Base("b").string(), "list"});
  ASSERT_EQ(list.status, 0) << list.err;
  std::size_t twice_rows = 0;
  for (const std::string& line : Lines(list.out)) {
    twice_rows += line.find("Twice") != std::string::npos ? 1 : 0;
    if (line.find("Keyless") != std::string::npos) {
      EXPECT_NE(line.find("ec (no key file)"), std::string::npos) << line;
    }
    if (line.find("Mismatch") != std::string::npos) {
      EXPECT_NE(line.find("ec (key mismatch)"), std::string::npos) << line;
    }
  }
  EXPECT_EQ(twice_rows, 1u) << list.out;
  EXPECT_EQ(list.err,
            "x509-auth: warning: 1 certificate is found more than once and listed once; 'x509-auth "
            "doctor' shows where\n");
  // The same base twice is the same thing.
  const ToolResult again =
      RunTool({"--dir", Base("b").string(), "--dir", Base("b").string(), "doctor"});
  EXPECT_NE(again.out.find("duplicate: the same certificate as " + certs + "/a.pem"),
            std::string::npos)
      << again.out;
}

TEST_F(ClearAnswersTest, DoctorSaysUnreadableWithTheSystemsReason) {
  // Root reads anything: the tool runs as nobody, on material nobody owns
  // except for what it must not read.
  TestKey ec = SharedKey(KeyKind::k_ec, 1);
  TestX509 cert = ClientCert("Hidden", ec.get());
  InstallFileCert(Base("b"), "hidden.pem", cert.get(), ec.get());
  InstallFileCert(Base("c"), "c.pem", cert.get(), ec.get());
  for (const auto& path : {temp_.path(), Base("b"), Base("b") / "certs", Base("b") / "keys",
                           Base("c"), Base("c") / "certs"})
    chmod(path.c_str(), 0755);
  chmod((Base("b") / "certs" / "hidden.pem").c_str(), 0600);  // root's, unreadable to nobody
  chmod((Base("c") / "certs").c_str(), 0700);                 // a folder nobody cannot list
  ChildRun run;
  run.argv = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534",
              "--clear-groups",   ToolPath(),      "--dir",
              Base("b").string(), "--dir",         Base("c").string(),
              "doctor",           "--json"};
  run.cwd = "/";
  run.env["HOME"] = "/nonexistent";
  run.limit = std::chrono::seconds(60);
  const ChildResult result = RunChild(run);
  ASSERT_EQ(result.status, 0) << result.err;
  const nlohmann::json report = nlohmann::json::parse(result.out);
  const nlohmann::json* file = At(report, (Base("b") / "certs" / "hidden.pem").string());
  ASSERT_NE(file, nullptr) << result.out;
  EXPECT_EQ((*file)["reasons"], std::vector<std::string>{"unreadable"});
  EXPECT_EQ((*file)["details"]["unreadable"], "Permission denied");
  const nlohmann::json* folder = At(report, (Base("c") / "certs").string());
  ASSERT_NE(folder, nullptr) << result.out;
  EXPECT_EQ((*folder)["reasons"], std::vector<std::string>{"unreadable"});
  EXPECT_EQ((*folder)["details"]["unreadable"], "Permission denied");
}

TEST_F(ClearAnswersTest, UnknownCommandsHelpAndOptionLabels) {
  const ToolResult typo = RunTool({"lst"});
  EXPECT_EQ(typo.status, 2);
  EXPECT_EQ(typo.err,
            "x509-auth: unknown command 'lst' (did you mean 'list'?); the commands are listed by "
            "'x509-auth --help'\n");
  const ToolResult help = RunTool({"help"});
  EXPECT_EQ(help.status, 0) << help.err;
  EXPECT_EQ(help.out, RunTool({"--help"}).out);
  const ToolResult help_sign = RunTool({"help", "sign"});
  EXPECT_EQ(help_sign.status, 0);
  EXPECT_EQ(help_sign.out, RunTool({"sign", "--help"}).out);
  EXPECT_EQ(RunTool({"help", "sing"}).err.find("did you mean 'sign'?") != std::string::npos, true);

  // The labels are what the user types, without CLI11's validator names.
  for (const std::vector<std::string>& args : {std::vector<std::string>{"--help"},
                                               {"tls", "--help"},
                                               {"sign", "--help"},
                                               {"chain", "--help"}}) {
    const std::string text = RunTool(args).out;
    for (const char* noise :
         {"Excludes:", ":FILE", ":NONNEGATIVE", ":POSITIVE", ":THUMBPRINT", "TEXT:{"})
      EXPECT_EQ(text.find(noise), std::string::npos) << noise << " in\n" << text;
  }
  EXPECT_NE(RunTool({"--help"}).out.find("--timeout"), std::string::npos);
  EXPECT_NE(RunTool({"--help"}).out.find("130"), std::string::npos);  // the exit-status table

  const ToolResult negative = RunTool({"--pin-fd", "-1", "list"});
  EXPECT_EQ(negative.status, 2);
  EXPECT_EQ(negative.err,
            "x509-auth: --pin-fd: not a file descriptor number: -1 (0, 1, 2, ...) (see 'x509-auth "
            "--help')\n");
}

TEST_F(ClearAnswersTest, SignPssIsVerifiedWithThePublicKeyAndRefusedForEc) {
  TestKey rsa = SharedKey(KeyKind::k_rsa, 1);
  TestX509 cert = ClientCert("PSS Signer", rsa.get());
  InstallFileCert(Base("b"), "rsa.pem", cert.get(), rsa.get());
  ToolRun run(
      {"--dir", Base("b").string(), "sign", Thumb(cert.get()), "--pss", "--hash", "sha384"});
  run.input = "pss message";
  const ToolResult result = RunTool(run);
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err,
            "x509-auth: 256-byte RSA-PSS signature over the sha384 digest, verified with the "
            "certificate's public key\n");
  const Bytes signature = FromHex(Lines(result.out).at(0));
  Bytes digest(48);
  EVP_Digest("pss message", 11, digest.data(), nullptr, EVP_sha384(), nullptr);
  EVP_PKEY* key = X509_get0_pubkey(cert.get());
  const EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new(key, nullptr));
  ASSERT_EQ(EVP_PKEY_verify_init(ctx.get()), 1);
  EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PSS_PADDING);
  EVP_PKEY_CTX_set_signature_md(ctx.get(), EVP_sha384());
  EVP_PKEY_CTX_set_rsa_pss_saltlen(ctx.get(), RSA_PSS_SALTLEN_DIGEST);
  EXPECT_EQ(
      EVP_PKEY_verify(ctx.get(), signature.data(), signature.size(), digest.data(), digest.size()),
      1);

  TestKey ec = SharedKey(KeyKind::k_ec, 1);
  TestX509 ec_cert = ClientCert("EC Signer", ec.get());
  InstallFileCert(Base("b"), "ec.pem", ec_cert.get(), ec.get());
  const ToolResult refused = RunTool(
      {"--dir", Base("b").string(), "sign", Thumb(ec_cert.get()), "--pss", "--in", "/dev/null"});
  EXPECT_EQ(refused.status, 2);
  EXPECT_EQ(refused.err, "x509-auth: --pss is for RSA keys; EC Signer has an ec key\n");
}

}  // namespace
}  // namespace x509auth_test
