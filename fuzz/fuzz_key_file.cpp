// The contents of a key file, opened for signing and decryption. The first
// byte picks the host's answer to the password prompt, the second the hash
// type and the operations; the rest is the key file. When the harness can
// read a key from those bytes itself (with the right password), the
// certificate beside it carries that key's public half, so a well-formed
// key gets as far as the private-key operation.
#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "FuzzHost.h"

namespace {

using x509auth_test::TestKey;
using x509auth_test::TestX509;

int RightPassword(char* buffer, int size, int /*rwflag*/, void* /*user_data*/) {
  const int length = static_cast<int>(std::strlen(x509auth_fuzz::k_right_password));
  if (length > size) return -1;
  std::memcpy(buffer, x509auth_fuzz::k_right_password, static_cast<std::size_t>(length));
  return length;
}

// The key as the harness reads it: PEM first, then DER.
TestKey ReadKey(const std::uint8_t* bytes, std::size_t size) {
  if (size == 0) return TestKey();
  std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new_mem_buf(bytes, static_cast<int>(size)),
                                                BIO_free);
  TestKey key(PEM_read_bio_PrivateKey(bio.get(), nullptr, RightPassword, nullptr));
  if (key) return key;
  const unsigned char* cursor = bytes;
  return TestKey(d2i_AutoPrivateKey(nullptr, &cursor, static_cast<long>(size)));
}

// A certificate for |key| issued by a fixed CA, or for the CA's own key
// when OpenSSL cannot put |key| into a certificate.
TestX509 CertificateFor(EVP_PKEY* key) {
  static const TestKey issuer_key = x509auth_test::MakeKey(x509auth_test::KeyKind::k_ec);
  static const TestX509 issuer = [] {
    x509auth_test::CertOptions options;
    options.common_name = "Fuzz Key CA";
    options.is_ca = true;
    return x509auth_test::MakeCert(options, issuer_key.get());
  }();
  if (key != nullptr) {
    try {
      x509auth_test::CertOptions options;
      options.common_name = "Fuzz Key Holder";
      options.serial = 2;
      return x509auth_test::MakeCert(options, key, issuer.get(), issuer_key.get());
    } catch (const std::exception&) {
      // Not a key a certificate can carry: fall through to the fixed one.
    }
  }
  x509auth_test::CertOptions options;
  options.common_name = "Fuzz Key Holder";
  options.serial = 3;
  return x509auth_test::MakeCert(options, issuer_key.get(), issuer.get(), issuer_key.get());
}

}  // namespace

// Set-up outside the timed inputs: a slow start on a busy machine is not a
// hang of the first input.
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  x509auth_fuzz::FuzzHost::WarmUp();
  CertificateFor(nullptr);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const x509auth_fuzz::FuzzHost& host = x509auth_fuzz::FuzzHost::GetInstance();
  const x509auth_fuzz::FuzzHost::InWorkDirectory in_work_directory(host);
  const auto answer = static_cast<x509auth_fuzz::PasswordAnswer>(
      data[0] % static_cast<std::uint8_t>(x509auth_fuzz::PasswordAnswer::k_count));
  const std::uint8_t operations = data[1];
  const std::uint8_t* key_bytes = data + 2;
  const std::size_t key_size = size - 2;

  host.EmptyBase();
  const TestKey parsed = ReadKey(key_bytes, key_size);
  const TestX509 cert = CertificateFor(parsed.get());
  x509auth_test::WriteFile(host.Base() / "certs" / "holder.pem",
                           x509auth_test::CertToPem(cert.get()));
  x509auth_fuzz::WriteBytes(host.Base() / "keys" / "holder.pem.key", key_bytes, key_size);
  host.Init(answer);

  const x509auth_test::Bytes thumbprint = x509auth_test::Sha1Thumbprint(cert.get());
  const std::uint32_t algorithms[] = {X509_Auth_Algorithm_Rsa, X509_Auth_Algorithm_Ec};
  const X509_Auth_HashType hash_type = operations & 3;
  static const std::array<unsigned char, 64> hash{1, 2, 3, 4, 5, 6, 7, 8};
  const X509_Auth_Signature* signature = nullptr;
  const X509_Auth_Result signed_result =
      X509_Auth_SignHash(thumbprint.data(), 2, algorithms, hash_type, hash.data(), &signature);
  // A record exactly when the code says success.
  if ((signed_result.code == 0) != (signature != nullptr)) __builtin_trap();
  if (signature != nullptr) X509_Auth_Free(signature);

  if ((operations & 4) != 0) {
    const std::uint32_t padding = (operations & 8) != 0 ? X509_Auth_DecryptAlgorithm_RsaOaep
                                                        : X509_Auth_DecryptAlgorithm_RsaPkcs1;
    std::vector<unsigned char> ciphertext(256, 0x5a);
    const X509_Auth_ASN_1* plaintext = nullptr;
    const X509_Auth_Result decrypted = X509_Auth_Decrypt(
        thumbprint.data(), padding, ciphertext.size(), ciphertext.data(), &plaintext);
    if ((decrypted.code == 0) != (plaintext != nullptr)) __builtin_trap();
    if (plaintext != nullptr) X509_Auth_Free(plaintext);
  }
  return 0;
}
