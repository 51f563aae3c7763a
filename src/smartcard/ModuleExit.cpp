#include "smartcard/ModuleExit.h"

#include <cstdlib>
#include <mutex>

namespace quorvant::shared::x509 {

std::atomic<bool> ModuleExit::begun_{false};
const void* ModuleExit::abandoned_[k_abandoned_max] = {};
std::atomic<int> ModuleExit::abandoned_count_{0};

void ModuleExit::Abandon(const void* memory) {
  const int index = abandoned_count_.fetch_add(1, std::memory_order_relaxed);
  if (index < k_abandoned_max) abandoned_[index] = memory;
}

void ModuleExit::WatchAfterLoad() {
  static std::once_flag registered;
  std::call_once(registered, [] { std::atexit(Note); });
}

}  // namespace quorvant::shared::x509
