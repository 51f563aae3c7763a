#pragma once
#include <atomic>

namespace quorvant::shared::x509 {

// Whether every request looks at the tokens as they are now (slots listed
// again, tokens that went away forgotten) instead of the slot list taken
// when the module was first loaded. Off unless a host asks: a host built for
// the one-time listing sees exactly that. Process-wide, like the smart-card
// context it steers.
class TokenWatch {
 public:
  static void Set(bool enabled) { enabled_.store(enabled, std::memory_order_relaxed); }
  static bool Enabled() { return enabled_.load(std::memory_order_relaxed); }

 private:
  static std::atomic<bool> enabled_;
};

}  // namespace quorvant::shared::x509
