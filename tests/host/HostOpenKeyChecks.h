#pragma once
// What the open-key tests check of a held key, file or token alike: each
// signature verified with the certificate's public key, each decryption
// compared with what was encrypted to the certificate, and how a host that
// exits with keys held ends.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>

#include "ForkedChild.h"
#include "HostFixture.h"

namespace x509auth_test {

inline constexpr uint32_t k_rsa_and_ec[] = {X509_Auth_Algorithm_Rsa, X509_Auth_Algorithm_Ec};

// Signs a SHA-256 digest of |message| with the open key |handle|; the
// result code, and whether the signature verifies with |cert|.
inline int32_t SignVerified(X509_Auth_KeyHandle handle, X509* cert, const std::string& message,
                            bool* verified) {
  const Bytes digest = DigestOf(X509_Auth_HashType_Sha256, message);
  const X509_Auth_Signature* signature = nullptr;
  const X509_Auth_Result result = X509_Auth_OpenKeySignHash(
      handle, 2, k_rsa_and_ec, X509_Auth_HashType_Sha256, digest.data(), &signature);
  *verified = signature != nullptr && VerifiesWithCertificate(cert, EVP_sha256(), digest,
                                                              signature->data, signature->length);
  if (result.code != 0) {
    EXPECT_EQ(signature, nullptr);
  }
  X509_Auth_Free(signature);
  return result.code;
}

// Signs |digest| of hash |type| with RSA-PSS (salt as long as the digest)
// through the open key, and verifies the signature with |cert|.
inline void ExpectPssSignatureVerifies(X509_Auth_KeyHandle handle, X509* cert,
                                       X509_Auth_HashType type, const Bytes& digest) {
  const X509_Auth_Signature* signature = nullptr;
  ASSERT_EQ(X509_Auth_OpenKeySignHashPss(handle, type, digest.data(), X509_AUTH_PSS_SALT_DIGEST,
                                         &signature)
                .code,
            0)
      << RecordingCallbacks::GetInstance().Dump();
  ASSERT_NE(signature, nullptr);
  EvpPkeyCtxPtr context(EVP_PKEY_CTX_new(X509_get0_pubkey(cert), nullptr));
  ASSERT_EQ(EVP_PKEY_verify_init(context.get()), 1);
  EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PSS_PADDING);
  EVP_PKEY_CTX_set_signature_md(context.get(), DigestFor(type));
  EVP_PKEY_CTX_set_rsa_mgf1_md(context.get(), DigestFor(type));
  EVP_PKEY_CTX_set_rsa_pss_saltlen(context.get(), static_cast<int>(digest.size()));
  EXPECT_EQ(EVP_PKEY_verify(context.get(), signature->data, signature->length, digest.data(),
                            digest.size()),
            1);
  X509_Auth_Free(signature);
}

// Encrypts |secret| to |cert| with PKCS#1 v1.5 and with OAEP padding, and
// expects the open key to give it back each time.
inline void ExpectDecryptsWithBothPaddings(X509_Auth_KeyHandle handle, X509* cert,
                                           const Bytes& secret) {
  struct Case {
    uint32_t algorithm;
    int padding;
  } cases[] = {{X509_Auth_DecryptAlgorithm_RsaPkcs1, RSA_PKCS1_PADDING},
               {X509_Auth_DecryptAlgorithm_RsaOaep, RSA_PKCS1_OAEP_PADDING}};
  for (const Case& c : cases) {
    const Bytes ciphertext = EncryptToCertificate(cert, c.padding, secret);
    const X509_Auth_ASN_1* plaintext = nullptr;
    ASSERT_EQ(X509_Auth_OpenKeyDecrypt(handle, c.algorithm, ciphertext.size(), ciphertext.data(),
                                       &plaintext)
                  .code,
              0)
        << RecordingCallbacks::GetInstance().Dump();
    ASSERT_NE(plaintext, nullptr);
    EXPECT_EQ(Bytes(plaintext->data, plaintext->data + plaintext->length), secret);
    X509_Auth_Free(plaintext);
  }
}

// Runs |host| in a host process of its own that ends with std::exit of
// what |host| returns, so that the library's static objects go as at a real
// host's exit; watched from a child with a time limit. "exit N" or
// "signal N".
inline std::string HostProcessEnd(const std::function<int()>& host) {
  return RunInChild([&host] {
    const pid_t pid = fork();
    if (pid == 0) std::exit(host());
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return std::string("no host process");
    if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status));
    return "exit " + std::to_string(WEXITSTATUS(status));
  });
}

}  // namespace x509auth_test
