// Keys held open by the host through the open-key extensions: a key file
// parsed once and used while it is the same file, read again (and its
// password asked for again) when it changes, refused when it no longer
// holds the certificate's key, and a defined failure when it is gone.
// Every signature is verified with the certificate's public key.
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "ForkedChild.h"
#include "HostFixture.h"
#include "HostOpenKeyChecks.h"

namespace x509auth_test {
namespace {

// Puts |content| in place of |path| as a new file (a new inode), as an
// editor or a renewal tool replaces a key.
void ReplaceFile(const std::filesystem::path& path, const std::string& content) {
  const std::filesystem::path fresh = path.string() + ".new";
  WriteFile(fresh, content);
  std::filesystem::rename(fresh, path);
}

class HostOpenKeyTest : public HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    ASSERT_EQ(X509_Auth_SetPkcs11Module(""), 0);
    InstallRsaAndEcFiles(Base("base"), "Open", &rsa_key_, &rsa_, &ec_key_, &ec_);
    other_key_ = SharedKey(KeyKind::k_rsa, 1);
    rsa_key_path_ = Base("base") / "keys" / "rsa.pem.key";
    Init({Base("base").string()});
  }

  void TearDown() override {
    HostTest::TearDown();
    X509_Auth_SetPkcs11Module(nullptr);
  }

  static X509_Auth_KeyHandle Open(X509* cert) {
    const Bytes thumbprint = Sha1Thumbprint(cert);
    X509_Auth_KeyHandle handle = 0;
    const X509_Auth_Result result = X509_Auth_OpenKey(thumbprint.data(), &handle);
    EXPECT_EQ(result.code, 0) << rec().Dump();
    EXPECT_NE(handle, 0u);
    return handle;
  }

  TestKey rsa_key_, ec_key_, other_key_;
  TestX509 rsa_, ec_;
  std::filesystem::path rsa_key_path_;
};

TEST_F(HostOpenKeyTest, OpenKeySignsManyTimesWithRsaAndEcAndEverySignatureVerifies) {
  const X509_Auth_KeyHandle rsa = Open(rsa_.get());
  const X509_Auth_KeyHandle ec = Open(ec_.get());
  EXPECT_NE(rsa, ec);
  for (int i = 0; i < 5; ++i) {
    bool verified = false;
    EXPECT_EQ(SignVerified(rsa, rsa_.get(), "rsa " + std::to_string(i), &verified), 0)
        << rec().Dump();
    EXPECT_TRUE(verified);
    EXPECT_EQ(SignVerified(ec, ec_.get(), "ec " + std::to_string(i), &verified), 0);
    EXPECT_TRUE(verified);
  }
  EXPECT_EQ(X509_Auth_CloseKey(rsa), 0);
  EXPECT_EQ(X509_Auth_CloseKey(ec), 0);
  for (const LogEntry& entry : rec().Logs())
    EXPECT_LT(entry.priority, X509_Auth_LogPriority_Error) << entry.text;
}

