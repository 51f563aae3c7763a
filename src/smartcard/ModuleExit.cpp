#include "smartcard/ModuleExit.h"

#include <cstdlib>
#include <mutex>

namespace quorvant::shared::x509 {

std::atomic<bool> ModuleExit::begun_{false};

void ModuleExit::WatchAfterLoad() {
  static std::once_flag registered;
  std::call_once(registered, [] { std::atexit(Note); });
}

}  // namespace quorvant::shared::x509
