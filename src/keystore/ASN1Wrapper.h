#pragma once
#include <vector>

namespace quorvant::shared::x509 {

// Owns one DER blob that a handed-out X509_Auth_ASN_1 points into.
struct ASN1Wrapper {
  std::vector<unsigned char> data;
};

}  // namespace quorvant::shared::x509
