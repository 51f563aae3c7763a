// Names from certificates and file names reach a person escaped: a subject
// with terminal escape sequences cannot repaint the terminal, and one with a
// newline cannot forge a row of `list`, in the table, in doctor's report, in
// chain's lines and in failure lines. JSON keeps the names as they are (it
// escapes in its own way).
#include <algorithm>

#include "SoftHsmToken.h"
#include "ToolFixture.h"

namespace x509auth_test {
namespace {

// Clears the screen and sets the window title.
const std::string k_escape_name = "Evil\x1b[2J\x1b]0;owned\x07 Name";
const std::string k_escape_shown = "Evil\\x1b[2J\\x1b]0;owned\\x07 Name";
// A second line that looks like a row of the table.
const std::string k_forging_name = "Two\n0123456789ab  Forged  Forged  file    ec   2099-01-01";
const std::string k_forging_shown = "Two\\n0123456789ab  Forged  Forged  file    ec   2099-01-01";

class EscapedTextTest : public ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    TestKey ec = SharedKey(KeyKind::k_ec, 0);
    escape_ = ClientCert(k_escape_name, ec.get());
    forging_ = ClientCert(k_forging_name, ec.get());
    // File names with a colour sequence and a newline; the first has no key.
    escape_file_ = "paint\x1b[31m.pem";
    forging_file_ = "new\nline.pem";
    InstallFileCert(Base("b"), escape_file_, escape_.get());
    InstallFileCert(Base("b"), forging_file_, forging_.get(), ec.get());
  }
  static void ExpectNoControl(const std::string& text, const std::string& what) {
    for (const char c : text)
      if (c != '\n') {
        EXPECT_FALSE(static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
            << what << " has the control character " << static_cast<int>(c) << ":\n"
            << text;
      }
  }

  TestX509 escape_, forging_;
  std::string escape_file_, forging_file_;
};

TEST_F(EscapedTextTest, ListShowsControlCharactersEscapedAndOneRowPerCertificate) {
  const ToolResult result = RunTool({"--dir", Base("b").string(), "list"});
  ASSERT_EQ(result.status, 0) << result.err;
  ExpectNoControl(result.out, "list");
  const std::vector<std::string> lines = Lines(result.out);
  ASSERT_EQ(lines.size(), 3u) << result.out;  // the heading and two rows
  EXPECT_NE(result.out.find(k_escape_shown), std::string::npos) << result.out;
  EXPECT_NE(result.out.find(k_forging_shown), std::string::npos) << result.out;
  for (const std::string& line : lines) EXPECT_NE(line.rfind("0123456789ab", 0), 0u) << line;
  // JSON is for programs: the names as they are, in JSON's escapes.
  const nlohmann::json listed = ListJson({"--dir", Base("b").string()});
  std::vector<std::string> subjects;
  for (const auto& entry : listed) subjects.push_back(entry["subject"]);
  std::sort(subjects.begin(), subjects.end());
  EXPECT_EQ(subjects, (std::vector<std::string>{k_escape_name, k_forging_name}));
}

TEST_F(EscapedTextTest, DoctorShowsFileNamesAndSubjectsEscaped) {
  const ToolResult result = RunTool({"--dir", Base("b").string(), "doctor"});
  ASSERT_EQ(result.status, 0) << result.err;
  ExpectNoControl(result.out, "doctor");
  const std::string certs = (Base("b") / "certs").string();
  const std::vector<std::string> lines = Lines(result.out);
  const auto has = [&](const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  };
  EXPECT_TRUE(has(certs + "/paint\\x1b[31m.pem")) << result.out;
  EXPECT_TRUE(has(certs + "/new\\nline.pem")) << result.out;
  EXPECT_TRUE(has("  subject     " + k_escape_shown)) << result.out;
  EXPECT_TRUE(has("  subject     " + k_forging_shown)) << result.out;
  EXPECT_TRUE(has("2 entries, 2 offered, 0 not offered")) << result.out;
  const ToolResult json = RunTool({"--dir", Base("b").string(), "doctor", "--json"});
  ASSERT_EQ(json.status, 0) << json.err;
  std::vector<std::string> paths;
  for (const auto& entry : nlohmann::json::parse(json.out)) paths.push_back(entry["path"]);
  std::sort(paths.begin(), paths.end());
  EXPECT_EQ(paths,
            (std::vector<std::string>{certs + "/" + forging_file_, certs + "/" + escape_file_}));
}

TEST_F(EscapedTextTest, ChainAndFailureLinesShowNamesEscaped) {
  const ToolResult chain =
      RunTool({"--dir", Base("b").string(), "chain", HexOf(Sha1Thumbprint(forging_.get()))});
  ASSERT_EQ(chain.status, 0) << chain.err;
  EXPECT_EQ(chain.out,
            "0  " + HexOf(Sha1Thumbprint(forging_.get())) + "  " + k_forging_shown + "\n");
  // No key file: the failure line names the certificate.
  const ToolResult sign = RunTool({"--dir", Base("b").string(), "sign",
                                   HexOf(Sha1Thumbprint(escape_.get())), "--in", "/dev/null"});
  EXPECT_EQ(sign.status, 1);
  ExpectNoControl(sign.err, "sign's failure");
  EXPECT_EQ(ToolLines(sign.err).back().rfind(
                "x509-auth: signing with " + k_escape_shown + " failed: result code 4", 0),
            0u)
      << sign.err;
  // An unknown thumbprint lists the offered certificates under the line.
  const ToolResult unknown = RunTool({"--dir", Base("b").string(), "chain", "ffffffffffff"});
  EXPECT_EQ(unknown.status, 1);
  ExpectNoControl(unknown.err, "the candidates");
  EXPECT_NE(unknown.err.find("  " + HexOf(Sha1Thumbprint(forging_.get())) + "  " + k_forging_shown +
                             "\n"),
            std::string::npos)
      << unknown.err;
  // A backslash is doubled, so that "\x1b" typed into a name stays apart
  // from an escape.
  const ToolResult missing =
      RunTool({"--dir", (temp_ / "no\\x1b\tdir").string(), "list", "--json"});
  EXPECT_EQ(missing.status, 0) << missing.err;
  EXPECT_NE(missing.err.find("x509-auth: warning: --dir " + (temp_ / "no\\\\x1b\\tdir").string() +
                             " does not exist"),
            std::string::npos)
      << missing.err;
}

TEST_F(EscapedTextTest, TokenLabelIsShownEscapedInDoctorAndInThePromptsFailure) {
  X509AUTH_SKIP_WITHOUT_SOFTHSM2();
  SoftHsmToken hsm;
  const std::string label = "Card\x1b[2J\nTwo";
  const std::string shown = "Card\\x1b[2J\\nTwo";
  hsm.InitToken(label);
  TestKey ec = SharedKey(KeyKind::k_ec, 1);
  TestX509 cert = ClientCert("On The Card", ec.get());
  hsm.ImportCertAndKey(label, cert.get(), ec.get(), "01", "ec");
  const std::string module = SoftHsmToken::ModulePath().string();

  const ToolResult doctor = RunTool({"--module", module, "doctor"});
  ASSERT_EQ(doctor.status, 0) << doctor.err;
  ExpectNoControl(doctor.out, "doctor");
  EXPECT_NE(doctor.out.find("token \"" + shown + "\"\n  subject     On The Card\n"),
            std::string::npos)
      << doctor.out;
  // No terminal and no PIN source: the failure names the token, escaped.
  const ToolResult sign =
      RunTool({"--module", module, "sign", HexOf(Sha1Thumbprint(cert.get())), "--in", "/dev/null"});
  EXPECT_EQ(sign.status, 1);
  ExpectNoControl(sign.err, "sign's failure");
  EXPECT_NE(sign.err.find("the prompt for the PIN of the token \"" + shown + "\" went unanswered"),
            std::string::npos)
      << sign.err;
}

TEST_F(EscapedTextTest, LettersOfAnyScriptStayAndReorderingMarksAndC1ControlsAreEscaped) {
  TestKey ec = SharedKey(KeyKind::k_ec, 1);
  // U+202E turns what follows right to left; U+009B is a CSI to terminals
  // that read C1 controls.
  TestX509 letters = ClientCert("J\u00fcrgen \u00d8deg\u00e5rd \u5c71\u7530", ec.get());
  TestX509 marks = ClientCert("abc\u202egpj.exe \u009b31m", ec.get());
  InstallFileCert(Base("u"), "letters.pem", letters.get(), ec.get());
  InstallFileCert(Base("u"), "marks.pem", marks.get(), ec.get());
  // A file name that is not UTF-8.
  InstallFileCert(Base("u"), "bytes\xff.pem", letters.get(), ec.get());

  const ToolResult list = RunTool({"--dir", Base("u").string(), "list"});
  ASSERT_EQ(list.status, 0) << list.err;
  EXPECT_NE(list.out.find("J\u00fcrgen \u00d8deg\u00e5rd \u5c71\u7530"), std::string::npos)
      << list.out;
  EXPECT_NE(list.out.find("abc\\u202egpj.exe \\xc2\\x9b31m"), std::string::npos) << list.out;

  const ToolResult doctor = RunTool({"--dir", Base("u").string(), "doctor"});
  ASSERT_EQ(doctor.status, 0) << doctor.err;
  EXPECT_NE(doctor.out.find((Base("u") / "certs").string() + "/bytes\\xff.pem\n"),
            std::string::npos)
      << doctor.out;
  // JSON cannot carry the byte: it becomes U+FFFD, and the report is still made.
  const ToolResult json = RunTool({"--dir", Base("u").string(), "doctor", "--json"});
  ASSERT_EQ(json.status, 0) << json.err;
  bool found = false;
  for (const auto& entry : nlohmann::json::parse(json.out))
    found = found || entry["path"] == (Base("u") / "certs").string() + "/bytes\ufffd.pem";
  EXPECT_TRUE(found) << json.out;
}

}  // namespace
}  // namespace x509auth_test
