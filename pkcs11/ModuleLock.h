#pragma once
// The one lock around every call into the module (the library sees one call
// at a time). It survives fork(): a child forked while another thread was
// inside a call would otherwise inherit it locked and wait for ever at its
// first call, C_Initialize included.
#include <atomic>
#include <mutex>
#include <thread>

namespace x509auth_pkcs11 {

class ModuleLock {
 public:
  // Registers the fork handlers, once per process; the lock must then live
  // as long as the process (the module's lock is never destroyed).
  ModuleLock();
  ModuleLock(const ModuleLock&) = delete;
  ModuleLock& operator=(const ModuleLock&) = delete;

  // Holds the lock for one call.
  class Hold {
   public:
    explicit Hold(ModuleLock& lock) : lock_(lock) { lock_.Acquire(); }
    ~Hold() { lock_.Release(); }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

   private:
    ModuleLock& lock_;
  };

 private:
  void Acquire();
  void Release();
  static void BeforeFork();
  static void AfterFork();

  std::mutex mutex_;
  // The thread inside a call, so that a fork made from within a call (the
  // library starting a program) does not wait for itself.
  std::atomic<std::thread::id> owner_{};
  // Whether BeforeFork took the lock, for AfterFork to give it back.
  bool taken_for_fork_ = false;
};

}  // namespace x509auth_pkcs11