TEST_F(HostOpenKeyTest, OpenKeySignsWithPssAndDecryptsWithBothPaddings) {
  const X509_Auth_KeyHandle rsa = Open(rsa_.get());
  const Bytes digest = DigestOf(X509_Auth_HashType_Sha384, "pss");
  ASSERT_NO_FATAL_FAILURE(
      ExpectPssSignatureVerifies(rsa, rsa_.get(), X509_Auth_HashType_Sha384, digest));
  ASSERT_NO_FATAL_FAILURE(
      ExpectDecryptsWithBothPaddings(rsa, rsa_.get(), {1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST_F(HostOpenKeyTest, PasswordIsAskedOncePerOpenAndAgainOnlyAfterTheFileChanges) {
  WriteFile(rsa_key_path_, KeyToPem(rsa_key_.get(), "secret"));
  rec().Reset();
  rec().ScriptAnswer(PinAnswer::Value("secret"));
  const X509_Auth_KeyHandle rsa = Open(rsa_.get());
  EXPECT_EQ(rec().Prompts().size(), 1u);
  bool verified = false;
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(SignVerified(rsa, rsa_.get(), "kept", &verified), 0) << rec().Dump();
    EXPECT_TRUE(verified);
  }
  EXPECT_EQ(rec().Prompts().size(), 1u);
  EXPECT_EQ(rec().Releases(), 1);

  // The same key under another password: read again, asked again, once.
  ReplaceFile(rsa_key_path_, KeyToPem(rsa_key_.get(), "changed"));
  rec().ScriptAnswer(PinAnswer::Value("changed"));
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(SignVerified(rsa, rsa_.get(), "again", &verified), 0) << rec().Dump();
    EXPECT_TRUE(verified);
  }
  EXPECT_EQ(rec().Prompts().size(), 2u);

  // A second open of the same key asks for itself.
  rec().ScriptAnswer(PinAnswer::Value("changed"));
  const X509_Auth_KeyHandle second = Open(rsa_.get());
  EXPECT_EQ(rec().Prompts().size(), 3u);
  EXPECT_EQ(X509_Auth_CloseKey(second), 0);
  EXPECT_EQ(X509_Auth_CloseKey(rsa), 0);
}

TEST_F(HostOpenKeyTest, WrongPasswordAtOpenIsKeyOpenFailedWithNoHandle) {
  WriteFile(rsa_key_path_, KeyToPem(rsa_key_.get(), "secret"));
  rec().ScriptAnswer(PinAnswer::Value("wrong"));
  const Bytes thumbprint = Sha1Thumbprint(rsa_.get());
  X509_Auth_KeyHandle handle = 77;
  EXPECT_EQ(X509_Auth_OpenKey(thumbprint.data(), &handle).code, X509_Auth_ResultCode_KeyOpenFailed);
  EXPECT_EQ(handle, 0u);
  EXPECT_EQ(rec().Prompts().size(), 1u);
  EXPECT_EQ(rec().WithFormat("Failed to parse private key file [%s]").size(), 1u) << rec().Dump();
}

TEST_F(HostOpenKeyTest, KeyFileRewrittenInPlaceWithTheSameKeyIsReadAgainAndSigns) {
  const X509_Auth_KeyHandle rsa = Open(rsa_.get());
  // Rewritten in place (same inode), now password-protected and longer:
  // the prompt shows that the file was read again.
  WriteFile(rsa_key_path_, KeyToPem(rsa_key_.get(), "pw"));
  rec().ScriptAnswer(PinAnswer::Value("pw"));
  bool verified = false;
  EXPECT_EQ(SignVerified(rsa, rsa_.get(), "rewritten", &verified), 0) << rec().Dump();
  EXPECT_TRUE(verified);
  EXPECT_EQ(rec().Prompts().size(), 1u);
}

TEST_F(HostOpenKeyTest, KeyFileReplacedByAnotherKeyIsRefusedWithOneLineUntilTheKeyComesBack) {
  const X509_Auth_KeyHandle rsa = Open(rsa_.get());
  const std::string original = KeyToPem(rsa_key_.get());
  ReplaceFile(rsa_key_path_, KeyToPem(other_key_.get()));
  rec().Reset();
  bool verified = true;
  EXPECT_EQ(SignVerified(rsa, rsa_.get(), "other", &verified), X509_Auth_ResultCode_KeyMismatch);
  EXPECT_FALSE(verified);
  const auto lines = rec().WithFormat("Private key file [%s] does not appear to match cert [%s]");
  ASSERT_EQ(lines.size(), 1u) << rec().Dump();
  EXPECT_EQ(lines[0].text, "Private key file [" + rsa_key_path_.string() +
                               "] does not appear to match cert [" +
                               (Base("base") / "certs" / "rsa.pem").string() + "]");
  EXPECT_EQ(lines[0].priority, X509_Auth_LogPriority_Error);

  // Decryption is refused the same way.
  const Bytes ciphertext = EncryptToCertificate(rsa_.get(), RSA_PKCS1_PADDING, Bytes(4, 9));
  const X509_Auth_ASN_1* plaintext = nullptr;
  EXPECT_EQ(X509_Auth_OpenKeyDecrypt(rsa, X509_Auth_DecryptAlgorithm_RsaPkcs1, ciphertext.size(),
                                     ciphertext.data(), &plaintext)
                .code,
            X509_Auth_ResultCode_KeyMismatch);
  EXPECT_EQ(plaintext, nullptr);

  ReplaceFile(rsa_key_path_, original);
  EXPECT_EQ(SignVerified(rsa, rsa_.get(), "back", &verified), 0) << rec().Dump();
  EXPECT_TRUE(verified);
}

TEST_F(HostOpenKeyTest, KeyFileRewrittenInPlaceAtOnceWithAKeyOfTheSameSizeIsSeen) {
  const X509_Auth_KeyHandle ec = Open(ec_.get());
  const std::filesystem::path ec_key_path = Base("base") / "keys" / "ec.pem.key";
  const std::string original = KeyToPem(ec_key_.get());
  TestKey other = MakeKey(KeyKind::k_ec);
  const std::string replacement = KeyToPem(other.get());
  ASSERT_EQ(replacement.size(), original.size());
  // Same inode, same size, and quite possibly the same times: the bytes
  // tell.
  WriteFile(ec_key_path, replacement);
  bool verified = true;
  EXPECT_EQ(SignVerified(ec, ec_.get(), "same size", &verified), X509_Auth_ResultCode_KeyMismatch)
      << rec().Dump();
  WriteFile(ec_key_path, original);
  EXPECT_EQ(SignVerified(ec, ec_.get(), "original", &verified), 0) << rec().Dump();
  EXPECT_TRUE(verified);
}

TEST_F(HostOpenKeyTest, DeletedKeyFileIsKeyOpenFailedAndSignsAgainWhenPutBack) {
  const X509_Auth_KeyHandle ec_handle = Open(ec_.get());
  const std::filesystem::path ec_key_path = Base("base") / "keys" / "ec.pem.key";
  const std::string original = KeyToPem(ec_key_.get());
  std::filesystem::remove(ec_key_path);
  rec().Reset();
  bool verified = true;
  EXPECT_EQ(SignVerified(ec_handle, ec_.get(), "gone", &verified),
            X509_Auth_ResultCode_KeyOpenFailed);
  EXPECT_FALSE(verified);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error, "Private key file [%s] does not exist",
                        "Private key file [" + ec_key_path.string() + "] does not exist"))
      << rec().Dump();

  WriteFile(ec_key_path, original);
  EXPECT_EQ(SignVerified(ec_handle, ec_.get(), "back", &verified), 0) << rec().Dump();
  EXPECT_TRUE(verified);
}

