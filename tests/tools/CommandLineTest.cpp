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
  for (const char* section :
       {"EXIT STATUS", "THUMBPRINT", "PINS AND PASSWORDS", "SMART CARDS", "COMMANDS", "DOCTOR",
        "not-a-certificate", "key-usage", "no-certs-directory", "does-not-match", "RSA-PSS",
        "list", "chain", "sign", "decrypt", "show", "doctor", "--pin-env", "--module", "--add-ca"})
    EXPECT_NE(tool.out.find(section), std::string::npos) << section;
  const std::map<std::string, std::string> commands{
      {"list", "--json"}, {"chain", "--pem"}, {"sign", "--hash"},
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
  TestKey ec = SharedKey(KeyKind::kEc, 0);
  TestX509 cert = ClientCert("After", ec.get());
  InstallFileCert(Base("b"), "after.pem", cert.get(), ec.get());
  const ToolResult result = RunTool({"list", "--json", "--dir", Base("b").string()});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(nlohmann::json::parse(result.out).at(0)["subject"], "After");
}

TEST_F(CommandLineTest, UnknownPrefixFailsAndListsTheOfferedCertificates) {
  TestKey ec = SharedKey(KeyKind::kEc, 0);
  TestX509 cert = ClientCert("Only One", ec.get());
  InstallFileCert(Base("b"), "one.pem", cert.get(), ec.get());
  const std::string thumb = HexOf(Sha1Thumbprint(cert.get()));
  const std::string other = thumb[0] == '0' ? "111111" : "000000";
  const ToolResult result = RunTool({"--dir", Base("b").string(), "chain", other});
  EXPECT_EQ(result.status, 1);
  const std::vector<std::string> lines = ToolLines(result.err);
  ASSERT_EQ(lines.size(), 2u) << result.err;
  EXPECT_EQ(lines[0], "x509-auth: no offered certificate has the thumbprint " + other +
                          "; the offered ones are:");
  EXPECT_EQ(lines[1], "  " + thumb + "  Only One");
}

TEST_F(CommandLineTest, AmbiguousPrefixFailsAndListsBothCandidates) {
  // Certificates differing only in serial until two thumbprints share their
  // first six digits (about 5000 on average: a birthday collision in 24 bits).
  TestKey ec = SharedKey(KeyKind::kEc, 0);
  std::map<std::string, TestX509> by_prefix;
  TestX509 first, second;
  std::string prefix;
  for (long serial = 1; serial < 200000 && !second; ++serial) {
    CertOptions options;
    options.common_name = "Twin " + std::to_string(serial);
    options.extended_key_usage = "clientAuth";
    options.serial = serial;
    TestX509 cert = MakeCert(options, ec.get());
    prefix = HexOf(Sha1Thumbprint(cert.get())).substr(0, 6);
    auto found = by_prefix.find(prefix);
    if (found != by_prefix.end()) {
      first = std::move(found->second);
      second = std::move(cert);
    } else {
      by_prefix.emplace(prefix, std::move(cert));
    }
  }
  ASSERT_TRUE(second);
  InstallFileCert(Base("b"), "first.pem", first.get(), ec.get());
  InstallFileCert(Base("b"), "second.pem", second.get(), ec.get());

  const ToolResult result = RunTool({"--dir", Base("b").string(), "sign", prefix});
  EXPECT_EQ(result.status, 1);
  const std::vector<std::string> lines = ToolLines(result.err);
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

TEST_F(CommandLineTest, VerbosityShowsErrorsByDefaultMoreWithVAndNoneWithQ) {
  // A certificate file whose key file is missing: signing fails with the
  // library's error line at priority 3 and warnings at priority 2 before.
  TestKey ec = SharedKey(KeyKind::kEc, 0);
  TestX509 cert = ClientCert("Loud", ec.get());
  InstallFileCert(Base("b"), "loud.pem", cert.get());
  const std::string thumb = HexOf(Sha1Thumbprint(cert.get()));
  auto run = [&](std::vector<std::string> extra) {
    extra.insert(extra.end(), {"--dir", Base("b").string(), "sign", thumb});
    return RunTool(extra);
  };
  auto count = [](const std::string& text, const std::string& what) {
    std::size_t n = 0;
    for (const std::string& line : Lines(text)) n += line.rfind(what, 0) == 0 ? 1 : 0;
    return n;
  };
  const ToolResult normal = run({});
  EXPECT_GT(count(normal.err, "[error] "), 0u) << normal.err;
  EXPECT_EQ(count(normal.err, "[warning] "), 0u) << normal.err;
  const ToolResult v = run({"-v"});
  EXPECT_GT(count(v.err, "[warning] "), 0u) << v.err;
  EXPECT_EQ(count(v.err, "[info] "), 0u) << v.err;
  const ToolResult vv = run({"-vv"});
  EXPECT_GT(count(vv.err, "[info] "), 0u) << vv.err;
  EXPECT_EQ(count(vv.err, "[debug] "), 0u) << vv.err;
  const ToolResult vvv = run({"--verbose", "-v", "-v"});
  EXPECT_GT(count(vvv.err, "[debug] "), 0u) << vvv.err;
  const ToolResult quiet = run({"-q"});
  EXPECT_EQ(quiet.status, 1);
  EXPECT_EQ(Lines(quiet.err).size(), 1u) << quiet.err;
  EXPECT_EQ(quiet.err.rfind("x509-auth: signing with Loud failed", 0), 0u) << quiet.err;
}

}  // namespace
}  // namespace x509auth_test
