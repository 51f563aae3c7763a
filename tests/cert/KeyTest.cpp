#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <string>
#include <vector>

#include "FakeCertificate.h"
#include "RecordedCallbacksTest.h"
#include "TestPki.h"
#include "base/SafeCallbacksWrapper.h"
#include "cert/Key.h"

namespace quorvant::shared::x509 {
namespace {

using namespace x509auth_test;

constexpr const char* k_file_cert_failed = "Error loading private key for file system cert: [%s]";
constexpr const char* k_encoded = "Cannot load private key for encoded cert: [%s]";
constexpr const char* k_unknown_algorithm = "Unknown algorithm: [%i]";
constexpr const char* k_decrypt_failed = "Error calling EVP_PKEY_decrypt. Error code: [%i]";

// A key file and its self-signed certificate of one kind.
struct FileCredential {
  TestKey key;
  TestX509 cert;
  std::filesystem::path cert_path;
  std::filesystem::path key_path;
};

class KeyTest : public RecordedCallbacksTest {
 protected:
  FileCredential Credential(KeyKind kind, const std::string& name, const char* password = nullptr) {
    FileCredential credential;
    credential.key = SharedKey(kind);
    CertOptions options;
    options.common_name = name;
    credential.cert = MakeCert(options, credential.key.get());
    credential.cert_path = dir_ / "certs" / name;
    credential.key_path = dir_ / "keys" / (name + ".key");
    WriteFile(credential.cert_path, x509auth_test::CertToPem(credential.cert.get()));
    WriteFile(credential.key_path, KeyToPem(credential.key.get(), password));
    return credential;
  }
  static FakeCertificate FileCert(const FileCredential& credential) {
    return FakeCertificate::File(credential.cert.get(), credential.cert_path, credential.key_path);
  }
  // Opens |key| from a fresh key file of |kind| and expects success.
  FileCredential OpenFresh(Key& key, KeyKind kind) {
    FileCredential credential = Credential(kind, "Signer");
    const FakeCertificate cert = FileCert(credential);
    EXPECT_EQ(key.Open(cert), 0) << rec().Dump();
    return credential;
  }

  TempDir dir_;
};

Bytes Hash(std::size_t length, unsigned char seed = 0x31) {
  Bytes hash(length);
  for (std::size_t i = 0; i < length; ++i) hash[i] = static_cast<unsigned char>(seed + i * 7);
  return hash;
}

bool VerifyRsaPkcs1(EVP_PKEY* public_key, const EVP_MD* digest, const Bytes& hash,
                    const Bytes& signature) {
  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new(public_key, nullptr));
  return ctx && EVP_PKEY_verify_init(ctx.get()) == 1 &&
         EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) == 1 &&
         EVP_PKEY_CTX_set_signature_md(ctx.get(), digest) == 1 &&
         EVP_PKEY_verify(ctx.get(), signature.data(), signature.size(), hash.data(), hash.size()) ==
             1;
}

bool VerifyEcdsa(EVP_PKEY* public_key, const Bytes& hash, const Bytes& signature) {
  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new(public_key, nullptr));
  return ctx && EVP_PKEY_verify_init(ctx.get()) == 1 &&
         EVP_PKEY_verify(ctx.get(), signature.data(), signature.size(), hash.data(), hash.size()) ==
             1;
}

// |key| signs a 32-byte hash with what |cert|'s ECDSA public key verifies.
void ExpectEcdsaSignatureVerifiedBy(Key& key, X509* cert) {
  Bytes signature;
  const Bytes hash = Hash(32);
  ASSERT_EQ(key.Sign(hash, &signature).code, 0);
  EXPECT_TRUE(VerifyEcdsa(X509_get0_pubkey(cert), hash, signature));
}

// |message| encrypted to |cert|'s public key.
Bytes Encrypt(X509* cert, int padding, const Bytes& message) {
  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new(X509_get0_pubkey(cert), nullptr));
  EXPECT_EQ(EVP_PKEY_encrypt_init(ctx.get()), 1);
  EXPECT_EQ(EVP_PKEY_CTX_set_rsa_padding(ctx.get(), padding), 1);
  std::size_t length = 0;
  EXPECT_EQ(EVP_PKEY_encrypt(ctx.get(), nullptr, &length, message.data(), message.size()), 1);
  Bytes out(length);
  EXPECT_EQ(EVP_PKEY_encrypt(ctx.get(), out.data(), &length, message.data(), message.size()), 1);
  out.resize(length);
  return out;
}