TEST_F(HostOpenKeyTest, BadArgumentsAndUnknownHandlesAreResultCodesWithALine) {
  const Bytes digest = DigestOf(X509_Auth_HashType_Sha256, "bad");
  const Bytes thumbprint = Sha1Thumbprint(ec_.get());
  X509_Auth_KeyHandle handle = 5;
  EXPECT_EQ(X509_Auth_OpenKey(nullptr, &handle).code, X509_Auth_ResultCode_InvalidArgument);
  EXPECT_EQ(handle, 0u);
  EXPECT_EQ(X509_Auth_OpenKey(thumbprint.data(), nullptr).code,
            X509_Auth_ResultCode_InvalidArgument);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error, "%s: invalid argument",
                        "X509_Auth_OpenKey: invalid argument"));
  const Bytes unknown(20, 0xcd);
  EXPECT_EQ(X509_Auth_OpenKey(unknown.data(), &handle).code,
            X509_Auth_ResultCode_CertificateNotFound);
  EXPECT_EQ(handle, 0u);

  const X509_Auth_KeyHandle ec = Open(ec_.get());
  const X509_Auth_Signature* signature = nullptr;
  const uint32_t rsa_only[] = {X509_Auth_Algorithm_Rsa};
  const uint32_t too_high[] = {3};
  EXPECT_EQ(X509_Auth_OpenKeySignHash(ec, 1, rsa_only, X509_Auth_HashType_Sha256, digest.data(),
                                      &signature)
                .code,
            X509_Auth_ResultCode_AlgorithmNotSupported);
  EXPECT_EQ(X509_Auth_OpenKeySignHash(ec, 1, too_high, X509_Auth_HashType_Sha256, digest.data(),
                                      &signature)
                .code,
            X509_Auth_ResultCode_InvalidArgument);
  EXPECT_EQ(X509_Auth_OpenKeySignHash(ec, 2, k_rsa_and_ec, 4, digest.data(), &signature).code,
            X509_Auth_ResultCode_InvalidArgument);
  EXPECT_EQ(
      X509_Auth_OpenKeySignHash(ec, 2, k_rsa_and_ec, X509_Auth_HashType_Sha256, nullptr, &signature)
          .code,
      X509_Auth_ResultCode_InvalidArgument);
  EXPECT_EQ(
      X509_Auth_OpenKeySignHashPss(ec, X509_Auth_HashType_Sha256, digest.data(), -1, &signature)
          .code,
      X509_Auth_ResultCode_AlgorithmNotSupported);
  EXPECT_EQ(signature, nullptr);
  const X509_Auth_ASN_1* plaintext = nullptr;
  EXPECT_EQ(X509_Auth_OpenKeyDecrypt(ec, X509_Auth_DecryptAlgorithm_RsaPkcs1, 4, digest.data(),
                                     &plaintext)
                .code,
            X509_Auth_ResultCode_AlgorithmNotSupported);
  EXPECT_EQ(X509_Auth_OpenKeyDecrypt(ec, 3, 4, digest.data(), &plaintext).code,
            X509_Auth_ResultCode_InvalidArgument);
  EXPECT_EQ(plaintext, nullptr);

  rec().Reset();
  const X509_Auth_KeyHandle never = ec + 1000;
  EXPECT_EQ(X509_Auth_OpenKeySignHash(never, 2, k_rsa_and_ec, X509_Auth_HashType_Sha256,
                                      digest.data(), &signature)
                .code,
            X509_Auth_ResultCode_InvalidArgument);
  EXPECT_TRUE(
      rec().Has(X509_Auth_LogPriority_Error, "%s: no open key has handle %llu",
                "X509_Auth_OpenKeySignHash: no open key has handle " + std::to_string(never)))
      << rec().Dump();
  EXPECT_EQ(X509_Auth_CloseKey(ec), 0);
  // Closed: the handle names nothing any more, also for a second close.
  EXPECT_EQ(X509_Auth_OpenKeySignHash(ec, 2, k_rsa_and_ec, X509_Auth_HashType_Sha256, digest.data(),
                                      &signature)
                .code,
            X509_Auth_ResultCode_InvalidArgument);
  EXPECT_EQ(X509_Auth_CloseKey(ec), X509_Auth_ResultCode_InvalidArgument);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error,
                        "X509_Auth_CloseKey: no open key has handle %llu",
                        "X509_Auth_CloseKey: no open key has handle " + std::to_string(ec)));
}

