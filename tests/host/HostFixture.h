#pragma once
// A host's view of the library: only x509_auth.h and the shared library.
// Each test gets its own working directory (holding the PKCS#11 module link
// the library looks for), its own HOME and its own certificate directories.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
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

  std::optional<SoftHsmToken> hsm_;
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