// ---- Open ----

TEST_F(KeyTest, FreshKeyHasUnknownAlgorithm) {
  Key key;
  EXPECT_EQ(key.Algorithm(), Algorithm::k_unknown);
}

TEST_F(KeyTest, OpenPlainRsaKeyFileClassifiesRsaWithoutLogOrPrompt) {
  Key key;
  OpenFresh(key, KeyKind::k_rsa);
  EXPECT_EQ(key.Algorithm(), Algorithm::k_rsa);
  EXPECT_TRUE(rec().Logs().empty()) << rec().Dump();
  EXPECT_TRUE(rec().Prompts().empty());
}

TEST_F(KeyTest, OpenPlainEcKeyFileClassifiesEc) {
  Key key;
  OpenFresh(key, KeyKind::k_ec);
  EXPECT_EQ(key.Algorithm(), Algorithm::k_ec);
  EXPECT_TRUE(rec().Logs().empty()) << rec().Dump();
}

TEST_F(KeyTest, OpenEncryptedKeyFilePromptsOnceAndReleases) {
  const FileCredential credential = Credential(KeyKind::k_rsa, "Locked", "s3cret");
  rec().ScriptAnswer(PinAnswer::Value("s3cret"));
  Key key;
  EXPECT_EQ(key.Open(FileCert(credential)), 0) << rec().Dump();
  EXPECT_EQ(key.Algorithm(), Algorithm::k_rsa);
  ASSERT_EQ(rec().Prompts().size(), 1u);
  EXPECT_EQ(rec().Prompts()[0].title, "Enter password");
  EXPECT_EQ(rec().Prompts()[0].prompt, "Enter password for: " + credential.key_path.string());
  EXPECT_EQ(rec().Outstanding(), 0);
}

TEST_F(KeyTest, OpenWithMissingKeyFileLogsCertPathAndFails) {
  FileCredential credential = Credential(KeyKind::k_rsa, "NoKey");
  std::filesystem::remove(credential.key_path);
  Key key;
  EXPECT_EQ(key.Open(FileCert(credential)), 1);
  EXPECT_EQ(key.Algorithm(), Algorithm::k_unknown);
  ASSERT_EQ(rec().Logs().size(), 2u) << rec().Dump();
  EXPECT_EQ(rec().Logs()[0].format, "Private key file [%s] does not exist");
  EXPECT_TRUE(rec().Has(
      X509_Auth_LogPriority_Error, k_file_cert_failed,
      "Error loading private key for file system cert: [" + credential.cert_path.string() + "]"));
  EXPECT_EQ(rec().Logs()[1].format, k_file_cert_failed);
}

TEST_F(KeyTest, OpenWithWrongPasswordFails) {
  const FileCredential credential = Credential(KeyKind::k_rsa, "Locked", "s3cret");
  rec().ScriptAnswer(PinAnswer::Value("wrong"));
  Key key;
  EXPECT_EQ(key.Open(FileCert(credential)), 1);
  EXPECT_EQ(rec().WithFormat(k_file_cert_failed).size(), 1u) << rec().Dump();
}

TEST_F(KeyTest, OpenWithKeyOfAnotherCertificateFails) {
  FileCredential credential = Credential(KeyKind::k_rsa, "Mismatch");
  const TestKey other = SharedKey(KeyKind::k_rsa, 1);
  WriteFile(credential.key_path, KeyToPem(other.get()));
  Key key;
  EXPECT_EQ(key.Open(FileCert(credential)), 1);
  EXPECT_EQ(rec().WithFormat("Private key file [%s] does not appear to match cert [%s]").size(),
            1u);
  EXPECT_EQ(rec().WithFormat(k_file_cert_failed).size(), 1u) << rec().Dump();
}

TEST_F(KeyTest, OpenRsaPssKeyFailsAsUnknownAlgorithm912) {
  const FileCredential credential = Credential(KeyKind::k_rsa_pss, "Pss");
  Key key;
  EXPECT_EQ(key.Open(FileCert(credential)), 1);
  EXPECT_EQ(key.Algorithm(), Algorithm::k_unknown);
  ASSERT_EQ(rec().Logs().size(), 1u) << rec().Dump();
  EXPECT_TRUE(
      rec().Has(X509_Auth_LogPriority_Error, k_unknown_algorithm, "Unknown algorithm: [912]"));
}

