// The command line itself: usage errors exit with 2 and one line, --help
// for the tool and each command, --version, thumbprint arguments (format,
// unknown and ambiguous prefixes), global options after the command, and
// the log verbosity.
#include <map>

#include "ToolFixture.h"

namespace x509auth_test {
namespace {

class CommandLineTest : public ToolTest {};

TEST_F(CommandLineTest, UsageErrorsExitWithTwoAndOneLine) {
  const std::vector<std::vector<std::string>> cases{
      {},
      {"frobnicate"},
      {"list", "--no-such-option"},
      {"sign"},
      {"sign", "abc"},
      {"sign", "0123456789abcdef0123456789abcdef012345678"},  // 41 digits
      {"sign", "xyzxyzxyz"},
      {"sign", "aabbccdd", "--hash", "md5"},
      {"chain"},
      {"--pin-env", "A", "--pin-fd", "3", "list"},
      {"--pin-fd", "-1", "list"},
      {"--module", "/no/such/module.so", "list"},
      {"-v", "-q", "list"},
  };
  for (const auto& args : cases) {
    const ToolResult result = RunTool(args);
    std::string shown;
    for (const auto& arg : args) shown += arg + " ";
    EXPECT_EQ(result.status, 2) << shown << "\n" << result.err;
    EXPECT_EQ(Lines(result.err).size(), 1u) << shown << "\n" << result.err;
    EXPECT_EQ(result.err.rfind("x509-auth: ", 0), 0u) << shown << "\n" << result.err;
    EXPECT_EQ(result.out, "") << shown;
  }
  EXPECT_NE(RunTool({"sign", "abc"}).err.find("not a thumbprint: \"abc\""), std::string::npos);
}

TEST_F(CommandLineTest, HelpForTheToolAndEveryCommandExitsWithZero) {
  const ToolResult tool = RunTool({"--help"});
  EXPECT_EQ(tool.status, 0);
  for (const char* section : {"EXIT STATUS",
                              "THUMBPRINT",
                              "PINS AND PASSWORDS",
                              "SMART CARDS",
                              "COMMANDS",
                              "DOCTOR",
                              "not-a-certificate",
                              "key-usage",
                              "no-certs-directory",
                              "does-not-match",
                              "RSA-PSS",
                              "list",
                              "chain",
                              "sign",
                              "decrypt",
                              "show",
                              "doctor",
                              "--pin-env",
                              "--module",
                              "--add-ca"})
    EXPECT_NE(tool.out.find(section), std::string::npos) << section;
  const std::map<std::string, std::string> commands{
      {"list", "--json"},       {"chain", "--pem"},     {"sign", "--hash"},
      {"decrypt", "--padding"}, {"show", "THUMBPRINT"}, {"doctor", "--json"}};
  for (const auto& [command, option] : commands) {
    const ToolResult result = RunTool({command, "--help"});
    EXPECT_EQ(result.status, 0) << command;
    EXPECT_NE(result.out.find("x509-auth " + command), std::string::npos) << result.out;
    EXPECT_NE(result.out.find(option), std::string::npos) << result.out;
    // The tool's manual stays with the tool's --help.
    EXPECT_EQ(result.out.find("EXIT STATUS"), std::string::npos) << result.out;
  }
}

TEST_F(CommandLineTest, VersionNamesToolAndLibraryApiVersion) {
  const ToolResult result = RunTool({"--version"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "x509-auth 3.0.0, libx509auth API version " +
                            std::to_string(X509_Auth_GetApiVersion()) + "\n");
}

TEST_F(CommandLineTest, GlobalOptionsWorkAfterTheCommandToo) {
  TestKey ec = SharedKey(KeyKind::k_ec, 0);
  TestX509 cert = ClientCert("After", ec.get());
  InstallFileCert(Base("b"), "after.pem", cert.get(), ec.get());
  const ToolResult result = RunTool({"list", "--json", "--dir", Base("b").string()});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(nlohmann::json::parse(result.out).at(0)["subject"], "After");
}

TEST_F(CommandLineTest, UnknownPrefixFailsAndListsTheOfferedCertificates) {
  TestKey ec = SharedKey(KeyKind::k_ec, 0);
  TestX509 cert = ClientCert("Only One", ec.get());
  InstallFileCert(Base("b"), "one.pem", cert.get(), ec.get());
  const std::string thumb = HexOf(Sha1Thumbprint(cert.get()));
  const std::string other = thumb[0] == '0' ? "111111" : "000000";
  const ToolResult result = RunTool({"--dir", Base("b").string(), "chain", other});
  EXPECT_EQ(result.status, 1);
  const std::vector<std::string> lines = Lines(result.err);
  ASSERT_EQ(lines.size(), 2u) << result.err;
  EXPECT_EQ(lines[0], "x509-auth: no offered certificate has the thumbprint " + other +
                          "; the offered ones are:");
  EXPECT_EQ(lines[1], "  " + thumb + "  Only One");
}

TEST_F(CommandLineTest, AmbiguousPrefixFailsAndListsBothCandidates) {
  // Certificates differing only in name and serial until two thumbprints
  // share their first six digits (about 5000 on average: a birthday
  // collision in 24 bits). One certificate object is renamed and re-signed
  // each round, which keeps this fast under the sanitizers too.
  TestKey ec = SharedKey(KeyKind::k_ec, 0);
  TestX509 cert = ClientCert("Twin", ec.get());
  std::map<std::string, Bytes> by_prefix;
  Bytes first_der, second_der;
  std::string prefix;
  for (long serial = 1; serial < 200000 && second_der.empty(); ++serial) {
    const std::string name = "Twin " + std::to_string(serial);
    X509_NAME* subject = X509_get_subject_name(cert.get());
    X509_NAME_ENTRY_free(X509_NAME_delete_entry(subject, 0));
    X509_NAME_add_entry_by_NID(subject, NID_commonName, MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0);
    X509_set_issuer_name(cert.get(), subject);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial);
    ASSERT_GT(X509_sign(cert.get(), ec.get(), EVP_sha256()), 0);
    Bytes der = CertToDer(cert.get());
    unsigned char sha1[20];
    EVP_Digest(der.data(), der.size(), sha1, nullptr, EVP_sha1(), nullptr);
    prefix = HexOf(sha1, 3);
    auto found = by_prefix.find(prefix);
    if (found != by_prefix.end()) {
      first_der = std::move(found->second);
      second_der = std::move(der);
    } else {
      by_prefix.emplace(prefix, std::move(der));
    }
  }
  ASSERT_FALSE(second_der.empty());
  const unsigned char* cursor = first_der.data();
  TestX509 first(d2i_X509(nullptr, &cursor, static_cast<long>(first_der.size())));
  cursor = second_der.data();
  TestX509 second(d2i_X509(nullptr, &cursor, static_cast<long>(second_der.size())));
  ASSERT_TRUE(first && second);
  InstallFileCert(Base("b"), "first.der", first.get(), ec.get(), /*der=*/true);
  InstallFileCert(Base("b"), "second.der", second.get(), ec.get(), /*der=*/true);

  const ToolResult result = RunTool({"--dir", Base("b").string(), "sign", prefix});
  EXPECT_EQ(result.status, 1);
  const std::vector<std::string> lines = Lines(result.err);
  ASSERT_EQ(lines.size(), 3u) << result.err;
  EXPECT_EQ(lines[0], "x509-auth: the thumbprint prefix " + prefix +
                          " is ambiguous: it matches 2 certificates");
  std::vector<std::string> candidates{lines[1], lines[2]};
  std::sort(candidates.begin(), candidates.end());
  std::vector<std::string> expected{
      "  " + HexOf(Sha1Thumbprint(first.get())) + "  " + CommonNameOf(first.get()),
      "  " + HexOf(Sha1Thumbprint(second.get())) + "  " + CommonNameOf(second.get())};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(candidates, expected);
  // One digit more picks exactly one of them.
  const std::string longer = HexOf(Sha1Thumbprint(first.get())).substr(0, 12);
  const ToolResult picked = RunTool({"--dir", Base("b").string(), "chain", longer});
  EXPECT_EQ(picked.status, 0) << picked.err;
  EXPECT_EQ(picked.out.rfind("0  " + HexOf(Sha1Thumbprint(first.get())), 0), 0u);
}

TEST_F(CommandLineTest, LibraryLinesAreEvidenceUnderTheFailureAllWithVNoneWithQ) {
  // A certificate file whose key file is missing: signing fails with the
  // library's error lines, after its trace lines at priority 2.
  TestKey ec = SharedKey(KeyKind::k_ec, 0);
  TestX509 cert = ClientCert("Loud", ec.get());
  InstallFileCert(Base("b"), "loud.pem", cert.get());
  const std::string thumb = HexOf(Sha1Thumbprint(cert.get()));
  auto run = [&](std::vector<std::string> extra, const std::string& command = "sign") {
    extra.insert(extra.end(), {"--dir", Base("b").string(), command});
    if (command == "sign") extra.push_back(thumb);
    return RunTool(extra);
  };
  auto count = [](const std::string& text, const std::string& what) {
    std::size_t n = 0;
    for (const std::string& line : Lines(text)) n += line.rfind(what, 0) == 0 ? 1 : 0;
    return n;
  };
  // By default: the failure line first, then only the library's error lines
  // of the failed step, indented.
  const ToolResult normal = run({});
  EXPECT_EQ(normal.status, 1);
  const std::vector<std::string> lines = Lines(normal.err);
  ASSERT_GE(lines.size(), 2u) << normal.err;
  EXPECT_EQ(lines[0].rfind("x509-auth: signing with Loud failed", 0), 0u) << normal.err;
  EXPECT_GT(count(normal.err, "  [error] Private key file ["), 0u) << normal.err;
  EXPECT_EQ(count(normal.err, "  [warning] "), 0u) << normal.err;
  for (const std::string& line : lines)
    EXPECT_TRUE(line.rfind("x509-auth: ", 0) == 0 || line.rfind("  ", 0) == 0) << line;
  // -v: every line as it comes, at its priority's name, with the one prefix.
  const ToolResult v = run({"-v"});
  EXPECT_GT(count(v.err, "x509-auth: [info] CertStore::Open"), 0u) << v.err;
  // The library's routine step trace is information, not a warning.
  EXPECT_EQ(count(v.err, "x509-auth: [warning] CertStore::Open"), 0u) << v.err;
  EXPECT_GT(count(v.err, "x509-auth: [info] "), 0u) << v.err;
  EXPECT_GT(count(v.err, "x509-auth: [error] "), 0u) << v.err;
  // -q: the failure line alone.
  const ToolResult quiet = run({"-q"});
  EXPECT_EQ(quiet.status, 1);
  EXPECT_EQ(Lines(quiet.err).size(), 1u) << quiet.err;
  EXPECT_EQ(quiet.err.rfind("x509-auth: signing with Loud failed", 0), 0u) << quiet.err;
  // A success prints its result and nothing on stderr.
  const ToolResult listed = run({}, "list");
  EXPECT_EQ(listed.status, 0);
  EXPECT_EQ(listed.err, "");
  EXPECT_NE(listed.out.find("Loud"), std::string::npos) << listed.out;
}

}  // namespace
}  // namespace x509auth_test
