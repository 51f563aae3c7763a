#pragma once
// One call at a time into this copy of the library. A call that arrives while
// another is still inside (from a host callback, from a PKCS#11 module the
// library loaded that leads back here, or from a second thread of a host that
// broke the one-caller rule) would free or change the key store under the
// call in progress. It is refused instead: the exported function gives its
// failure result, and one error line says why.
#include <atomic>

namespace quorvant::shared::x509 {

class CallGuard {
 public:
  // Enters the library for |function| (its exported name, for the line).
  explicit CallGuard(const char* function);
  ~CallGuard();
  CallGuard(const CallGuard&) = delete;
  CallGuard& operator=(const CallGuard&) = delete;

  // False when another call was already inside: do nothing, fail.
  bool Entered() const { return entered_; }

 private:
  static std::atomic<bool>& Busy();
  bool entered_;
};

}  // namespace quorvant::shared::x509
