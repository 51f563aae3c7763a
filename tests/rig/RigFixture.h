#pragma once
// Tests on the virtual card rig (tests/support/VirtualCardRig.h): every test
// gets its own pcscd, reader and card, personalised with a fresh RSA client
// certificate issued by a test CA; programs run as children with the rig's
// environment, their own HOME and TMPDIR.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "TestPki.h"
#include "TlsTestServer.h"
#include "TmuxPane.h"
#include "VirtualCardRig.h"

namespace x509auth_test {

class RigTest : public ::testing::Test {
 protected:
  void SetUp() override {
    X509AUTH_SKIP_WITHOUT_CARD_RIG(CACARD_BRIDGE_PATH);
    chain_ = MakeChain(KeyKind::k_rsa, k_card_name);
    thumbprint_ = LowerHex(Sha1Thumbprint(chain_.leaf.get()));
    for (const char* dir : {"home", "tmp", "work"})
      std::filesystem::create_directories(temp_ / dir);
    WriteFile(CaFile(0), CertToPem(chain_.root.get()));
    WriteFile(CaFile(1), CertToPem(chain_.intermediate.get()));
    WriteFile(CasFile(), CertToPem(chain_.root.get()) + CertToPem(chain_.intermediate.get()));
    rig_ = std::make_unique<VirtualCardRig>(temp_ / "rig", CACARD_BRIDGE_PATH);
    ASSERT_TRUE(rig_->Start(chain_.leaf.get(), chain_.leaf_key.get())) << rig_->Log();
  }

  static constexpr const char* k_card_name = "Virtual Card User";

  std::filesystem::path CaFile(int index) const {
    return temp_ / ("ca-" + std::to_string(index) + ".pem");
  }
  std::filesystem::path CasFile() const { return temp_ / "cas.pem"; }

  // What every child gets: the rig's variables, a HOME and TMPDIR of the
  // test's own, the card's CAs and module for the provider and the PKCS#11
  // module, and the sanitizer's runtime where a module is instrumented.
  std::map<std::string, std::string> Environment() const {
    std::map<std::string, std::string> env = SanitizerEnvironment();
    for (const auto& [name, value] : rig_->Environment()) env[name] = value;
    env["HOME"] = (temp_ / "home").string();
    env["TMPDIR"] = (temp_ / "tmp").string();
    env["X509AUTH_MODULE"] = VirtualCardRig::k_opensc_module;
    env["X509AUTH_CA_FILES"] = CasFile().string();
    env["X509AUTH_DIRS"] = "";
    env["X509AUTH_HOME_DIRS"] = "";
    env["X509AUTH_PKCS11_CONF"] = (temp_ / "no-such.conf").string();
    return env;
  }

  // The tool's global options for the card: OpenSC's module, the CAs.
  std::vector<std::string> ToolGlobals() const {
    return {"--module", VirtualCardRig::k_opensc_module,
            "--add-ca", CaFile(0).string(),
            "--add-ca", CaFile(1).string()};
  }

  // x509-auth <globals> |args|, with the PIN in $CARD_PIN when |pin| is set.
  ChildResult Tool(const std::vector<std::string>& args, const std::string& pin = "",
                   std::chrono::seconds limit = std::chrono::seconds(60)) const {
    ChildRun run;
    run.argv = {X509_AUTH_TOOL_PATH};
    for (const std::string& a : ToolGlobals()) run.argv.push_back(a);
    if (!pin.empty()) {
      run.argv.push_back("--pin-env");
      run.argv.push_back("CARD_PIN");
    }
    run.argv.insert(run.argv.end(), args.begin(), args.end());
    run.env = Environment();
    if (!pin.empty()) run.env["CARD_PIN"] = pin;
    run.cwd = (temp_ / "work").string();
    run.limit = limit;
    return RunChild(run);
  }

  // A shell command line (for tmux) that runs |argv| with Environment().
  std::string ShellCommand(const std::vector<std::string>& argv) const {
    std::string command = "cd " + TmuxPane::Quote((temp_ / "work").string()) + " && env";
    for (const auto& [name, value] : Environment())
      command += " " + name + "=" + TmuxPane::Quote(value);
    for (const std::string& a : argv) command += " " + TmuxPane::Quote(a);
    return command;
  }

  TempDir temp_;
  Chain chain_;
  std::string thumbprint_;
  std::unique_ptr<VirtualCardRig> rig_;
};

}  // namespace x509auth_test
