// Smart cards through --module from a working directory that has nothing to
// do with the module, the default module (never the working directory's),
// and PIN entry without a terminal. Relative values: ModuleValueTest.
#include <openssl/evp.h>

#include "SoftHsmToken.h"
#include "ToolFixture.h"

namespace x509auth_test {
namespace {

class ModuleOptionTest : public ToolTest {
 protected:
  void SetUp() override {
    X509AUTH_SKIP_WITHOUT_SOFTHSM2();
    ToolTest::SetUp();
    hsm_.emplace();
    hsm_->InitToken("Card A");
    rsa_ = SharedKey(KeyKind::k_rsa, 1);
    ec_ = SharedKey(KeyKind::k_ec, 1);
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

TEST_F(ModuleOptionTest, WorkingDirectoryModuleIsNeverLoadedEvenWhenPlanted) {
  // A module that leaves a marker file when it is loaded, planted where the
  // library's old default looked: every command, from that directory, with
  // the default module and with --module, must leave it alone.
  const std::filesystem::path planted = elsewhere_ / "opensc-pkcs11.so";
  std::filesystem::copy_file(MARKER_MODULE_PATH, planted);
  const std::filesystem::path marker = temp_ / "marker";
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"list"},
        {"doctor"},
        {"--module", SoftHsmToken::ModulePath().string(), "list"},
        {"sign", "abcdef", "--in", "/dev/null"}}) {
    ToolRun run{args};
    run.cwd = elsewhere_.string();
    run.env["X509AUTH_TEST_MARKER"] = marker.string();
    const ToolResult result = RunTool(run);
    EXPECT_NE(result.status, 2) << result.err;
    EXPECT_FALSE(std::filesystem::exists(marker)) << "loaded by: " << args.front();
  }
  // The marker module does work when it is named: the test can see a load.
  ToolRun named{{"--module", planted.string(), "list"}};
  named.env["X509AUTH_TEST_MARKER"] = marker.string();
  RunTool(named);
  EXPECT_TRUE(std::filesystem::exists(marker));
}

TEST_F(ModuleOptionTest, DefaultModuleIsDebiansOpenscOrTheVariable) {
  // X509AUTH_MODULE names the module when --module does not.
  ToolRun by_variable{{"list", "--json"}};
  by_variable.cwd = elsewhere_.string();
  by_variable.env["X509AUTH_MODULE"] = SoftHsmToken::ModulePath().string();
  const ToolResult result = RunTool(by_variable);
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(nlohmann::json::parse(result.out).size(), 2u) << result.out;
  // Without either, Debian's OpenSC module, which sees no card here.
  ToolRun plain{{"-v", "list", "--json"}};
  plain.cwd = elsewhere_.string();
  const ToolResult none = RunTool(plain);
  ASSERT_EQ(none.status, 0) << none.err;
  EXPECT_EQ(nlohmann::json::parse(none.out).size(), 0u) << none.out;
}

TEST_F(ModuleOptionTest, ModuleThatIsNoModuleIsNamedAsTheUserGaveIt) {
  WriteFile(elsewhere_ / "hostname", std::string("not a module\n"));
  ToolRun run{{"--module", (elsewhere_ / "hostname").string(), "list"}};
  run.cwd = elsewhere_.string();
  const ToolResult result = RunTool(run);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(ToolLines(result.err)
                .at(0)
                .rfind("x509-auth: --module " + (elsewhere_ / "hostname").string() +
                           " is not a PKCS#11 module: ",
                       0),
            0u)
      << result.err;
  // A shared object without C_GetFunctionList is said so.
  ToolRun no_entry{{"--module", NO_FUNCTION_LIST_MODULE_PATH, "list"}};
  const ToolResult missing = RunTool(no_entry);
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.err.find("it has no C_GetFunctionList"), std::string::npos) << missing.err;
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
    EXPECT_TRUE(
        VerifiesWithCertificate(cert, EVP_sha256(), digest, signature.data(), signature.size()));
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
  // A wrong PIN is said so, with what the token reports of the tries left.
  // SoftHSM2 sets CKF_USER_PIN_COUNT_LOW after a failed login.
  EXPECT_EQ(ToolLines(wrong_result.err).back(),
            "x509-auth: signing with Token EC failed: wrong PIN for the token \"Card A\" (few "
            "tries left)")
      << wrong_result.err;
  // The library's own notice about the wrong PIN is under it.
  EXPECT_NE(wrong_result.err.find("  [notice] Smartcard error: Incorrect pin entered for: Card A"),
            std::string::npos)
      << wrong_result.err;

  const ToolResult missing = RunTool(InElsewhere({"sign", thumb}));
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(ToolLines(missing.err)
                .back()
                .find("the prompt for the PIN of the token \"Card A\" went unanswered: there is no "
                      "terminal"),
            std::string::npos)
      << missing.err;
}

}  // namespace
}  // namespace x509auth_test
