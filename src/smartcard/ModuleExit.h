#pragma once
#include <atomic>

namespace quorvant::shared::x509 {

// Whether the process has begun to exit, as seen by an exit handler
// registered right after the first PKCS#11 module load. That handler runs
// before the module's own static objects are destroyed; what the library's
// statics end later (a host exiting without X509_Auth_DeInit, a token key
// left open) must then not call into the module, whose state may be gone:
// the system takes back the rest.
class ModuleExit {
 public:
  // Registers the handler once per process; call after loading a module.
  static void WatchAfterLoad();
  static bool Begun() { return begun_.load(std::memory_order_relaxed); }
  // Keeps |memory|, left unreleased at exit because releasing it would call
  // into the module, reachable from a plain global, so that a leak checker
  // at exit sees it as held rather than lost.
  static void Abandon(const void* memory);

 private:
  static void Note() { begun_.store(true, std::memory_order_relaxed); }
  static std::atomic<bool> begun_;
  static constexpr int k_abandoned_max = 64;
  static const void* abandoned_[k_abandoned_max];
  static std::atomic<int> abandoned_count_;
};

}  // namespace quorvant::shared::x509
