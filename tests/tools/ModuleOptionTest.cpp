// Smart cards through --module from a working directory that has nothing to
// do with the module, the default module of the working directory, and PIN
// entry without a terminal.
#include <openssl/evp.h>

#include "SoftHsmToken.h"
#include "ToolFixture.h"

namespace x509auth_test {
namespace {

class ModuleOptionTest : public ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    hsm_.emplace();
    hsm_->InitToken("Card A");
    rsa_ = SharedKey(KeyKind::kRsa, 1);
    ec_ = SharedKey(KeyKind::kEc, 1);
    rsa_cert_ = ClientCert("Token RSA", rsa_.get());
    ec_cert_ = ClientCert("Token EC", ec_.get());
    hsm_->ImportCertAndKey("Card A", rsa_cert_.get(), rsa_.get(), "01", "rsa");
    hsm_->ImportCertAndKey("Card A", ec_cert_.get(), ec_.get(), "02", "ec");
    elsewhere_ = temp_ / "elsewhere";
    std::filesystem::create_directories(elsewhere_);
  }
  void TearDown() override {
    ToolTest::TearDown();
    hsm_.reset();
  }
  ToolRun InElsewhere(std::vector<std::string> args) const {
    args.insert(args.begin(), {"--module", SoftHsmToken::ModulePath().string()});
    ToolRun run{args};
    run.cwd = elsewhere_.string();
    return run;
  }

  std::optional<SoftHsmToken> hsm_;
  TestKey rsa_, ec_;
  TestX509 rsa_cert_, ec_cert_;
  std::filesystem::path elsewhere_;
};

TEST_F(ModuleOptionTest, ModuleFromAnUnrelatedDirectoryListsTheTokenLikeTheCInterface) {
  const ToolResult result = RunTool(InElsewhere({"list", "--json"}));
  ASSERT_EQ(result.status, 0) << result.err;
  const nlohmann::json listed = nlohmann::json::parse(result.out);
  ASSERT_EQ(listed.size(), 2u) << result.out;
  for (const auto& entry : listed) {
    EXPECT_EQ(entry["source"], "smartcard");
    EXPECT_EQ(entry["key_path"], "");
  }
  // The test's own working directory links the same module for the library.
  EXPECT_EQ(listed, CInterfaceRecords({}, {".x509-auth"}));
  // Nothing was left in the unrelated directory.
  EXPECT_TRUE(std::filesystem::is_empty(elsewhere_));
}

TEST_F(ModuleOptionTest, RelativeModulePathIsResolvedAgainstTheStartingDirectory) {
  std::filesystem::create_directories(elsewhere_ / "modules");
  std::filesystem::create_symlink(SoftHsmToken::ModulePath(), elsewhere_ / "modules" / "hsm.so");
  ToolRun run({"--module", "modules/hsm.so", "list", "--json"});
  run.cwd = elsewhere_.string();
  const ToolResult result = RunTool(run);
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(nlohmann::json::parse(result.out).size(), 2u) << result.out;
}

TEST_F(ModuleOptionTest, DefaultModuleIsTheWorkingDirectorysOpenscLink) {
  // The token store's working directory links SoftHSM2 as opensc-pkcs11.so.
  ToolRun run{{"list", "--json"}};
  run.cwd = hsm_->WorkingDirectory().string();
  const ToolResult result = RunTool(run);
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(nlohmann::json::parse(result.out).size(), 2u) << result.out;
  // From a directory without the link, the system's OpenSC module sees no card.
  ToolRun plain{{"list", "--json"}};
  plain.cwd = elsewhere_.string();
  const ToolResult none = RunTool(plain);
  ASSERT_EQ(none.status, 0) << none.err;
  EXPECT_EQ(nlohmann::json::parse(none.out).size(), 0u) << none.out;
}

TEST_F(ModuleOptionTest, SignsOnTheTokenWithThePinFromEnvOrDescriptor) {
  for (X509* cert : {rsa_cert_.get(), ec_cert_.get()}) {
    const std::string thumb = HexOf(Sha1Thumbprint(cert));
    ToolRun by_env = InElsewhere({"--pin-env", "CARD_PIN", "sign", thumb.substr(0, 10)});
    by_env.env["CARD_PIN"] = SoftHsmToken::k_default_pin;
    by_env.input = "token message";
    const ToolResult result = RunTool(by_env);
    ASSERT_EQ(result.status, 0) << result.err;
    std::string hex = Lines(result.out).at(0);
    Bytes signature;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
      signature.push_back(static_cast<unsigned char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    Bytes digest(32);
    EVP_Digest("token message", 13, digest.data(), nullptr, EVP_sha256(), nullptr);
    EXPECT_TRUE(VerifiesWithCertificate(cert, EVP_sha256(), digest, signature.data(), signature.size()));
  }
  ToolRun by_fd = InElsewhere({"--pin-fd", "3", "sign", HexOf(Sha1Thumbprint(ec_cert_.get()))});
  by_fd.fd3 = std::string(SoftHsmToken::k_default_pin) + "\n";
  const ToolResult result = RunTool(by_fd);
  EXPECT_EQ(result.status, 0) << result.err;
}

TEST_F(ModuleOptionTest, WrongOrMissingPinFailsWithOneLineNamingThePrompt) {
  const std::string thumb = HexOf(Sha1Thumbprint(ec_cert_.get()));
  ToolRun wrong = InElsewhere({"--pin-env", "CARD_PIN", "sign", thumb});
  wrong.env["CARD_PIN"] = "0000";
  const ToolResult wrong_result = RunTool(wrong);
  EXPECT_EQ(wrong_result.status, 1);
  EXPECT_NE(Lines(wrong_result.err).back().find("x509-auth: signing with Token EC failed: result code"),
            std::string::npos)
      << wrong_result.err;
  // The library's own notice about the wrong PIN reaches the user too.
  EXPECT_NE(wrong_result.err.find("Smartcard error: Incorrect pin entered for: Card A"),
            std::string::npos)
      << wrong_result.err;

  const ToolResult missing = RunTool(InElsewhere({"sign", thumb}));
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(Lines(missing.err).back().find(
                "the prompt \"Enter pin: Enter pin for token: Card A\" went unanswered: no terminal"),
            std::string::npos)
      << missing.err;
}

}  // namespace
}  // namespace x509auth_test