TEST_F(KeyTest, OpenEd25519KeyFailsAsUnknownAlgorithm1087) {
  const FileCredential credential = Credential(KeyKind::k_ed25519, "Edwards");
  Key key;
  EXPECT_EQ(key.Open(FileCert(credential)), 1);
  EXPECT_EQ(key.Algorithm(), Algorithm::k_unknown);
  EXPECT_TRUE(
      rec().Has(X509_Auth_LogPriority_Error, k_unknown_algorithm, "Unknown algorithm: [1087]"));
}

TEST_F(KeyTest, OpenEncodedCertOnFreshKeyLogsNameThenClassifiesNoKeyAsFailure) {
  const TestKey signer = SharedKey(KeyKind::k_rsa);
  const TestX509 cert = MakeCert(CertOptions{}, signer.get());
  Key key;
  EXPECT_EQ(key.Open(FakeCertificate::Encoded(cert.get(), "Added CA")), 1);
  EXPECT_EQ(key.Algorithm(), Algorithm::k_unknown);
  ASSERT_EQ(rec().Logs().size(), 2u) << rec().Dump();
  EXPECT_EQ(rec().Logs()[0].priority, X509_Auth_LogPriority_Error);
  EXPECT_EQ(rec().Logs()[0].format, k_encoded);
  EXPECT_EQ(rec().Logs()[0].text, "Cannot load private key for encoded cert: [Added CA]");
  // No key has no type: EVP_PKEY_NONE, i.e. 0.
  EXPECT_EQ(rec().Logs()[1].priority, X509_Auth_LogPriority_Error);
  EXPECT_EQ(rec().Logs()[1].format, k_unknown_algorithm);
  EXPECT_EQ(rec().Logs()[1].text, "Unknown algorithm: [0]");
}

TEST_F(KeyTest, OpenEncodedCertKeepsAndClassifiesTheKeyAlreadyHeld) {
  Key key;
  const FileCredential credential = OpenFresh(key, KeyKind::k_ec);
  const TestKey other = SharedKey(KeyKind::k_rsa);
  const TestX509 cert = MakeCert(CertOptions{}, other.get());
  EXPECT_EQ(key.Open(FakeCertificate::Encoded(cert.get())), 0);
  EXPECT_EQ(key.Algorithm(), Algorithm::k_ec);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error, k_encoded,
                        "Cannot load private key for encoded cert: [Encoded Cert]"));
  // The held key still signs.
  ExpectEcdsaSignatureVerifiedBy(key, credential.cert.get());
}

TEST_F(KeyTest, ReopeningReplacesTheKeyAndItsAlgorithm) {
  Key key;
  OpenFresh(key, KeyKind::k_rsa);
  const FileCredential ec = Credential(KeyKind::k_ec, "Second");
  EXPECT_EQ(key.Open(FileCert(ec)), 0);
  EXPECT_EQ(key.Algorithm(), Algorithm::k_ec);
  ExpectEcdsaSignatureVerifiedBy(key, ec.cert.get());
}

TEST_F(KeyTest, FailedReopenDropsTheKeySoSigningFailsWithoutCrash) {
  Key key;
  OpenFresh(key, KeyKind::k_rsa);
  FileCredential missing = Credential(KeyKind::k_rsa, "Gone");
  std::filesystem::remove(missing.key_path);
  EXPECT_EQ(key.Open(FileCert(missing)), 1);
  rec().Reset();
  Bytes signature{7};
  const ResultPair result = key.Sign(Hash(32), &signature);
  EXPECT_EQ(result.code, 1);
  EXPECT_EQ(result.detail, 0u);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error,
                        "Key::Sign unable to create private key context",
                        "Key::Sign unable to create private key context"))
      << rec().Dump();
  EXPECT_EQ(signature, Bytes{7});
}

TEST_F(KeyTest, CloseResetsAlgorithmOnlySoOperationsAreUnsupported) {
  Key key;
  OpenFresh(key, KeyKind::k_rsa);
  key.Close();
  EXPECT_EQ(key.Algorithm(), Algorithm::k_unknown);
  Bytes signature{1, 2};
  const ResultPair sign = key.Sign(Hash(32), &signature);
  EXPECT_EQ(sign.code, 6);
  EXPECT_EQ(sign.detail, 0u);
  EXPECT_EQ(signature, (Bytes{1, 2}));
  Bytes plaintext;
  EXPECT_EQ(key.Decrypt(DecryptAlgorithm::k_rsa_pkcs1, Bytes(256, 1), &plaintext).code, 6);
  EXPECT_TRUE(rec().Logs().empty()) << rec().Dump();
}

