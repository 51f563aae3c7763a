// `x509-auth doctor`: every reason on generated material, the key states,
// TLS readiness, a token certificate, and agreement with `list`.
#include <sys/stat.h>

#include <algorithm>

#include "SoftHsmToken.h"
#include "ToolFixture.h"

namespace x509auth_test {
namespace {

class DoctorCommandTest : public ToolTest {
 protected:
  // The doctor's JSON entry for |path| (or token label), or null.
  static const nlohmann::json* Entry(const nlohmann::json& report, const std::string& key,
                                     const std::string& value) {
    for (const auto& entry : report)
      if (entry[key] == value) return &entry;
    return nullptr;
  }
  static nlohmann::json Doctor(std::vector<std::string> args) {
    args.insert(args.end(), {"doctor", "--json"});
    const ToolResult result = RunTool(args);
    EXPECT_EQ(result.status, 0) << result.err;
    return nlohmann::json::parse(result.out);
  }
  // Offered thumbprints of a doctor report, sorted, against `list`'s.
  static void ExpectAgreement(const nlohmann::json& report, const nlohmann::json& listed) {
    std::vector<std::string> offered, list;
    for (const auto& entry : report)
      if (entry["offered"] == true) offered.push_back(entry["thumbprint"]);
    for (const auto& entry : listed) list.push_back(entry["thumbprint"]);
    std::sort(offered.begin(), offered.end());
    std::sort(list.begin(), list.end());
    EXPECT_EQ(offered, list);
  }
};

TEST_F(DoctorCommandTest, EveryReasonAndKeyStateOnGeneratedMaterialAgreesWithList) {
  const std::filesystem::path base = Base("b");
  const std::filesystem::path certs = base / "certs", keys = base / "keys";
  TestKey rsa = SharedKey(KeyKind::k_rsa, 0);
  TestKey ec = SharedKey(KeyKind::k_ec, 0);
  TestKey other_ec = SharedKey(KeyKind::k_ec, 1);

  // Offered, with each key state.
  TestX509 plain = ClientCert("Plain RSA", rsa.get());
  InstallFileCert(base, "plain.pem", plain.get(), rsa.get());
  TestX509 encrypted = ClientCert("Encrypted EC", ec.get());
  WriteFile(certs / "encrypted.pem", CertToPem(encrypted.get()));
  WriteFile(keys / "encrypted.pem.key", KeyToPem(ec.get(), "pw"));
  TestX509 encrypted_der = ClientCert("Encrypted DER", ec.get());
  WriteFile(certs / "encrypted.der", CertToDer(encrypted_der.get()));
  WriteFile(keys / "encrypted.der.key", KeyToEncryptedDer(ec.get(), "pw"));
  TestX509 traditional = ClientCert("Traditional", ec.get());
  WriteFile(certs / "traditional.pem", CertToPem(traditional.get()));
  WriteFile(keys / "traditional.pem.key", KeyToTraditionalPem(ec.get(), "pw"));
  TestX509 missing = ClientCert("Missing Key", ec.get());
  WriteFile(certs / "missing.pem", CertToPem(missing.get()));
  TestX509 garbage = ClientCert("Garbage Key", ec.get());
  WriteFile(certs / "garbage.pem", CertToPem(garbage.get()));
  WriteFile(keys / "garbage.pem.key", std::string("not a key\n"));
  TestX509 mismatch = ClientCert("Wrong Key", ec.get());
  WriteFile(certs / "mismatch.pem", CertToPem(mismatch.get()));
  WriteFile(keys / "mismatch.pem.key", KeyToPem(other_ec.get()));

  // Not offered, for each reason.
  WriteFile(certs / "notes.txt", std::string("just text\n"));
  std::filesystem::create_directories(certs / "subdirectory");
  CertOptions server_only;
  server_only.common_name = "Server Only";
  server_only.extended_key_usage = "serverAuth";
  server_only.key_usage = "critical,keyEncipherment";
  TestX509 server = MakeCert(server_only, ec.get());
  InstallFileCert(base, "server.pem", server.get(), ec.get());
  Chain unknown_ca = MakeChain(KeyKind::k_ec, "Unknown Issuer");
  InstallFileCert(base, "orphan.pem", unknown_ca.leaf.get(), unknown_ca.leaf_key.get());
  TestX509 expired = ClientCert("Expired", ec.get(), "20000101000000Z", "20010101000000Z");
  InstallFileCert(base, "expired.pem", expired.get(), ec.get());
  TestX509 future = ClientCert("Future", ec.get(), "20990101000000Z", "20991231000000Z");
  InstallFileCert(base, "future.pem", future.get(), ec.get());

  const std::vector<std::string> dirs{"--dir", base.string(), "--dir", Base("absent").string()};
  const nlohmann::json report = Doctor(dirs);
  ASSERT_EQ(report.size(), 14u) << report.dump(2);
  auto at = [&](const std::string& file) -> const nlohmann::json& {
    const nlohmann::json* entry = Entry(report, "path", (certs / file).string());
    EXPECT_NE(entry, nullptr) << file;
    static const nlohmann::json none;
    return entry ? *entry : none;
  };
  using Strings = std::vector<std::string>;

  EXPECT_EQ(at("plain.pem")["offered"], true);
  EXPECT_EQ(at("plain.pem")["subject"], "Plain RSA");
  EXPECT_EQ(at("plain.pem")["thumbprint"], HexOf(Sha1Thumbprint(plain.get())));
  EXPECT_EQ(at("plain.pem")["key"], "plain");
  EXPECT_EQ(at("plain.pem")["key_path"], (keys / "plain.pem.key").string());
  // A key file signs RSA-PSS too: TLS 1.3 is open to RSA file keys.
  EXPECT_EQ(at("plain.pem")["tls"], (Strings{"tls1.2", "tls1.3"}));
  EXPECT_EQ(at("plain.pem")["tls_note"], "");
  EXPECT_EQ(at("encrypted.pem")["key"], "encrypted");
  EXPECT_EQ(at("encrypted.pem")["tls"], (Strings{"tls1.2", "tls1.3"}));
  EXPECT_EQ(at("encrypted.der")["key"], "encrypted");
  EXPECT_EQ(at("traditional.pem")["key"], "encrypted");
  EXPECT_EQ(at("missing.pem")["key"], "missing");
  EXPECT_EQ(at("missing.pem")["offered"], true);  // the library offers it all the same
  EXPECT_EQ(at("missing.pem")["tls"], Strings{});
  EXPECT_EQ(at("garbage.pem")["key"], "unreadable");
  EXPECT_EQ(at("mismatch.pem")["key"], "does-not-match");
  for (const char* file : {"plain.pem", "encrypted.pem"})
    EXPECT_EQ(at(file)["reasons"], Strings{}) << file;
  // Offered, but their keys cannot serve: said so.
  EXPECT_EQ(at("missing.pem")["reasons"], Strings{"key-missing"});
  EXPECT_EQ(at("mismatch.pem")["reasons"], Strings{"key-mismatch"});

  EXPECT_EQ(at("notes.txt")["offered"], false);
  EXPECT_EQ(at("notes.txt")["reasons"], Strings{"not-a-certificate"});
  EXPECT_EQ(at("subdirectory")["reasons"], Strings{"not-a-certificate"});
  EXPECT_EQ(at("subdirectory")["details"]["not-a-certificate"], "not a regular file");
  EXPECT_EQ(at("server.pem")["offered"], false);
  EXPECT_EQ(at("server.pem")["reasons"], Strings{"key-usage"});
  EXPECT_EQ(at("orphan.pem")["offered"], false);
  EXPECT_EQ(at("orphan.pem")["reasons"], Strings{"chain"});
  EXPECT_EQ(at("orphan.pem")["details"]["chain"],
            "unable to get local issuer certificate (OpenSSL verify error 20 at depth 0)");
  EXPECT_EQ(at("expired.pem")["offered"], false);
  EXPECT_EQ(at("expired.pem")["reasons"], (Strings{"chain", "expired"}));
  EXPECT_EQ(at("expired.pem")["details"]["chain"],
            "certificate has expired (OpenSSL verify error 10 at depth 0)");
  EXPECT_EQ(at("future.pem")["reasons"], (Strings{"chain", "not-yet-valid"}));
  EXPECT_EQ(at("future.pem")["details"]["chain"],
            "certificate is not yet valid (OpenSSL verify error 9 at depth 0)");
  const nlohmann::json* absent = Entry(report, "path", (Base("absent") / "certs").string());
  ASSERT_NE(absent, nullptr);
  EXPECT_EQ((*absent)["kind"], "directory");
  EXPECT_EQ((*absent)["reasons"], Strings{"no-certs-directory"});

  ExpectAgreement(report, ListJson(dirs));

  // Adding the unknown CA makes the orphan's chain, and doctor and list move together.
  WriteFile(temp_ / "ca.pem", CertToPem(unknown_ca.root.get()));
  WriteFile(temp_ / "intermediate.pem", CertToPem(unknown_ca.intermediate.get()));
  std::vector<std::string> with_ca = dirs;
  with_ca.insert(with_ca.end(), {"--add-ca", (temp_ / "ca.pem").string(), "--add-ca",
                                 (temp_ / "intermediate.pem").string()});
  const nlohmann::json fixed = Doctor(with_ca);
  const nlohmann::json* orphan = Entry(fixed, "path", (certs / "orphan.pem").string());
  ASSERT_NE(orphan, nullptr);
  EXPECT_EQ((*orphan)["offered"], true);
  ExpectAgreement(fixed, ListJson(with_ca));
}

TEST_F(DoctorCommandTest, HumanReportNamesEachEntryItsReasonsAndASummary) {
  TestKey ec = SharedKey(KeyKind::k_ec, 0);
  TestX509 good = ClientCert("Good One", ec.get());
  InstallFileCert(Base("b"), "good.pem", good.get(), ec.get());
  WriteFile(Base("b") / "certs" / "readme.txt", std::string("hello\n"));
  const ToolResult result = RunTool({"--dir", Base("b").string(), "doctor"});
  ASSERT_EQ(result.status, 0) << result.err;
  const std::string good_path = (Base("b") / "certs" / "good.pem").string();
  const std::string readme_path = (Base("b") / "certs" / "readme.txt").string();
  EXPECT_EQ(Lines(result.out),
            (std::vector<std::string>{
                good_path,
                "  subject     Good One",
                "  thumbprint  " + HexOf(Sha1Thumbprint(good.get())),
                "  offered     yes",
                "  key         plain  " + (Base("b") / "keys" / "good.pem.key").string(),
                "  tls         tls1.2, tls1.3",
                readme_path,
                "  offered     no",
                "  reasons     not-a-certificate: neither a PEM nor a DER certificate",
                "  tls         not offered",
                "2 entries, 1 offered, 1 not offered",
            }));
  // The library's own error lines are doctor's reasons; raw, they come with -v.
  EXPECT_EQ(result.err.find("[error]"), std::string::npos) << result.err;
}

TEST_F(DoctorCommandTest, TokenCertificatesAreReportedAndAgreeWithList) {
  X509AUTH_SKIP_WITHOUT_SOFTHSM2();
  SoftHsmToken hsm;
  hsm.InitToken("Doctor Card");
  TestKey rsa = SharedKey(KeyKind::k_rsa, 1);
  TestKey ec = SharedKey(KeyKind::k_ec, 1);
  TestX509 card_rsa = ClientCert("Card RSA", rsa.get());
  CertOptions server_only;
  server_only.common_name = "Card Server Only";
  server_only.extended_key_usage = "serverAuth";
  server_only.key_usage = "critical,keyEncipherment";
  TestX509 card_server = MakeCert(server_only, ec.get());
  hsm.ImportCertAndKey("Doctor Card", card_rsa.get(), rsa.get(), "01", "rsa");
  hsm.ImportCertAndKey("Doctor Card", card_server.get(), ec.get(), "02", "server");
  const std::vector<std::string> args{"--module", SoftHsmToken::ModulePath().string()};

  const nlohmann::json report = Doctor(args);
  const nlohmann::json* rsa_entry = Entry(report, "subject", "Card RSA");
  const nlohmann::json* server_entry = Entry(report, "subject", "Card Server Only");
  ASSERT_NE(rsa_entry, nullptr) << report.dump(2);
  ASSERT_NE(server_entry, nullptr) << report.dump(2);
  EXPECT_EQ((*rsa_entry)["kind"], "smartcard");  // as list's source says
  EXPECT_EQ((*rsa_entry)["token"], "Doctor Card");
  EXPECT_EQ((*rsa_entry)["offered"], true);
  EXPECT_EQ((*rsa_entry)["key"], "token");
  // SoftHSM2 has CKM_RSA_PKCS_PSS: ready for TLS 1.3.
  EXPECT_EQ((*rsa_entry)["tls"], (std::vector<std::string>{"tls1.2", "tls1.3"}));
  EXPECT_EQ((*server_entry)["offered"], false);
  EXPECT_EQ((*server_entry)["reasons"], std::vector<std::string>{"key-usage"});
  ExpectAgreement(report, ListJson(args));
}

TEST_F(DoctorCommandTest, KeyFileOpenToOthersIsAWarningInTheReportAndTheJson) {
  TestKey ec = SharedKey(KeyKind::k_ec, 0);
  TestX509 open_key = ClientCert("Open Key", ec.get());
  TestX509 closed_key = ClientCert("Closed Key", ec.get());
  InstallFileCert(Base("b"), "open.pem", open_key.get(), ec.get());
  InstallFileCert(Base("b"), "closed.pem", closed_key.get(), ec.get());
  const std::string key_path = (Base("b") / "keys" / "open.pem.key").string();
  chmod(key_path.c_str(), 0640);
  const std::string warning = "the key file " + key_path +
                              " is open to its group or others (mode 0640); ssh refuses such a "
                              "key: chmod 600 " +
                              key_path;

  const nlohmann::json report = Doctor({"--dir", Base("b").string()});
  const nlohmann::json* open = Entry(report, "subject", "Open Key");
  const nlohmann::json* closed = Entry(report, "subject", "Closed Key");
  ASSERT_NE(open, nullptr) << report.dump(2);
  ASSERT_NE(closed, nullptr) << report.dump(2);
  EXPECT_EQ((*open)["warnings"], std::vector<std::string>{"key-file-open"});
  EXPECT_EQ((*open)["details"]["key-file-open"], warning);
  EXPECT_EQ((*open)["offered"], true);  // a warning, not a reason
  EXPECT_EQ((*open)["reasons"], std::vector<std::string>{});
  EXPECT_EQ((*closed)["warnings"], std::vector<std::string>{});

  const ToolResult human = RunTool({"--dir", Base("b").string(), "doctor"});
  ASSERT_EQ(human.status, 0) << human.err;
  const std::vector<std::string> lines = Lines(human.out);
  EXPECT_NE(std::find(lines.begin(), lines.end(), "  warning     key-file-open: " + warning),
            lines.end())
      << human.out;
  EXPECT_EQ(lines.back(), "2 entries, 2 offered, 0 not offered, 1 warning");

  // list and sign say it once on stderr; their output stays as it was.
  const std::string thumb = HexOf(Sha1Thumbprint(open_key.get()));
  for (const std::vector<std::string>& command : {std::vector<std::string>{"list"},
                                                  {"list", "--json"},
                                                  {"sign", thumb, "--in", "/dev/null"}}) {
    std::vector<std::string> args{"--dir", Base("b").string()};
    args.insert(args.end(), command.begin(), command.end());
    const ToolResult result = RunTool(args);
    EXPECT_EQ(result.status, 0) << result.err;
    const std::vector<std::string> tool_lines = ToolLines(result.err);
    EXPECT_EQ(std::count(tool_lines.begin(), tool_lines.end(), "x509-auth: warning: " + warning), 1)
        << command.front() << ": " << result.err;
  }
  // The closed key's certificate is signed with without a warning.
  const ToolResult quiet_sign =
      RunTool({"--dir", Base("b").string(), "sign", HexOf(Sha1Thumbprint(closed_key.get())), "--in",
               "/dev/null"});
  EXPECT_EQ(quiet_sign.status, 0) << quiet_sign.err;
  EXPECT_EQ(quiet_sign.err.find("warning"), std::string::npos) << quiet_sign.err;
}

TEST_F(DoctorCommandTest, CertsOrKeysFolderWritableByOthersIsAWarning) {
  TestKey ec = SharedKey(KeyKind::k_ec, 0);
  TestX509 cert = ClientCert("In Open Folder", ec.get());
  InstallFileCert(Base("b"), "cert.pem", cert.get(), ec.get());
  const std::filesystem::path certs = Base("b") / "certs", keys = Base("b") / "keys";
  chmod(certs.c_str(), 0777);
  chmod(keys.c_str(), 0770);

  const nlohmann::json report = Doctor({"--dir", Base("b").string()});
  const nlohmann::json* certs_entry = Entry(report, "path", certs.string());
  const nlohmann::json* keys_entry = Entry(report, "path", keys.string());
  ASSERT_NE(certs_entry, nullptr) << report.dump(2);
  ASSERT_NE(keys_entry, nullptr) << report.dump(2);
  EXPECT_EQ((*certs_entry)["kind"], "directory");
  EXPECT_EQ((*certs_entry)["warnings"], std::vector<std::string>{"writable-folder"});
  EXPECT_EQ((*certs_entry)["reasons"], std::vector<std::string>{});
  EXPECT_EQ((*certs_entry)["details"]["writable-folder"],
            certs.string() +
                " can be written by its group or others (mode 0777): they can plant or replace "
                "certificates there: chmod go-w " +
                certs.string());
  EXPECT_EQ((*keys_entry)["details"]["writable-folder"],
            keys.string() +
                " can be written by its group or others (mode 0770): they can plant or replace "
                "keys there: chmod go-w " +
                keys.string());
  // The certificate itself is still reported, and offered.
  const nlohmann::json* entry = Entry(report, "subject", "In Open Folder");
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ((*entry)["offered"], true);

  const ToolResult human = RunTool({"--dir", Base("b").string(), "doctor"});
  ASSERT_EQ(human.status, 0) << human.err;
  const std::vector<std::string> lines = Lines(human.out);
  const auto at = std::find(lines.begin(), lines.end(), certs.string());
  ASSERT_NE(at, lines.end()) << human.out;
  ASSERT_NE(at + 1, lines.end());
  EXPECT_EQ(at[1].rfind("  warning     writable-folder: " + certs.string() + " can be written", 0),
            0u)
      << human.out;
  // Folders with a warning are no entries of their own in the count.
  EXPECT_EQ(lines.back(), "1 entry, 1 offered, 0 not offered, 2 warnings");

  // Without group or other write bits there is nothing to say.
  chmod(certs.c_str(), 0755);
  chmod(keys.c_str(), 0700);
  const nlohmann::json fixed = Doctor({"--dir", Base("b").string()});
  EXPECT_EQ(fixed.size(), 1u) << fixed.dump(2);
}

TEST_F(DoctorCommandTest, LoopingLinkThatEndsTheLibrarysScanIsNamedAndLaterEntriesAreNotScanned) {
  // The library's scan of a certs folder ends at an entry whose status
  // cannot be taken. The folder's own order decides what comes after it;
  // certificates are written before and after the link until some come
  // before it in that order and some after.
  TestKey ec = SharedKey(KeyKind::k_ec, 0);
  const std::filesystem::path certs = Base("b") / "certs";
  std::vector<TestX509> made;
  std::vector<std::string> before, after;
  for (int i = 0; i < 64 && (i < 3 || before.empty() || after.empty()); ++i) {
    if (i == 2) std::filesystem::create_symlink("loop", certs / "loop");
    const std::string name = "cert" + std::to_string(i) + ".pem";
    made.push_back(ClientCert("Valid " + std::to_string(i), ec.get()));
    InstallFileCert(Base("b"), name, made.back().get(), ec.get());
    bool seen_loop = false;
    before.clear();
    after.clear();
    for (const auto& entry : std::filesystem::directory_iterator(certs)) {
      const std::string file = entry.path().filename().string();
      if (file == "loop")
        seen_loop = true;
      else
        (seen_loop ? after : before).push_back(file);
    }
  }
  ASSERT_FALSE(after.empty()) << "no certificate after the link in the folder's order";

  const nlohmann::json report = Doctor({"--dir", Base("b").string()});
  const std::string stop =
      "the scan of " + certs.string() + " stopped at loop: Too many levels of symbolic links";
  const nlohmann::json* loop = Entry(report, "path", (certs / "loop").string());
  ASSERT_NE(loop, nullptr) << report.dump(2);
  EXPECT_EQ((*loop)["reasons"], std::vector<std::string>{"scan-stopped"});
  EXPECT_EQ((*loop)["details"]["scan-stopped"],
            "its status cannot be taken (Too many levels of symbolic links), so the library's "
            "scan of " +
                certs.string() + " ends here: the entries after it are not scanned");
  for (const std::string& file : after) {
    const nlohmann::json* entry = Entry(report, "path", (certs / file).string());
    ASSERT_NE(entry, nullptr) << file;
    EXPECT_EQ((*entry)["offered"], false) << file;
    EXPECT_EQ((*entry)["reasons"], std::vector<std::string>{"not-scanned"}) << file;
    EXPECT_EQ((*entry)["details"]["not-scanned"], stop) << file;
  }
  for (const std::string& file : before) {
    const nlohmann::json* entry = Entry(report, "path", (certs / file).string());
    ASSERT_NE(entry, nullptr) << file;
    EXPECT_EQ((*entry)["offered"], true) << file;
  }
  // Nothing is called "not a certificate", and doctor agrees with list.
  EXPECT_EQ(report.dump().find("not-a-certificate"), std::string::npos) << report.dump(2);
  ExpectAgreement(report, ListJson({"--dir", Base("b").string()}));

  const ToolResult human = RunTool({"--dir", Base("b").string(), "doctor"});
  ASSERT_EQ(human.status, 0) << human.err;
  EXPECT_NE(human.out.find("  reasons     not-scanned: " + stop + "\n"), std::string::npos)
      << human.out;
}

}  // namespace
}  // namespace x509auth_test
