#include "ProcessLocks.h"

#include <pthread.h>

namespace x509auth_provider {

ProcessLocks::ProcessLocks() {
  // Once per load of the provider: glibc drops a shared object's handlers
  // when it is unloaded.
  pthread_atfork(Prepare, Release, Release);
}

ProcessLocks& ProcessLocks::Instance() {
  static ProcessLocks locks;
  return locks;
}

ProcessLocks::Mutex& ProcessLocks::Joining() { return Instance().locks_[0]; }
ProcessLocks::Mutex& ProcessLocks::Acquiring() { return Instance().locks_[1]; }
ProcessLocks::Mutex& ProcessLocks::Library() { return Instance().locks_[2]; }
ProcessLocks::Mutex& ProcessLocks::Passphrases() { return Instance().locks_[3]; }
ProcessLocks::Mutex& ProcessLocks::Contexts() { return Instance().locks_[4]; }

void ProcessLocks::Prepare() {
  ProcessLocks& locks = Instance();
  // Below a lock this thread holds, waiting could close a cycle with a
  // thread that holds a lower one and waits for that one: only tried.
  int held = -1;
  for (int i = 0; i < k_count; ++i)
    if (locks.locks_[i].HeldByThisThread()) held = i;
  for (int i = 0; i < k_count; ++i) {
    if (locks.locks_[i].HeldByThisThread())
      locks.taken_[i] = false;
    else if (i < held)
      locks.taken_[i] = locks.locks_[i].try_lock();
    else
      locks.taken_[i] = (locks.locks_[i].lock(), true);
  }
}

void ProcessLocks::Release() {
  // In the child too: its one thread is the one that took them in Prepare.
  ProcessLocks& locks = Instance();
  for (int i = k_count - 1; i >= 0; --i)
    if (locks.taken_[i]) locks.locks_[i].unlock();
}

}  // namespace x509auth_provider
