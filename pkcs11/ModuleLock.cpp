#include "ModuleLock.h"

#include <pthread.h>

#include <system_error>

namespace x509auth_pkcs11 {
namespace {

// pthread_atfork takes plain functions; they reach the lock through here.
ModuleLock* g_lock = nullptr;

}  // namespace

ModuleLock::ModuleLock() {
  g_lock = this;
  static const int registered = pthread_atfork(&BeforeFork, &AfterFork, &AfterFork);
  if (registered != 0)
    throw std::system_error(registered, std::generic_category(), "pthread_atfork");
}

void ModuleLock::Acquire() {
  mutex_.lock();
  owner_ = std::this_thread::get_id();
}

void ModuleLock::Release() {
  owner_ = std::thread::id();
  mutex_.unlock();
}

// The forking thread waits until no call is under way, so that parent and
// child both see the module between calls; both then let go of the lock.
void ModuleLock::BeforeFork() {
  if (g_lock == nullptr || g_lock->owner_ == std::this_thread::get_id()) return;
  g_lock->Acquire();
  g_lock->taken_for_fork_ = true;
}

void ModuleLock::AfterFork() {
  if (g_lock == nullptr || !g_lock->taken_for_fork_) return;
  g_lock->taken_for_fork_ = false;
  g_lock->Release();
}

}  // namespace x509auth_pkcs11