TEST_F(HostOpenKeyTest, AddedCaCertificateIsNotFoundAsBySignHash) {
  TestKey key = SharedKey(KeyKind::k_ec, 1);
  TestX509 added = MakeClientCert("Added", key.get());
  const Bytes der = CertToDer(added.get());
  ASSERT_EQ(X509_Auth_AddAdditionalCertificateAuthorityToStore(der.data(), der.size()), 1);
  const Bytes thumbprint = Sha1Thumbprint(added.get());
  X509_Auth_KeyHandle handle = 0;
  EXPECT_EQ(X509_Auth_OpenKey(thumbprint.data(), &handle).code,
            X509_Auth_ResultCode_CertificateNotFound);
  EXPECT_EQ(handle, 0u);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error,
                        "Failed to find certificate thumbprint (error: %d)",
                        "Failed to find certificate thumbprint (error: 1)"))
      << rec().Dump();
  const Bytes digest = DigestOf(X509_Auth_HashType_Sha256, "added");
  const X509_Auth_Signature* signature = nullptr;
  EXPECT_EQ(X509_Auth_SignHash(thumbprint.data(), 2, k_rsa_and_ec, X509_Auth_HashType_Sha256,
                               digest.data(), &signature)
                .code,
            X509_Auth_ResultCode_CertificateNotFound);
}

