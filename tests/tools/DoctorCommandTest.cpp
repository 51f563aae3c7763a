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

}  // namespace
}  // namespace x509auth_test
