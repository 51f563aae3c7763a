#pragma once
#include <cstdint>

namespace quorvant::shared::x509 {

// The family of a certificate's key. Numbered like the public key algorithm
// group of a certificate so that the two compare directly; the host passes
// these values across the C boundary as uint32_t.
enum class Algorithm : std::uint32_t {
  k_unknown = 0,
  k_rsa = 1,
  k_ec = 2,
};

// The padding a decryption asks for.
enum class DecryptAlgorithm : std::uint32_t {
  k_decrypt_none = 0,  // accepted at the boundary, refused by Key::Decrypt
  k_rsa_pkcs1 = 1,     // OpenSSL padding 1
  k_rsa_oaep = 2,      // OpenSSL padding 4, default OAEP digest and MGF1
};

}  // namespace quorvant::shared::x509