// ---- Sign ----

struct DigestCase {
  std::size_t length;
  const EVP_MD* (*digest)();
  const char* name;
};

void PrintTo(const DigestCase& digest_case, std::ostream* out) { *out << digest_case.name; }

class RsaSignDigests : public KeyTest, public ::testing::WithParamInterface<DigestCase> {};

TEST_P(RsaSignDigests, SignatureVerifiesWithCertificatePublicKeyAndDigestOfHashLength) {
  Key key;
  const FileCredential credential = OpenFresh(key, KeyKind::k_rsa);
  const Bytes hash = Hash(GetParam().length);
  Bytes signature(1000, 0xEE);  // older, longer contents are replaced
  const ResultPair result = key.Sign(hash, &signature);
  ASSERT_EQ(result.code, 0) << rec().Dump();
  EXPECT_EQ(result.detail, 0u);
  EXPECT_EQ(signature.size(), 256u);
  EVP_PKEY* public_key = X509_get0_pubkey(credential.cert.get());
  EXPECT_TRUE(VerifyRsaPkcs1(public_key, GetParam().digest(), hash, signature));
  // The DigestInfo names the digest: a same-length hash of another name
  // would not verify (SHA-1 versus RIPEMD-160 share 20 bytes).
  if (GetParam().length == 20) {
    EXPECT_FALSE(VerifyRsaPkcs1(public_key, EVP_ripemd160(), hash, signature));
  }
  EXPECT_TRUE(rec().Logs().empty()) << rec().Dump();
}

INSTANTIATE_TEST_SUITE_P(Lengths, RsaSignDigests,
                         ::testing::Values(DigestCase{20, EVP_sha1, "Sha1"},
                                           DigestCase{32, EVP_sha256, "Sha256"},
                                           DigestCase{48, EVP_sha384, "Sha384"},
                                           DigestCase{64, EVP_sha512, "Sha512"}),
                         [](const auto& info) { return std::string(info.param.name); });

class RsaSignBadLengths : public KeyTest, public ::testing::WithParamInterface<std::size_t> {};

TEST_P(RsaSignBadLengths, FailsWithCouldNotGetEvpMdAndLeavesSignature) {
  Key key;
  OpenFresh(key, KeyKind::k_rsa);
  Bytes signature{4, 5, 6};
  const ResultPair result = key.Sign(Hash(GetParam()), &signature);
  EXPECT_EQ(result.code, 1);
  EXPECT_EQ(result.detail, 0u);
  EXPECT_EQ(signature, (Bytes{4, 5, 6}));
  ASSERT_GE(rec().Logs().size(), 1u);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error, "couldn't get EVP md", "couldn't get EVP md"))
      << rec().Dump();
  EXPECT_EQ(rec().Logs()[0].format, "couldn't get EVP md");
}

INSTANTIATE_TEST_SUITE_P(Lengths, RsaSignBadLengths,
                         ::testing::Values(std::size_t{28}, std::size_t{0}, std::size_t{33},
                                           std::size_t{16}));

TEST_F(KeyTest, EcSignsA28ByteHashAsGiven) {
  Key key;
  const FileCredential credential = OpenFresh(key, KeyKind::k_ec);
  const Bytes hash = Hash(28);
  Bytes signature;
  const ResultPair result = key.Sign(hash, &signature);
  ASSERT_EQ(result.code, 0) << rec().Dump();
  EXPECT_TRUE(VerifyEcdsa(X509_get0_pubkey(credential.cert.get()), hash, signature));
}

