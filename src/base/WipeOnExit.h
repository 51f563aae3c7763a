#pragma once
#include <vector>

#include "base/SecretWipe.h"

namespace quorvant::shared::x509 {

// Wipes a byte vector when it goes out of scope, on every path.
class WipeOnExit {
 public:
  explicit WipeOnExit(std::vector<unsigned char>& bytes) : bytes_(bytes) {}
  ~WipeOnExit() { SecretWipe::Wipe(bytes_); }
  WipeOnExit(const WipeOnExit&) = delete;
  WipeOnExit& operator=(const WipeOnExit&) = delete;

 private:
  std::vector<unsigned char>& bytes_;
};

}  // namespace quorvant::shared::x509
