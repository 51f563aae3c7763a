#pragma once
// Shared set-up for the store tests: recorded logging, the two base-directory
// lists, HOME, and a working directory whose "./opensc-pkcs11.so" is either
// OpenSC (loads, finds no readers), SoftHSM2, or absent.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "RecordingCallbacks.h"
#include "SoftHsmToken.h"
#include "TestPki.h"
#include "base/SafeCallbacksWrapper.h"
#include "base/X509Settings.h"
#include "cert/Cert.h"
#include "store/CertStore.h"

namespace quorvant::shared::x509::test {

namespace fs = std::filesystem;

inline void SetBaseDirectories(const std::vector<std::string>& directories,
                               const std::vector<std::string>& home_directories) {
  std::vector<const char*> first;
  for (const std::string& directory : directories) first.push_back(directory.c_str());
  std::vector<const char*> second;
  for (const std::string& directory : home_directories) second.push_back(directory.c_str());
  X509Settings::GetInstance().Replace(
      X509_Auth_Settings{first.data(), first.size(), second.data(), second.size()});
}

inline const CertFileContext& FileContext(const std::unique_ptr<ICertificate>& cert) {
  return *std::get<0>(cert->GetContext());
}

inline Thumbprint ThumbprintOf(X509* cert) {
  const x509auth_test::Bytes digest = x509auth_test::Sha1Thumbprint(cert);
  Thumbprint thumbprint{};
  std::copy(digest.begin(), digest.end(), thumbprint.begin());
  return thumbprint;
}

inline bool StoreHolds(X509_STORE* store, X509* cert) {
  STACK_OF(X509_OBJECT)* objects = X509_STORE_get0_objects(store);
  for (int i = 0; i < sk_X509_OBJECT_num(objects); ++i) {
    X509* held = X509_OBJECT_get0_X509(sk_X509_OBJECT_value(objects, i));
    if (held != nullptr && X509_cmp(held, cert) == 0) return true;
  }
  return false;
}

// A store test: logging recorded, empty base-directory lists, HOME in a
// temporary directory, and a working directory chosen by the module option.
class StoreTest : public ::testing::Test {
 protected:
  enum class Module { k_opensc, k_softhsm, k_none };

  void SetUp() override { SetUpWith(Module::k_opensc); }

  void SetUpWith(Module module) {
    recorder_ = &x509auth_test::RecordingCallbacks::GetInstance();
    recorder_->Reset();
    SafeCallbacksWrapper::GetInstance().Replace(recorder_->Callbacks());
    SetBaseDirectories({}, {});
    env_ = std::make_unique<x509auth_test::ScopedTestEnvironment>();
    env_->Set("HOME", (tmp_ / "home").string());
    fs::create_directories(tmp_ / "home");
    x509auth_test::SoftHsmToken::Options options;
    if (module == Module::k_opensc) options.module_link_target = OPENSC_MODULE_PATH;
    if (module == Module::k_none) options.module_link_directory.clear();
    hsm_ = std::make_unique<x509auth_test::SoftHsmToken>(options);
  }

  void TearDown() override {
    hsm_.reset();
    env_.reset();
    SetBaseDirectories({}, {});
  }

  // A self-signed certificate with its own common name.
  static x509auth_test::TestX509 NamedCert(const std::string& name, int key_index = 0) {
    x509auth_test::TestKey key = x509auth_test::SharedKey(x509auth_test::KeyKind::k_ec, key_index);
    x509auth_test::CertOptions options;
    options.common_name = name;
    return x509auth_test::MakeCert(options, key.get());
  }

  static std::vector<std::string> Names(const std::vector<std::unique_ptr<ICertificate>>& certs) {
    std::vector<std::string> names;
    for (const auto& cert : certs) names.push_back(cert->Name());
    return names;
  }

  x509auth_test::TempDir tmp_;
  x509auth_test::RecordingCallbacks* recorder_ = nullptr;
  // HOME and whatever a test sets through it, put back after the token's.
  std::unique_ptr<x509auth_test::ScopedTestEnvironment> env_;
  std::unique_ptr<x509auth_test::SoftHsmToken> hsm_;
};

// A store test over one CertStore of its own, dropped before the fixture's
// module goes: the store holds a share of the PKCS#11 context.
class CertStoreTest : public StoreTest {
 protected:
  void TearDown() override {
    store_ = CertStore();
    StoreTest::TearDown();
  }
  // Adds |cert| as its DER bytes, as a host does.
  std::uint32_t Add(X509* cert) {
    const x509auth_test::Bytes der = x509auth_test::CertToDer(cert);
    return store_.AddEncodedCertificate(der.data(), der.size());
  }

  CertStore store_;
};

}  // namespace quorvant::shared::x509::test