TEST_F(KeyTest, EcSignatureIsTrimmedToItsDerLengthAndVerifies) {
  Key key;
  const FileCredential credential = OpenFresh(key, KeyKind::k_ec);
  EVP_PKEY* public_key = X509_get0_pubkey(credential.cert.get());
  const std::size_t bound = static_cast<std::size_t>(EVP_PKEY_size(public_key));
  bool shorter_seen = false;
  for (unsigned char seed = 0; seed < 16; ++seed) {
    const Bytes hash = Hash(32, seed);
    Bytes signature(500, 0xCC);
    ASSERT_EQ(key.Sign(hash, &signature).code, 0) << rec().Dump();
    EXPECT_LE(signature.size(), bound);
    // A DER ECDSA-Sig-Value: SEQUENCE whose length byte covers the rest.
    ASSERT_GE(signature.size(), 8u);
    EXPECT_EQ(signature[0], 0x30);
    EXPECT_EQ(static_cast<std::size_t>(signature[1]) + 2, signature.size());
    EXPECT_TRUE(VerifyEcdsa(public_key, hash, signature));
    shorter_seen = shorter_seen || signature.size() < bound;
  }
  EXPECT_TRUE(shorter_seen);
}

TEST_F(KeyTest, SignWithNullSignatureFailsWithMessage) {
  Key key;
  OpenFresh(key, KeyKind::k_rsa);
  const ResultPair result = key.Sign(Hash(32), nullptr);
  EXPECT_EQ(result.code, 1);
  ASSERT_EQ(rec().Logs().size(), 1u);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error, "null signature vector given to Key::Sign",
                        "null signature vector given to Key::Sign"));
}

TEST_F(KeyTest, SignOnUnopenedKeyFailsToCreateContextAndDrainsQueue) {
  Key key;
  ERR_raise(ERR_LIB_EVP, EVP_R_NO_KEY_SET);
  Bytes signature;
  EXPECT_EQ(key.Sign(Hash(32), &signature).code, 1);
  ASSERT_EQ(rec().Logs().size(), 2u) << rec().Dump();
  EXPECT_EQ(rec().Logs()[0].format, "Key::Sign unable to create private key context");
  EXPECT_EQ(rec().Logs()[1].priority, X509_Auth_LogPriority_Info);
}

// ---- Decrypt ----

TEST_F(KeyTest, DecryptPkcs1RoundTripTrimsPlaintextToTrueLength) {
  Key key;
  const FileCredential credential = OpenFresh(key, KeyKind::k_rsa);
  const Bytes message = Hash(32, 0x40);
  const Bytes ciphertext = Encrypt(credential.cert.get(), RSA_PKCS1_PADDING, message);
  ASSERT_EQ(ciphertext.size(), 256u);
  Bytes plaintext(3000, 0xAB);
  const ResultPair result = key.Decrypt(DecryptAlgorithm::k_rsa_pkcs1, ciphertext, &plaintext);
  ASSERT_EQ(result.code, 0) << rec().Dump();
  EXPECT_EQ(result.detail, 0u);
  EXPECT_EQ(plaintext, message);
  EXPECT_TRUE(rec().Logs().empty()) << rec().Dump();
}

TEST_F(KeyTest, DecryptOaepRoundTripWithDefaultSha1) {
  Key key;
  const FileCredential credential = OpenFresh(key, KeyKind::k_rsa);
  const Bytes message = Hash(48, 0x10);
  const Bytes ciphertext = Encrypt(credential.cert.get(), RSA_PKCS1_OAEP_PADDING, message);
  Bytes plaintext;
  ASSERT_EQ(key.Decrypt(DecryptAlgorithm::k_rsa_oaep, ciphertext, &plaintext).code, 0)
      << rec().Dump();
  EXPECT_EQ(plaintext, message);
}

TEST_F(KeyTest, DecryptOnEcKeyIsUnsupportedWithoutMessage) {
  Key key;
  OpenFresh(key, KeyKind::k_ec);
  Bytes plaintext{1};
  const ResultPair result = key.Decrypt(DecryptAlgorithm::k_rsa_pkcs1, Bytes(64, 1), &plaintext);
  EXPECT_EQ(result.code, 6);
  EXPECT_EQ(result.detail, 0u);
  EXPECT_EQ(plaintext, Bytes{1});
  EXPECT_TRUE(rec().Logs().empty()) << rec().Dump();
}

TEST_F(KeyTest, DecryptAlgorithmNoneIsUnsupportedAfterPaddingMessage) {
  Key key;
  OpenFresh(key, KeyKind::k_rsa);
  Bytes plaintext{1};
  const ResultPair result =
      key.Decrypt(DecryptAlgorithm::k_decrypt_none, Bytes(256, 1), &plaintext);
  EXPECT_EQ(result.code, 6);
  EXPECT_EQ(plaintext, Bytes{1});
  ASSERT_EQ(rec().Logs().size(), 1u) << rec().Dump();
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error,
                        "Unable to determine padding scheme for algorithm: [%u]",
                        "Unable to determine padding scheme for algorithm: [0]"));
}

