// Many complete host sessions in one process, over a certificate file and a
// SoftHSM2 token: init, list, chain, sign with both keys, free, deinit.
// Resident memory and open descriptors must stay flat, and nothing of the
// token (sessions, logins, the module itself) may outlive a session.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "SoftHsmToken.h"
#include "TestPki.h"
#include "x509_auth.h"

namespace x509auth_test {
namespace {

namespace fs = std::filesystem;

// Host callbacks that keep nothing, so the host adds no growth of its own:
// every line is formatted (as a host would) into one fixed buffer.
unsigned long log_lines = 0;
unsigned long prompts = 0;
X509_Auth_PinEntryResult pin_result{SoftHsmToken::k_default_pin, 0};

void LogLine(X509_Auth_LogPriority, const char* format, va_list arguments) {
  static char line[4096];
  std::vsnprintf(line, sizeof line, format, arguments);
  ++log_lines;
}
X509_Auth_PinEntryResult* AnswerPin(const char*, const char*) {
  ++prompts;
  return &pin_result;
}
void ReleasePin(X509_Auth_PinEntryResult*) {}

long ResidentKiB() {
  std::ifstream statm("/proc/self/statm");
  long size = 0, resident = 0;
  statm >> size >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

int OpenDescriptors() {
  int count = 0;
  for (auto it = fs::directory_iterator("/proc/self/fd"); it != fs::directory_iterator(); ++it)
    ++count;
  return count;
}

bool ModuleMapped() {
  // RTLD_NOLOAD only finds a module that is still loaded; the reference it
  // takes is given back at once.
  void* handle = dlopen(SOFTHSM2_MODULE_PATH, RTLD_NOW | RTLD_NOLOAD);
  if (handle == nullptr) return false;
  dlclose(handle);
  return true;
}

// Sessions the loaded SoftHSM2 module has open in this process, counted
// through its own C_GetSessionInfo: SoftHSM2 numbers sessions from 1 and
// reuses freed numbers, so every open session lies below 4096 here.
int OpenTokenSessions() {
  struct SessionInfo {
    unsigned long slot, state, flags, device_error;
  };
  using GetSessionInfo = unsigned long (*)(unsigned long, SessionInfo*);
  void* handle = dlopen(SOFTHSM2_MODULE_PATH, RTLD_NOW | RTLD_NOLOAD);
  if (handle == nullptr) return -1;
  auto get_info = reinterpret_cast<GetSessionInfo>(dlsym(handle, "C_GetSessionInfo"));
  int open = 0;
  for (unsigned long session = 1; get_info != nullptr && session < 4096; ++session) {
    SessionInfo info{};
    if (get_info(session, &info) == 0) ++open;
  }
  dlclose(handle);
  return open;
}

int Rounds() {
  const char* text = std::getenv("X509AUTH_STRESS_ROUNDS");
  return text != nullptr ? std::atoi(text) : 10000;
}

class LifecycleStressTest : public ::testing::Test {
 protected:
  void SetUp() override {
    X509AUTH_SKIP_WITHOUT_SOFTHSM2();
    hsm_.emplace();
    hsm_->InitToken("Stress");
    token_key_ = SharedKey(KeyKind::k_ec, 1);
    CertOptions token_options;
    token_options.common_name = "Token Stress";
    token_options.extended_key_usage = "clientAuth";
    token_cert_ = MakeCert(token_options, token_key_.get());
    hsm_->ImportCertAndKey("Stress", token_cert_.get(), token_key_.get(), "01", "stress");
    // Self-signed: its chain is itself, verified afresh each round.
    file_key_ = SharedKey(KeyKind::k_rsa, 2);
    base_ = hsm_->Root() / "base";
    CertOptions leaf_options;
    leaf_options.common_name = "File Stress";
    leaf_options.extended_key_usage = "clientAuth";
    file_cert_ = MakeCert(leaf_options, file_key_.get());
    InstallFileCert(base_, "file.pem", file_cert_.get(), file_key_.get());
  }
  void TearDown() override {
    X509_Auth_DeInit();
    hsm_.reset();
  }

  // One complete host session; returns an empty text or what went wrong.
  // |sessions|, when given, receives the token sessions open just before
  // DeInit.
  std::string Round(int* sessions = nullptr) {
    const std::string base = base_.string();
    const char* dirs[] = {base.c_str()};
    const X509_Auth_Settings settings{dirs, 1, nullptr, 0};
    X509_Auth_Init(&settings, X509_Auth_Callbacks{LogLine, AnswerPin, ReleasePin, nullptr});
    std::string failure;
    uint64_t count = 0;
    const X509_Auth_Certificate* list = nullptr;
    if (!X509_Auth_LoadClientCertificates(&count, &list) || count != 2) {
      failure = "listing gave " + std::to_string(count);
    } else {
      uint64_t blobs = 0;
      X509_Auth_ASN_1* chain = nullptr;
      if (X509_Auth_GetChainedCAsForCertificate(&list[0], &blobs, &chain) != 0)
        failure = "no chain";
      else
        X509_Auth_Free(chain);
      const uint32_t algorithms[] = {1, 2};
      const unsigned char digest[32] = {7};
      for (uint64_t i = 0; i < count && failure.empty(); ++i) {
        const X509_Auth_Signature* signature = nullptr;
        const X509_Auth_Result result = X509_Auth_SignHash(
            list[i].thumbprint, 2, algorithms, X509_Auth_HashType_Sha256, digest, &signature);
        if (result.code != 0) failure = "signing " + std::string(list[i].name) + " failed";
        if (signature != nullptr) X509_Auth_Free(signature);
      }
      X509_Auth_Free(list);
    }
    if (sessions != nullptr) *sessions = OpenTokenSessions();
    X509_Auth_DeInit();
    return failure;
  }

  std::optional<SoftHsmToken> hsm_;
  TestKey token_key_, file_key_;
  TestX509 token_cert_, file_cert_;
  fs::path base_;
};

TEST_F(LifecycleStressTest, TenThousandSessionsKeepMemoryDescriptorsAndTokenStateFlat) {
  const int rounds = Rounds();
  const int warm_up = std::min(200, rounds / 10);
  for (int i = 0; i < warm_up; ++i) ASSERT_EQ(Round(), "") << "warm-up round " << i;
  const long rss_start = ResidentKiB();
  const int fds_start = OpenDescriptors();
  const unsigned long prompts_start = prompts;

  const auto started = std::chrono::steady_clock::now();
  int most_sessions = 0;
  for (int i = warm_up; i < rounds; ++i) {
    int sessions = 0;
    const std::string failure = Round(i % 1000 == 0 || i == rounds - 1 ? &sessions : nullptr);
    ASSERT_EQ(failure, "") << "round " << i;
    most_sessions = std::max(most_sessions, sessions);
    // The context goes with DeInit, and with it the module: C_Finalize has
    // closed every session the round left.
    if (i % 1000 == 0) {
      ASSERT_FALSE(ModuleMapped()) << "round " << i;
    }
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  const long rss_end = ResidentKiB();
  const int fds_end = OpenDescriptors();
  const int measured = rounds - warm_up;

  std::printf(
      "[ stress ] %d rounds after %d warm-up: %.2f ms per round; RSS %ld -> %ld KiB; "
      "fds %d -> %d; at most %d token sessions open before DeInit; %lu log lines\n",
      measured, warm_up, seconds * 1000.0 / measured, rss_start, rss_end, fds_start, fds_end,
      most_sessions, log_lines);
  // One PIN prompt per round: every session logged in afresh, so no login
  // survived the previous DeInit.
  EXPECT_EQ(prompts - prompts_start, static_cast<unsigned long>(measured));
  EXPECT_EQ(fds_end, fds_start);
  // 2 MiB over 9,800 rounds catches a leak of about 200 bytes per round.
  EXPECT_LE(rss_end - rss_start, 2048) << "resident memory grew";
  // A session's work needs libp11's login session and at most one more.
  EXPECT_GE(most_sessions, 1);
  EXPECT_LE(most_sessions, 2);
  EXPECT_FALSE(ModuleMapped());
}

}  // namespace
}  // namespace x509auth_test
