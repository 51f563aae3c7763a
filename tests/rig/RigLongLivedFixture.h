#pragma once
// Programs that live while the card comes and goes: started before the card
// is in, they list and sign every half second while the test inserts it,
// pulls it and puts it back, and are read through their output.
#include <chrono>
#include <fstream>
#include <thread>

#include "RigFixture.h"

namespace x509auth_test {

using namespace std::chrono_literals;

class RigLongLivedTest : public RigTest {
 protected:
  void SetUp() override {
    RigTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    WriteFile(temp_ / "root.der", CertToDer(chain_.root.get()));
    WriteFile(temp_ / "intermediate.der", CertToDer(chain_.intermediate.get()));
  }

  std::unique_ptr<BackgroundChild> Start(std::vector<std::string> argv,
                                         std::map<std::string, std::string> extra = {}) {
    ChildRun run;
    run.argv = std::move(argv);
    run.env = Environment();
    run.env["RIG_PIN"] = VirtualCardRig::k_pin;
    run.env["RIG_STOP_FILE"] = (temp_ / "stop").string();
    for (const auto& [name, value] : extra) run.env[name] = value;
    run.cwd = (temp_ / "work").string();
    return std::make_unique<BackgroundChild>(run, (temp_ / "program.log").string());
  }

  std::unique_ptr<BackgroundChild> StartHost(bool watch) {
    return Start({RIG_HOST_PATH, VirtualCardRig::k_opensc_module, watch ? "1" : "0", "240",
                  (temp_ / "root.der").string(), (temp_ / "intermediate.der").string()});
  }

  // The PKCS#11 loop with x509auth's module (token certificates on), and
  // OpenSC's own beside it when |with_opensc|.
  std::unique_ptr<BackgroundChild> StartModuleLoop(bool with_opensc) {
    std::vector<std::string> argv = {RIG_PKCS11_LOOP_PATH, "240",
                                     std::string("x509auth=") + X509AUTH_PKCS11_MODULE_PATH};
    if (with_opensc) argv.push_back(std::string("opensc=") + VirtualCardRig::k_opensc_module);
    return Start(argv, {{"X509AUTH_TOKEN_CERTIFICATES", "on"}, {"X509AUTH_LOG", "error"}});
  }

  // Waits (30 s at most) for |text| in the program's output after |from|;
  // gives the offset just past it, or npos.
  static std::size_t WaitAfter(const BackgroundChild& program, const std::string& text,
                               std::size_t from) {
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (std::chrono::steady_clock::now() < deadline) {
      const std::string output = program.Output();
      const std::size_t at = output.find(text, from);
      if (at != std::string::npos) return at + text.size();
      if (!program.Running()) break;
      std::this_thread::sleep_for(50ms);
    }
    return std::string::npos;
  }

  // The card in (the module loop signs after its first login), out (no
  // certificates) and in again, each step seen in |loop|'s output after
  // |*at|, which follows along.
  void InsertPullAndInsert(const BackgroundChild& loop, std::size_t* at) {
    ASSERT_TRUE(rig_->Insert()) << rig_->Log();
    *at = WaitAfter(loop, "x509auth slots=1 certs=3 sign=ok logins=1", *at);
    ASSERT_NE(*at, std::string::npos) << loop.Output();
    ASSERT_TRUE(rig_->Pull()) << rig_->Log();
    *at = WaitAfter(loop, "x509auth slots=1 certs=0", *at);
    ASSERT_NE(*at, std::string::npos) << loop.Output();
    ASSERT_TRUE(rig_->Insert()) << rig_->Log();
  }

  // Ends the program through its stop file; its exit status.
  int Stop(BackgroundChild& program) {
    WriteFile(temp_ / "stop", std::string());
    return program.Finish(30s);
  }
};

}  // namespace x509auth_test
