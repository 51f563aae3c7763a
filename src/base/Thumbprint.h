#pragma once
#include <array>

namespace quorvant::shared::x509 {

// A certificate's identity everywhere: the raw SHA-1 digest of its DER
// encoding.
using Thumbprint = std::array<unsigned char, 20>;

}  // namespace quorvant::shared::x509
