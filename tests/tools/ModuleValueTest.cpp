// --module and X509AUTH_MODULE take the absolute path of a module or the
// word "none", as the provider's pkcs11_module does: a relative value is
// refused as a usage error before anything is loaded (a module planted in
// the working directory under that name never runs), and "none" is no
// module at all, with the file certificates listed.
#include "ToolFixture.h"

namespace x509auth_test {
namespace {

class ModuleValueTest : public ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    // Modules that leave a marker file when loaded, under the names a user
    // might give: lib.so and none.
    planted_ = temp_ / "planted";
    std::filesystem::create_directories(planted_);
    for (const char* name : {"lib.so", "none"})
      std::filesystem::copy_file(MARKER_MODULE_PATH, planted_ / name);
    marker_ = temp_ / "marker";
    TestKey ec = SharedKey(KeyKind::k_ec, 0);
    cert_ = ClientCert("File Only", ec.get());
    InstallFileCert(Base("b"), "file.pem", cert_.get(), ec.get());
  }
  ToolRun InPlanted(std::vector<std::string> args) const {
    ToolRun run{std::move(args)};
    run.cwd = planted_.string();
    run.env["X509AUTH_TEST_MARKER"] = marker_.string();
    return run;
  }

  std::filesystem::path planted_, marker_;
  TestX509 cert_;
};

TEST_F(ModuleValueTest, RelativeModuleOptionIsAUsageErrorAndNothingIsLoaded) {
  for (const std::string value : {"lib.so", "./lib.so", "./none", "../planted/lib.so", ""}) {
    for (const char* command : {"list", "doctor"}) {
      const ToolResult result =
          RunTool(InPlanted({"--dir", Base("b").string(), "--module", value, command}));
      EXPECT_EQ(result.status, 2) << value << " " << command << ": " << result.err;
      EXPECT_EQ(result.err,
                "x509-auth: --module takes the absolute path of a PKCS#11 module, or "
                "none; '" +
                    value + "' is neither (nothing was loaded)\n")
          << value;
      EXPECT_EQ(result.out, "") << value;
      EXPECT_FALSE(std::filesystem::exists(marker_)) << "loaded for --module " << value;
    }
  }
}

TEST_F(ModuleValueTest, RelativeModuleVariableIsAUsageErrorAndNothingIsLoaded) {
  for (const std::string value : {"lib.so", "./none", "planted/../lib.so"}) {
    ToolRun run = InPlanted({"--dir", Base("b").string(), "list"});
    run.env["X509AUTH_MODULE"] = value;
    const ToolResult result = RunTool(run);
    EXPECT_EQ(result.status, 2) << value << ": " << result.err;
    EXPECT_EQ(result.err,
              "x509-auth: X509AUTH_MODULE takes the absolute path of a PKCS#11 "
              "module, or none; '" +
                  value + "' is neither (nothing was loaded)\n");
    EXPECT_EQ(result.out, "");
    EXPECT_FALSE(std::filesystem::exists(marker_)) << "loaded for X509AUTH_MODULE=" << value;
  }
  // The option wins over the variable, as for any module.
  ToolRun both = InPlanted({"--module", "none", "--dir", Base("b").string(), "list", "--json"});
  both.env["X509AUTH_MODULE"] = "lib.so";
  EXPECT_EQ(RunTool(both).status, 0);
  EXPECT_FALSE(std::filesystem::exists(marker_));
}

TEST_F(ModuleValueTest, NoneIsNoModuleAndTheFileCertificatesAreListed) {
  ToolRun by_option =
      InPlanted({"--module", "none", "--dir", Base("b").string(), "list", "--json"});
  ToolRun by_variable = InPlanted({"--dir", Base("b").string(), "list", "--json"});
  by_variable.env["X509AUTH_MODULE"] = "none";
  for (const ToolRun& run : {by_option, by_variable}) {
    const ToolResult result = RunTool(run);
    ASSERT_EQ(result.status, 0) << result.err;
    const nlohmann::json listed = nlohmann::json::parse(result.out);
    ASSERT_EQ(listed.size(), 1u) << result.out;
    EXPECT_EQ(listed[0]["subject"], "File Only");
    EXPECT_EQ(listed[0]["source"], "file");
  }
  const ToolResult doctor =
      RunTool(InPlanted({"--module", "none", "--dir", Base("b").string(), "doctor"}));
  EXPECT_EQ(doctor.status, 0) << doctor.err;
  EXPECT_NE(doctor.out.find("1 entry, 1 offered, 0 not offered"), std::string::npos) << doctor.out;
  EXPECT_FALSE(std::filesystem::exists(marker_)) << "\"none\" loaded ./none";
  // The planted file does load when it is named by its absolute path: the
  // marker would have shown a load above.
  RunTool(InPlanted({"--module", (planted_ / "none").string(), "list"}));
  EXPECT_TRUE(std::filesystem::exists(marker_));
}

}  // namespace
}  // namespace x509auth_test