TEST_F(HostOpenKeyTest, DeInitAndInitEndEveryOpenKeyAndHandlesAreNeverReused) {
  const X509_Auth_KeyHandle first = Open(ec_.get());
  X509_Auth_DeInit();
  const Bytes digest = DigestOf(X509_Auth_HashType_Sha256, "after");
  const X509_Auth_Signature* signature = nullptr;
  EXPECT_EQ(X509_Auth_OpenKeySignHash(first, 2, k_rsa_and_ec, X509_Auth_HashType_Sha256,
                                      digest.data(), &signature)
                .code,
            X509_Auth_ResultCode_InvalidArgument);
  EXPECT_EQ(X509_Auth_CloseKey(first), X509_Auth_ResultCode_InvalidArgument);

  Init({Base("base").string()});
  const X509_Auth_KeyHandle second = Open(ec_.get());
  EXPECT_GT(second, first);
  Init({Base("base").string()});
  EXPECT_EQ(X509_Auth_CloseKey(second), X509_Auth_ResultCode_InvalidArgument);
  const X509_Auth_KeyHandle third = Open(ec_.get());
  bool verified = false;
  EXPECT_EQ(SignVerified(third, ec_.get(), "third", &verified), 0);
  EXPECT_TRUE(verified);
}

TEST_F(HostOpenKeyTest, KeysLeftOpenAtExitAreFreedWithTheProcessWithoutACrash) {
  // A host that opens keys, signs and exits without closing them or calling
  // X509_Auth_DeInit: the kept keys go with the library's static objects at
  // exit.
  const std::string report = HostProcessEnd([this] {
    const X509_Auth_KeyHandle rsa = Open(rsa_.get());
    const X509_Auth_KeyHandle ec = Open(ec_.get());
    bool verified = false;
    const bool signed_both = SignVerified(rsa, rsa_.get(), "exit", &verified) == 0 && verified &&
                             SignVerified(ec, ec_.get(), "exit", &verified) == 0 && verified;
    return signed_both ? 0 : 3;
  });
  EXPECT_EQ(report, "exit 0");
}

void EndLibraryAtExit() { X509_Auth_DeInit(); }

TEST_F(HostOpenKeyTest, LibraryEndedByAnExitHandlerAfterItsCachesAreFilledExitsCleanly) {
  // A certificate whose CA is in no added file sends the chain check to the
  // system's CA directory, whose listing the library keeps.
  const ForeignClient foreign = MakeClientOfUnknownCa("Foreign");
  InstallFileCert(Base("base"), "foreign.pem", foreign.leaf.get(), foreign.leaf_key.get());
  // The handler is registered before the library fills its process-wide
  // caches (the CA directory's listing, the plain key kept for
  // X509_Auth_SignHash), so it runs after their static objects would be
  // gone, as a provider ended by OpenSSL's cleanup is.
  const std::string report = HostProcessEnd([this] {
    std::atexit(EndLibraryAtExit);
    uint64_t count = 0;
    const X509_Auth_Certificate* records = nullptr;
    if (!X509_Auth_LoadClientCertificates(&count, &records)) std::_Exit(3);
    X509_Auth_Free(records);
    const Bytes thumbprint = Sha1Thumbprint(rsa_.get());
    const Bytes digest = DigestOf(X509_Auth_HashType_Sha256, "kept");
    const X509_Auth_Signature* signature = nullptr;
    const X509_Auth_Result result = X509_Auth_SignHash(
        thumbprint.data(), 2, k_rsa_and_ec, X509_Auth_HashType_Sha256, digest.data(), &signature);
    X509_Auth_Free(signature);
    return result.code == 0 ? 0 : 4;
  });
  EXPECT_EQ(report, "exit 0");
}

}  // namespace
}  // namespace x509auth_test
