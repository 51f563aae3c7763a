#pragma once
// A host's view of the library: only x509_auth.h and the shared library.
// Each test gets its own working directory (holding the PKCS#11 module link
// the library looks for), its own HOME and its own certificate directories.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "RecordingCallbacks.h"
#include "ScopedTestEnvironment.h"
#include "SoftHsmToken.h"
#include "TestPki.h"
#include "x509_auth.h"

namespace x509auth_test {

class HostTest : public ::testing::Test {
 protected:
  void SetUp() override {
    rec().Reset();
    work_ = temp_ / "work";
    home_ = temp_ / "home";
    std::filesystem::create_directories(work_);
    std::filesystem::create_directories(home_);
    // The real OpenSC module with no reader attached: no tokens, no error.
    ScopedTestEnvironment::LinkModule(work_, OPENSC_MODULE_PATH);
    ASSERT_TRUE(env_.Enter(work_));
    env_.Set("HOME", home_.string());
  }

  void TearDown() override { X509_Auth_DeInit(); }

  static RecordingCallbacks& rec() { return RecordingCallbacks::GetInstance(); }

  // A base directory below the test's temporary directory.
  std::filesystem::path Base(const std::string& name) const { return temp_ / name; }

  static void Init(const std::vector<std::string>& dirs,
                   const std::vector<std::string>& home_dirs = {},
                   X509_Auth_Callbacks callbacks = rec().Callbacks()) {
    std::vector<const char*> first, second;
    for (const std::string& dir : dirs) first.push_back(dir.c_str());
    for (const std::string& dir : home_dirs) second.push_back(dir.c_str());
    const X509_Auth_Settings settings{first.data(), first.size(), second.data(), second.size()};
    X509_Auth_Init(&settings, callbacks);
  }

  // Lists the certificates; fails the test when the call returns false.
  static std::vector<const X509_Auth_Certificate*> List(
      const X509_Auth_Certificate** array = nullptr) {
    uint64_t count = 12345;
    const X509_Auth_Certificate* certificates = nullptr;
    EXPECT_TRUE(X509_Auth_LoadClientCertificates(&count, &certificates)) << rec().Dump();
    std::vector<const X509_Auth_Certificate*> records;
    for (uint64_t i = 0; i < count; ++i) records.push_back(&certificates[i]);
    if (array != nullptr) *array = certificates;
    return records;
  }

  static Bytes ThumbprintOf(const X509_Auth_Certificate* record) {
    return Bytes(record->thumbprint, record->thumbprint + 20);
  }

  TempDir temp_;
  std::filesystem::path work_, home_;
  // After temp_: the working directory is left before the directory goes.
  ScopedTestEnvironment env_;
};

// A self-signed client-authentication certificate: its chain is itself.
inline TestX509 MakeClientCert(const std::string& name, EVP_PKEY* key,
                               const std::string& eku = "clientAuth",
                               const std::string& ku = "critical,digitalSignature,keyCertSign") {
  CertOptions options;
  options.common_name = name;
  options.extended_key_usage = eku;
  options.key_usage = ku;
  return MakeCert(options, key);
}

// A host test whose default CA file is |bundle_| (not written yet) and
// whose default CA directory does not exist: only the test's CAs count.
class HostCaFileTest : public HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    bundle_ = temp_ / "bundle.pem";
    env_.Set("SSL_CERT_FILE", bundle_.string());
    env_.Set("SSL_CERT_DIR", (temp_ / "no-dir").string());
  }

  static std::vector<std::string> Names(const std::vector<const X509_Auth_Certificate*>& records) {
    std::vector<std::string> names;
    for (const X509_Auth_Certificate* record : records) names.push_back(record->name);
    return names;
  }

  // The listing's lines about each certificate and its chain.
  static std::vector<std::string> DecisionLines() {
    std::vector<std::string> lines;
    for (const LogEntry& entry : rec().Logs())
      if (entry.text.find("X509_verify_cert failed") != std::string::npos ||
          entry.text == "Failed to get CA chain for a certificate" ||
          entry.text.rfind("cert: [", 0) == 0)
        lines.push_back(entry.text);
    return lines;
  }

  // "Stranger", a client certificate of |key| issued by "Nobody", a CA no
  // CA file holds: its chain cannot be built.
  static TestX509 Stranger(EVP_PKEY* key) {
    TestX509 nobody = MakeClientCert("Nobody", key);
    CertOptions unknown;
    unknown.common_name = "Stranger";
    unknown.extended_key_usage = "clientAuth";
    return MakeCert(unknown, key, nobody.get(), key);
  }

  // Files changed more than a second ago are served from the library's
  // cache of parsed certificates, with their kept decisions.
  static void Settle() { std::this_thread::sleep_for(std::chrono::milliseconds(1100)); }

  std::filesystem::path bundle_;
};

