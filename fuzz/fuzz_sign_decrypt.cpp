// The arguments of X509_Auth_SignHash and X509_Auth_Decrypt, decoded from
// the input: which certificate (an RSA one, an EC one or an unknown
// thumbprint), the algorithm list, the hash type, the padding and the
// ciphertext, of any length, either raw or the input's plaintext encrypted
// to the certificate. Values the header says throw must throw
// std::invalid_argument, and nothing else may escape.
#include <fuzzer/FuzzedDataProvider.h>
#include <openssl/rsa.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <vector>

#include "FuzzHost.h"

namespace {

using x509auth_test::Bytes;
using x509auth_test::TestKey;
using x509auth_test::TestX509;

struct Holder {
  TestKey key;
  TestX509 cert;
  Bytes thumbprint;
};

// The certificates and keys stay the same for the whole run; each input
// rewrites the files so that nothing an earlier input did can matter.
const std::vector<Holder>& Holders() {
  static const std::vector<Holder> holders = [] {
    std::vector<Holder> made;
    for (const auto kind : {x509auth_test::KeyKind::k_rsa, x509auth_test::KeyKind::k_ec}) {
      Holder holder;
      holder.key = x509auth_test::MakeKey(kind);
      x509auth_test::CertOptions options;
      options.common_name = "Fuzz Signer";
      options.extended_key_usage = "clientAuth";
      holder.cert = x509auth_test::MakeCert(options, holder.key.get());
      holder.thumbprint = x509auth_test::Sha1Thumbprint(holder.cert.get());
      made.push_back(std::move(holder));
    }
    return made;
  }();
  return holders;
}

// Mostly the values a host uses, sometimes the next one up, sometimes any.
std::uint32_t PickEnumeration(FuzzedDataProvider& input, std::uint32_t highest) {
  const std::uint32_t choice = input.ConsumeIntegralInRange<std::uint32_t>(0, highest + 2);
  if (choice <= highest + 1) return choice;
  return input.ConsumeIntegral<std::uint32_t>();
}

void Sign(FuzzedDataProvider& input, const std::uint8_t* thumbprint) {
  const std::size_t count = input.ConsumeIntegralInRange<std::size_t>(0, 6);
  std::vector<std::uint32_t> algorithms;
  bool throws = false;
  for (std::size_t i = 0; i < count; ++i) {
    algorithms.push_back(PickEnumeration(input, 2));
    throws = throws || algorithms.back() > 2;
  }
  const X509_Auth_HashType hash_type = PickEnumeration(input, 3);
  throws = throws || hash_type > 3;
  static const std::size_t lengths[] = {20, 32, 48, 64};
  // Exactly as long as the hash type says, so a longer read is seen.
  Bytes hash = input.ConsumeBytes<unsigned char>(hash_type <= 3 ? lengths[hash_type] : 0);
  hash.resize(hash_type <= 3 ? lengths[hash_type] : 1);

  const X509_Auth_Signature* signature = nullptr;
  try {
    const X509_Auth_Result result = X509_Auth_SignHash(
        thumbprint, algorithms.size(), algorithms.empty() ? nullptr : algorithms.data(), hash_type,
        hash.data(), &signature);
    if (throws) __builtin_trap();
    if ((result.code == 0) != (signature != nullptr)) __builtin_trap();
    if (signature != nullptr && (signature->length == 0 || signature->algorithm > 2))
      __builtin_trap();
  } catch (const std::invalid_argument&) {
    if (!throws) __builtin_trap();
  }
  if (signature != nullptr) X509_Auth_Free(signature);
}

void Decrypt(FuzzedDataProvider& input, const std::uint8_t* thumbprint, X509* cert) {
  const std::uint32_t padding = PickEnumeration(input, 2);
  const bool throws = padding > 2;
  const int encrypt_with = input.ConsumeIntegralInRange<int>(0, 2);
  Bytes ciphertext = input.ConsumeRemainingBytes<unsigned char>();
  if (encrypt_with != 0 && EVP_PKEY_base_id(X509_get0_pubkey(cert)) == EVP_PKEY_RSA) {
    // A ciphertext the key can open, of (at most 200 bytes of) the input:
    // short enough for either padding with a 2048-bit key.
    if (ciphertext.size() > 200) ciphertext.resize(200);
    try {
      ciphertext = x509auth_test::EncryptToCertificate(
          cert, encrypt_with == 1 ? RSA_PKCS1_PADDING : RSA_PKCS1_OAEP_PADDING, ciphertext);
    } catch (const std::exception&) {
    }
  }

  const X509_Auth_ASN_1* plaintext = nullptr;
  try {
    const X509_Auth_Result result =
        X509_Auth_Decrypt(thumbprint, padding, ciphertext.size(),
                          ciphertext.empty() ? nullptr : ciphertext.data(), &plaintext);
    if (throws) __builtin_trap();
    if ((result.code == 0) != (plaintext != nullptr)) __builtin_trap();
  } catch (const std::invalid_argument&) {
    if (!throws) __builtin_trap();
  }
  if (plaintext != nullptr) X509_Auth_Free(plaintext);
}

}  // namespace

// Set-up outside the timed inputs: a slow start on a busy machine is not a
// hang of the first input.
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  x509auth_fuzz::FuzzHost::WarmUp();
  Holders();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const x509auth_fuzz::FuzzHost& host = x509auth_fuzz::FuzzHost::GetInstance();
  const x509auth_fuzz::FuzzHost::InWorkDirectory in_work_directory(host);
  const std::vector<Holder>& holders = Holders();
  host.EmptyBase();
  for (std::size_t i = 0; i < holders.size(); ++i) {
    const std::string name = "signer" + std::to_string(i) + ".pem";
    x509auth_test::InstallFileCert(host.Base(), name, holders[i].cert.get(), holders[i].key.get());
  }
  host.Init(x509auth_fuzz::PasswordAnswer::k_right);

  FuzzedDataProvider input(data, size);
  const std::size_t which = input.ConsumeIntegralInRange<std::size_t>(0, holders.size());
  Bytes thumbprint(20, 0);
  X509* cert = nullptr;
  if (which < holders.size()) {
    thumbprint = holders[which].thumbprint;
    cert = holders[which].cert.get();
  } else {
    const Bytes unknown = input.ConsumeBytes<unsigned char>(20);
    std::copy(unknown.begin(), unknown.end(), thumbprint.begin());
    cert = holders[0].cert.get();
  }
  if (input.ConsumeBool())
    Sign(input, thumbprint.data());
  else
    Decrypt(input, thumbprint.data(), cert);
  return 0;
}
