// A write that fails is the command's failure: stdout on a full device
// (/dev/full) and --out past the file-size limit (RLIMIT_FSIZE, with
// SIGXFSZ ignored so that write fails with EFBIG) end with exit 1 and one
// line, and nothing that was not written is claimed: no "verified" note, no
// "decrypted" note, no incomplete file left behind.
#include <openssl/rsa.h>

#include "ToolFixture.h"

namespace x509auth_test {
namespace {

constexpr const char* k_full_stdout = "exec > /dev/full";
// The limit in sh's 512-byte blocks: nothing can be written to any file.
constexpr const char* k_no_file_space = "ulimit -f 0; trap '' XFSZ";

class WriteFailureTest : public ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    rsa_ = SharedKey(KeyKind::k_rsa, 0);
    chain_ = MakeChain(KeyKind::k_rsa, "Written Leaf");
    InstallFileCert(Base("b"), "leaf.pem", chain_.leaf.get(), chain_.leaf_key.get());
    WriteFile(temp_ / "root.pem", CertToPem(chain_.root.get()));
    WriteFile(temp_ / "intermediate.pem", CertToPem(chain_.intermediate.get()));
    thumb_ = HexOf(Sha1Thumbprint(chain_.leaf.get()));
  }
  std::vector<std::string> Common() const {
    return {"--dir",    Base("b").string(),
            "--add-ca", (temp_ / "root.pem").string(),
            "--add-ca", (temp_ / "intermediate.pem").string()};
  }
  ToolRun Run(const std::string& shell, const std::vector<std::string>& args) const {
    ToolRun run{Common()};
    run.args.insert(run.args.end(), args.begin(), args.end());
    run.shell = shell;
    return run;
  }

  // The command failed with the one line about |out|, did not claim |note|,
  // and left no file behind.
  static void ExpectUnwrittenAndUnclaimed(const ToolResult& result,
                                          const std::filesystem::path& out, const char* note) {
    EXPECT_EQ(result.status, 1) << result.err;
    EXPECT_EQ(ToolLines(result.err),
              std::vector<std::string>{"x509-auth: cannot write " + out.string() +
                                       ": File too large (the incomplete file was removed)"})
        << result.err;
    EXPECT_EQ(result.err.find(note), std::string::npos) << result.err;
    EXPECT_FALSE(std::filesystem::exists(out));
  }

  TestKey rsa_;
  Chain chain_;
  std::string thumb_;
};

TEST_F(WriteFailureTest, FullStandardOutputFailsEveryCommandWithOneLine) {
  const std::vector<std::vector<std::string>> commands{
      {"list"},   {"list", "--json"},   {"chain", thumb_}, {"chain", thumb_, "--pem"},
      {"doctor"}, {"doctor", "--json"}, {"sign", thumb_},  {"help"},
      {"--help"}};
  for (const auto& command : commands) {
    ToolRun run = Run(k_full_stdout, command);
    run.input = "data to sign";
    const ToolResult result = RunTool(run);
    const std::string shown = command.front() + (command.size() > 1 ? " " + command.back() : "");
    EXPECT_EQ(result.status, 1) << shown << ": " << result.err;
    EXPECT_EQ(ToolLines(result.err),
              std::vector<std::string>{
                  "x509-auth: cannot write to standard output: No space left on device"})
        << shown << ": " << result.err;
    EXPECT_EQ(result.err.find("verified"), std::string::npos) << shown << ": " << result.err;
  }
  // The same commands succeed with somewhere to write to.
  const ToolResult fine = RunTool(Run("", {"chain", thumb_, "--pem"}));
  EXPECT_EQ(fine.status, 0) << fine.err;
}

TEST_F(WriteFailureTest, SignatureThatCannotBeWrittenIsNeitherClaimedNorLeftBehind) {
  const std::filesystem::path out = temp_ / "signature.bin";
  ToolRun run = Run(k_no_file_space, {"sign", thumb_, "--out", out.string()});
  run.input = "data to sign";
  const ToolResult result = RunTool(run);
  ExpectUnwrittenAndUnclaimed(result, out, "verified");
  // Without the limit the same command writes the signature and says so.
  ToolRun unlimited = Run("", {"sign", thumb_, "--out", out.string()});
  unlimited.input = "data to sign";
  const ToolResult written = RunTool(unlimited);
  EXPECT_EQ(written.status, 0) << written.err;
  EXPECT_NE(written.err.find("verified with the certificate's public key"), std::string::npos);
  EXPECT_EQ(std::filesystem::file_size(out), 256u);
}

TEST_F(WriteFailureTest, PlaintextThatCannotBeWrittenIsNeitherClaimedNorLeftBehind) {
  const Bytes secret{'p', 'l', 'a', 'i', 'n'};
  const Bytes ciphertext = EncryptToCertificate(chain_.leaf.get(), RSA_PKCS1_OAEP_PADDING, secret);
  const std::filesystem::path out = temp_ / "plain.bin";
  // An earlier file of that name is not left to pass for the result either.
  WriteFile(out, std::string("an older plaintext"));
  ToolRun run =
      Run(k_no_file_space, {"decrypt", thumb_, "--padding", "oaep", "--out", out.string()});
  run.input.assign(ciphertext.begin(), ciphertext.end());
  const ToolResult result = RunTool(run);
  ExpectUnwrittenAndUnclaimed(result, out, "decrypted");
  // To a full stdout: the same failure, for standard output.
  ToolRun to_stdout = Run(k_full_stdout, {"decrypt", thumb_, "--padding", "oaep"});
  to_stdout.input = run.input;
  const ToolResult full = RunTool(to_stdout);
  EXPECT_EQ(full.status, 1) << full.err;
  EXPECT_EQ(ToolLines(full.err),
            std::vector<std::string>{
                "x509-auth: cannot write to standard output: No space left on device"})
      << full.err;
}

TEST_F(WriteFailureTest, DecryptRefusesAnInputNoCiphertextCanBeWithoutReadingItAll) {
  // /dev/zero never ends: the input is cut at the largest ciphertext.
  const ToolResult result =
      RunTool(Run("", {"decrypt", thumb_, "--padding", "oaep", "--in", "/dev/zero"}));
  EXPECT_EQ(result.status, 1) << result.err;
  EXPECT_EQ(ToolLines(result.err),
            std::vector<std::string>{"x509-auth: /dev/zero is longer than an RSA ciphertext can "
                                     "be (more than 65536 bytes)"})
      << result.err;
}

}  // namespace
}  // namespace x509auth_test