// "<name> RSA" and "<name> EC", self-signed client certificates of the
// shared keys, installed with their unencrypted keys in |base| as rsa.pem
// and ec.pem.
inline void InstallRsaAndEcFiles(const std::filesystem::path& base, const std::string& name,
                                 TestKey* rsa_key, TestX509* rsa, TestKey* ec_key, TestX509* ec) {
  *rsa_key = SharedKey(KeyKind::k_rsa);
  *ec_key = SharedKey(KeyKind::k_ec);
  *rsa = MakeClientCert(name + " RSA", rsa_key->get());
  *ec = MakeClientCert(name + " EC", ec_key->get());
  InstallFileCert(base, "rsa.pem", rsa->get(), rsa_key->get());
  InstallFileCert(base, "ec.pem", ec->get(), ec_key->get());
}

// A host test beside a SoftHSM2 token store holding one empty card, "Card
// A"; skipped where SoftHSM2 is missing. A fixture deriving from it returns
// from its own SetUp when IsSkipped().
class HostCardTest : public HostTest {
 protected:
  void SetUp() override {
    X509AUTH_SKIP_WITHOUT_SOFTHSM2();
    HostTest::SetUp();
    hsm_.emplace();
    hsm_->InitToken("Card A");
  }
  // The library lets go of the token store before the store goes.
  void TearDown() override {
    HostTest::TearDown();
    hsm_.reset();
  }

  std::optional<SoftHsmToken> hsm_;
};

// HostCardTest with an RSA and an EC client certificate and their keys,
// made for Card A but not yet on it, and the library started when a test
// says so.
class HostTokenKeysTest : public HostCardTest {
 protected:
  HostTokenKeysTest(std::string rsa_name, std::string ec_name)
      : rsa_name_(std::move(rsa_name)), ec_name_(std::move(ec_name)) {}

  void SetUp() override {
    HostCardTest::SetUp();
    if (IsSkipped()) return;
    rsa_key_ = SharedKey(KeyKind::k_rsa, 1);
    rsa_ = MakeClientCert(rsa_name_, rsa_key_.get());
    ec_key_ = SharedKey(KeyKind::k_ec, 2);
    ec_ = MakeClientCert(ec_name_, ec_key_.get());
  }

  // The library started on the token store, with the watch as asked.
  void Start(bool watch) {
    Init({});
    ASSERT_EQ(X509_Auth_SetTokenWatch(watch ? 1 : 0), X509_Auth_ResultCode_Success);
  }

  const std::string rsa_name_, ec_name_;
  TestKey rsa_key_, ec_key_;
  TestX509 rsa_, ec_;
};

// The digest function a hash type names.
inline const EVP_MD* DigestFor(X509_Auth_HashType type) {
  switch (type) {
    case X509_Auth_HashType_Sha1: return EVP_sha1();
    case X509_Auth_HashType_Sha256: return EVP_sha256();
    case X509_Auth_HashType_Sha384: return EVP_sha384();
    default: return EVP_sha512();
  }
}

// |message| hashed with the digest function |type| names.
inline Bytes DigestOf(X509_Auth_HashType type, const std::string& message) {
  Bytes digest(EVP_MAX_MD_SIZE);
  unsigned int length = 0;
  EVP_Digest(message.data(), message.size(), digest.data(), &length, DigestFor(type), nullptr);
  digest.resize(length);
  return digest;
}

}  // namespace x509auth_test
