#pragma once
#include <cstdint>

namespace quorvant::shared::x509 {

// The outcome of a key operation or key store request: a code (0 success)
// and the error value of the step that failed.
struct ResultPair {
  std::int32_t code = 0;
  std::uint64_t detail = 0;
};

}  // namespace quorvant::shared::x509