TEST_F(KeyTest, DecryptAlgorithmOutOfRangeIsUnsupportedWithItsValue) {
  Key key;
  OpenFresh(key, KeyKind::k_rsa);
  Bytes plaintext;
  EXPECT_EQ(key.Decrypt(static_cast<DecryptAlgorithm>(7), Bytes(256, 1), &plaintext).code, 6);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error,
                        "Unable to determine padding scheme for algorithm: [%u]",
                        "Unable to determine padding scheme for algorithm: [7]"));
}

TEST_F(KeyTest, BadOaepPaddingDrainsOpenSslErrorBeforeFailureMessage) {
  Key key;
  const FileCredential credential = OpenFresh(key, KeyKind::k_rsa);
  const Bytes ciphertext = Encrypt(credential.cert.get(), RSA_PKCS1_PADDING, Hash(32));
  Bytes plaintext;
  const ResultPair result = key.Decrypt(DecryptAlgorithm::k_rsa_oaep, ciphertext, &plaintext);
  EXPECT_EQ(result.code, 1);
  EXPECT_EQ(result.detail, 0u);
  ASSERT_EQ(rec().Logs().size(), 2u) << rec().Dump();
  EXPECT_EQ(rec().Logs()[0].priority, X509_Auth_LogPriority_Info);
  EXPECT_EQ(rec().Logs()[0].format, "%s");
  EXPECT_EQ(rec().Logs()[1].priority, X509_Auth_LogPriority_Error);
  EXPECT_EQ(rec().Logs()[1].format, k_decrypt_failed);
  // OpenSSL 3.0 reports a failed padding check as 0, not as a negative value.
  EXPECT_EQ(rec().Logs()[1].text, "Error calling EVP_PKEY_decrypt. Error code: [0]");
  EXPECT_NE(rec().Logs()[0].text.find("oaep decoding error"), std::string::npos)
      << rec().Logs()[0].text;
}

TEST_F(KeyTest, BadPkcs1PaddingFailsAndDrainsFirst) {
  Key key;
  const FileCredential credential = OpenFresh(key, KeyKind::k_rsa);
  const Bytes ciphertext = x509auth_test::CiphertextWithBadPkcs1Padding(credential.cert.get());
  Bytes plaintext;
  EXPECT_EQ(key.Decrypt(DecryptAlgorithm::k_rsa_pkcs1, ciphertext, &plaintext).code, 1);
  // OpenSSL 3.0 (before 3.2's implicit rejection) still reports a bad
  // PKCS#1 v1.5 padding as an error.
  ASSERT_EQ(rec().Logs().size(), 2u) << rec().Dump();
  EXPECT_EQ(rec().Logs()[0].priority, X509_Auth_LogPriority_Info);
  EXPECT_NE(rec().Logs()[0].text.find("pkcs decoding error"), std::string::npos)
      << rec().Logs()[0].text;
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error, k_decrypt_failed,
                        "Error calling EVP_PKEY_decrypt. Error code: [0]"));
}

TEST_F(KeyTest, CiphertextLongerThanModulusFails) {
  Key key;
  OpenFresh(key, KeyKind::k_rsa);
  Bytes plaintext;
  EXPECT_EQ(key.Decrypt(DecryptAlgorithm::k_rsa_pkcs1, Bytes(300, 0x11), &plaintext).code, 1);
  EXPECT_FALSE(rec().Logs().empty());
  EXPECT_EQ(rec().Logs().back().priority, X509_Auth_LogPriority_Error) << rec().Dump();
}

TEST_F(KeyTest, DecryptWithNullPlaintextFailsWithoutCrash) {
  Key key;
  OpenFresh(key, KeyKind::k_rsa);
  EXPECT_EQ(key.Decrypt(DecryptAlgorithm::k_rsa_pkcs1, Bytes(256, 1), nullptr).code, 1);
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Error, "null plaintext vector given to Key::Decrypt",
                        "null plaintext vector given to Key::Decrypt"));
}

}  // namespace
}  // namespace quorvant::shared::x509
