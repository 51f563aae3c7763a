// The library's own copies of secrets are wiped before their memory goes
// back: decrypted data kept for the host, the bytes of a DER key file, the
// stdio buffer a PEM key file was read through. A test observer sees each
// buffer after the wipe and before its release.
#include <gtest/gtest.h>
#include <openssl/rsa.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <vector>

#include "RecordingCallbacks.h"
#include "ScopedTestEnvironment.h"
#include "TestPki.h"
#include "WipedBuffers.h"
#include "base/SafeCallbacksWrapper.h"
#include "base/SecretWipe.h"
#include "base/X509Settings.h"
#include "files/PrivateKeyFiles.h"
#include "keystore/KeyStore.h"

namespace quorvant::shared::x509 {
namespace {

namespace fs = std::filesystem;
using x509auth_test::Bytes;

using x509auth_test::WipedBuffers;

class SecretWipeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    x509auth_test::RecordingCallbacks::GetInstance().Reset();
    SafeCallbacksWrapper::GetInstance().Replace(
        x509auth_test::RecordingCallbacks::GetInstance().Callbacks());
    WipedBuffers().clear();
    SecretWipe::SetObserverForTesting(x509auth_test::RecordWipedBuffer);
    x509auth_test::ScopedTestEnvironment::LinkModule(tmp_ / "work", OPENSC_MODULE_PATH);
    ASSERT_TRUE(env_.Enter(tmp_ / "work"));
    key_ = x509auth_test::SharedKey(x509auth_test::KeyKind::k_rsa);
    x509auth_test::CertOptions options;
    options.extended_key_usage = "clientAuth";
    cert_ = x509auth_test::MakeCert(options, key_.get());
  }
  void TearDown() override { SecretWipe::SetObserverForTesting(nullptr); }

  // A file certificate with its key in PEM, under one base directory.
  void InstallAndConfigure() {
    x509auth_test::InstallFileCert(tmp_ / "base", "rsa.pem", cert_.get(), key_.get());
    const std::string base = (tmp_ / "base").string();
    const char* dirs[] = {base.c_str()};
    X509Settings::GetInstance().Replace(X509_Auth_Settings{dirs, 1, nullptr, 0});
  }

  const X509_Auth_ASN_1* Decrypt(KeyStore& store, const Bytes& secret) {
    const Bytes ciphertext =
        x509auth_test::EncryptToCertificate(cert_.get(), RSA_PKCS1_OAEP_PADDING, secret);
    Thumbprint thumbprint{};
    const Bytes sha1 = x509auth_test::Sha1Thumbprint(cert_.get());
    std::copy(sha1.begin(), sha1.end(), thumbprint.begin());
    return store.Decrypt(thumbprint, DecryptAlgorithm::k_rsa_oaep, ciphertext).record;
  }

  static bool WipedOneOf(std::size_t at_least) {
    return std::any_of(
        WipedBuffers().begin(), WipedBuffers().end(),
        [&](const x509auth_test::WipedBuffer& r) { return r.wiped && r.size >= at_least; });
  }

  x509auth_test::TempDir tmp_;
  // After tmp_: the working directory is left before the directory goes.
  x509auth_test::ScopedTestEnvironment env_;
  x509auth_test::TestKey key_;
  x509auth_test::TestX509 cert_;
};

TEST_F(SecretWipeTest, DecryptedDataIsWipedWhenTheHostFreesIt) {
  InstallAndConfigure();
  KeyStore store;
  const Bytes secret(48, 0xA5);
  const X509_Auth_ASN_1* plaintext = Decrypt(store, secret);
  ASSERT_NE(plaintext, nullptr) << x509auth_test::RecordingCallbacks::GetInstance().Dump();
  ASSERT_EQ(Bytes(plaintext->data, plaintext->data + plaintext->length), secret);
  WipedBuffers().clear();
  store.Free(plaintext);
  ASSERT_EQ(WipedBuffers().size(), 1u);
  EXPECT_TRUE(WipedBuffers()[0].wiped);
  EXPECT_GE(WipedBuffers()[0].size, secret.size());
}

TEST_F(SecretWipeTest, DecryptedDataStillHeldIsWipedWithTheKeyStore) {
  InstallAndConfigure();
  auto store = std::make_unique<KeyStore>();
  ASSERT_NE(Decrypt(*store, Bytes(16, 0x3C)), nullptr);
  ASSERT_NE(Decrypt(*store, Bytes(24, 0x3D)), nullptr);
  WipedBuffers().clear();
  store.reset();
  ASSERT_EQ(WipedBuffers().size(), 2u);
  EXPECT_TRUE(WipedBuffers()[0].wiped && WipedBuffers()[1].wiped);
}

TEST_F(SecretWipeTest, DerKeyFileBytesAreWipedAfterParsing) {
  const Bytes der = x509auth_test::KeyToDer(key_.get());
  x509auth_test::WriteFile(tmp_ / "key.der", der);
  WipedBuffers().clear();
  EXPECT_NE(ReadPrivateKeyFromDerFile(tmp_ / "key.der"), nullptr);
  ASSERT_EQ(WipedBuffers().size(), 1u);
  EXPECT_TRUE(WipedBuffers()[0].wiped);
  EXPECT_EQ(WipedBuffers()[0].size, der.size());
}

TEST_F(SecretWipeTest, StdioBufferOfAPemKeyFileIsWipedAfterClosing) {
  x509auth_test::WriteFile(tmp_ / "key.pem", x509auth_test::KeyToPem(key_.get()));
  WipedBuffers().clear();
  EXPECT_NE(ReadPrivateKeyFromPemFile(tmp_ / "key.pem"), nullptr);
  ASSERT_EQ(WipedBuffers().size(), 1u);
  EXPECT_TRUE(WipedBuffers()[0].wiped);
  EXPECT_EQ(WipedBuffers()[0].size, static_cast<std::size_t>(BUFSIZ));
}

TEST_F(SecretWipeTest, KeyFileReadForSigningLeavesOnlyWipedBuffers) {
  // A DER key reached through the certificate: the PEM attempt's buffer and
  // the file's bytes are both wiped.
  const Bytes der = x509auth_test::KeyToDer(key_.get());
  x509auth_test::WriteFile(tmp_ / "key.der", der);
  WipedBuffers().clear();
  EXPECT_NE(GetPrivateKeyForX509Cert(cert_.get(), "cert.pem", tmp_ / "key.der"), nullptr);
  ASSERT_EQ(WipedBuffers().size(), 2u);
  EXPECT_TRUE(WipedBuffers()[0].wiped && WipedBuffers()[1].wiped);
  EXPECT_TRUE(WipedOneOf(der.size()));
}

}  // namespace
}  // namespace quorvant::shared::x509
