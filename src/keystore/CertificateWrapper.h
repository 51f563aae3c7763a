#pragma once
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "base/Thumbprint.h"

namespace quorvant::shared::x509 {

// Owns the storage that one handed-out X509_Auth_Certificate points into.
struct CertificateWrapper {
  std::string name;
  std::string issuer_name;
  std::int64_t not_before = 0;
  std::int64_t not_after = 0;
  bool supports_smart_card = false;
  Thumbprint thumbprint{};
  std::vector<unsigned char> encoded;
  std::vector<Thumbprint> ca_chain;
  std::uint32_t key_algorithm_group = 0;
  std::string key_path;
  std::uint32_t cert_type = 0;
  std::uint64_t reserved = 0;
  // One pointer to each element of |ca_chain|, filled when the record is
  // built; the record's CA chain points here.
  std::vector<const std::uint8_t*> ca_chain_pointers;
};

}  // namespace quorvant::shared::x509
