#pragma once
// Each test gets a temporary directory with a working directory (holding the
// real OpenSC module link for in-process library calls, which sees no
// reader), its own HOME and its own TMPDIR, which the tool must leave empty
// of anything of its own.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "RecordingCallbacks.h"
#include "ScopedTestEnvironment.h"
#include "TestPki.h"
#include "ToolRunner.h"
#include "x509_auth.h"

namespace x509auth_test {

class ToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    RecordingCallbacks::GetInstance().Reset();
    work_ = temp_ / "work";
    home_ = temp_ / "home";
    tmp_ = temp_ / "tmp";
    for (const auto& dir : {work_, home_, tmp_}) std::filesystem::create_directories(dir);
    ScopedTestEnvironment::LinkModule(work_, OPENSC_MODULE_PATH);
    ASSERT_TRUE(env_.Enter(work_));
    env_.Set("HOME", home_.string());
    env_.Set("TMPDIR", tmp_.string());
  }

  void TearDown() override {
    X509_Auth_DeInit();
    // The tool makes no private directories (it once linked its module so).
    for (const auto& entry : std::filesystem::directory_iterator(tmp_))
      EXPECT_NE(entry.path().filename().string().rfind("x509-auth-", 0), 0u)
          << "the tool left " << entry.path() << " behind";
  }

  std::filesystem::path Base(const std::string& name) const { return temp_ / name; }

  // What the C interface offers for these directories and CAs, in the shape
  // `list --json` promises, built here independently of the tool.
  static nlohmann::json CInterfaceRecords(const std::vector<std::string>& dirs,
                                          const std::vector<std::string>& home_dirs = {},
                                          const std::vector<Bytes>& cas = {}) {
    std::vector<const char*> first, second;
    for (const std::string& dir : dirs) first.push_back(dir.c_str());
    for (const std::string& dir : home_dirs) second.push_back(dir.c_str());
    const X509_Auth_Settings settings{first.data(), first.size(), second.data(), second.size()};
    X509_Auth_Init(&settings, RecordingCallbacks::GetInstance().Callbacks());
    for (const Bytes& ca : cas)
      EXPECT_EQ(X509_Auth_AddAdditionalCertificateAuthorityToStore(ca.data(), ca.size()), 1);
    uint64_t count = 0;
    const X509_Auth_Certificate* records = nullptr;
    EXPECT_TRUE(X509_Auth_LoadClientCertificates(&count, &records));
    nlohmann::json array = nlohmann::json::array();
    for (uint64_t i = 0; i < count; ++i) {
      const X509_Auth_Certificate& r = records[i];
      nlohmann::json chain = nlohmann::json::array();
      for (uint64_t c = 0; c < r.ca_chain_count; ++c) chain.push_back(HexOf(r.ca_chain[c], 20));
      static const char* const sources[] = {"file", "smartcard", "other"};
      static const char* const groups[] = {"other", "rsa", "ec"};
      array.push_back(
          {{"thumbprint", HexOf(r.thumbprint, 20)},
           {"subject", r.name},
           {"issuer", r.issuer_name},
           {"not_before", r.not_before},
           {"not_after", r.not_after},
           {"not_before_iso", Iso(r.not_before)},
           {"not_after_iso", Iso(r.not_after)},
           {"source", sources[r.cert_type < 3 ? r.cert_type : 2]},
           {"key_algorithm", groups[r.key_algorithm_group < 3 ? r.key_algorithm_group : 0]},
           {"key_path", r.key_path},
           {"chain", chain}});
    }
    X509_Auth_Free(records);
    X509_Auth_DeInit();
    return array;
  }

  static std::string HexOf(const unsigned char* bytes, std::size_t length) {
    return LowerHex(Bytes(bytes, bytes + length));
  }
  static std::string HexOf(const Bytes& bytes) { return LowerHex(bytes); }

  static std::string Iso(int64_t seconds) {
    const time_t t = static_cast<time_t>(seconds);
    tm parts{};
    gmtime_r(&t, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
  }

  // `list --json` parsed; fails the test when the tool fails.
  static nlohmann::json ListJson(std::vector<std::string> args) {
    args.push_back("list");
    args.push_back("--json");
    const ToolResult result = RunTool(args);
    EXPECT_EQ(result.status, 0) << result.err;
    return nlohmann::json::parse(result.out);
  }

  TempDir temp_;
  std::filesystem::path work_, home_, tmp_;
  // After temp_: the working directory is left before the directory goes.
  ScopedTestEnvironment env_;
};

// A self-signed client-authentication certificate.
inline TestX509 ClientCert(const std::string& name, EVP_PKEY* key,
                           const std::string& not_before = "", const std::string& not_after = "") {
  return MakeCert(ClientOptions(name, not_before, not_after), key);
}

inline std::string CommonNameOf(X509* cert) {
  char text[256] = "";
  X509_NAME_get_text_by_NID(X509_get_subject_name(cert), NID_commonName, text, sizeof text);
  return text;
}

// A tool test with two file certificates in base "b": "<name> RSA"
// (rsa.pem) and "<name> EC" (ec.pem), each with its unencrypted key.
class ToolFileKeysTest : public ToolTest {
 protected:
  explicit ToolFileKeysTest(std::string name) : name_(std::move(name)) {}

  void SetUp() override {
    ToolTest::SetUp();
    rsa_ = SharedKey(KeyKind::k_rsa, 0);
    ec_ = SharedKey(KeyKind::k_ec, 0);
    rsa_cert_ = ClientCert(name_ + " RSA", rsa_.get());
    ec_cert_ = ClientCert(name_ + " EC", ec_.get());
    InstallFileCert(Base("b"), "rsa.pem", rsa_cert_.get(), rsa_.get());
    InstallFileCert(Base("b"), "ec.pem", ec_cert_.get(), ec_.get());
  }

  const std::string name_;
  TestKey rsa_, ec_;
  TestX509 rsa_cert_, ec_cert_;
};

}  // namespace x509auth_test
