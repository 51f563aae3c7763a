// Runs the host written in C against generated certificates, plainly and
// under valgrind's leak checker.
#include <sys/wait.h>

#include <array>
#include <cstdio>

#include "HostFixture.h"

namespace x509auth_test {
namespace {

struct CommandRun {
  int status;
  std::string output;
};

CommandRun RunCommand(const std::string& command) {
  CommandRun run{-1, {}};
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return run;
  std::array<char, 4096> buffer{};
  while (std::fgets(buffer.data(), buffer.size(), pipe) != nullptr) run.output += buffer.data();
  run.status = pclose(pipe);
  return run;
}

class HostCProgramTest : public HostTest {
 protected:
  void InstallTwoCertificates() {
    TestKey rsa = SharedKey(KeyKind::k_rsa);
    TestKey ec = SharedKey(KeyKind::k_ec);
    TestX509 first = MakeClientCert("C Host RSA", rsa.get());
    TestX509 second = MakeClientCert("C Host EC", ec.get());
    InstallFileCert(Base("base"), "a-rsa.pem", first.get(), rsa.get());
    InstallFileCert(Base("base"), "b-ec.der", second.get(), ec.get(), /*der=*/true);
  }
};

TEST_F(HostCProgramTest, CHostListsChainsAndFreesThroughThePlainCInterface) {
  InstallTwoCertificates();
  const CommandRun run = RunCommand(std::string(C_HOST_PATH) + " " + Base("base").string() + " 2");
  ASSERT_EQ(run.status, 0) << run.output;
  EXPECT_NE(run.output.find("cert C Host RSA type 0 group 1 chain 1\n"), std::string::npos)
      << run.output;
  EXPECT_NE(run.output.find("cert C Host EC type 0 group 2 chain 1\n"), std::string::npos)
      << run.output;
  EXPECT_NE(run.output.find("api 3, logged yes\n"), std::string::npos) << run.output;
}

TEST_F(HostCProgramTest, RepeatedInitListChainFreeDeInitLeaksNothingUnderValgrind) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "valgrind cannot run a program built with AddressSanitizer";
#else
  if (std::system("command -v valgrind > /dev/null") != 0) GTEST_SKIP() << "valgrind missing";
  InstallTwoCertificates();
  const std::string command =
      "valgrind --quiet --leak-check=full --show-leak-kinds=definite,indirect "
      "--errors-for-leak-kinds=definite,indirect --error-exitcode=9 " +
      std::string(C_HOST_PATH) + " " + Base("base").string() + " 5 2>&1";
  const CommandRun run = RunCommand(command);
  EXPECT_TRUE(WIFEXITED(run.status) && WEXITSTATUS(run.status) == 0) << run.output;
  EXPECT_NE(run.output.find("api 3, logged yes\n"), std::string::npos) << run.output;
#endif
}

}  // namespace
}  // namespace x509auth_test
