#pragma once
// The provider's process-wide locks, in the one order in which they are ever
// nested. A host may fork while another of its threads is inside the
// provider; the child would then inherit a lock held by a thread it does not
// have, and hang on it. So every lock is taken, in this order, just before
// fork() and released on both sides after it (pthread_atfork, registered
// once, on first use).
#include <atomic>
#include <mutex>
#include <thread>

namespace x509auth_provider {

class ProcessLocks {
 public:
  // A std::mutex that knows its holder: a thread forking from inside a call
  // (a PKCS#11 module starting a helper) already holds some of the locks,
  // and must not wait for itself.
  class Mutex {
   public:
    void lock() {
      mutex_.lock();
      holder_.store(std::this_thread::get_id(), std::memory_order_relaxed);
    }
    bool try_lock() {
      if (!mutex_.try_lock()) return false;
      holder_.store(std::this_thread::get_id(), std::memory_order_relaxed);
      return true;
    }
    void unlock() {
      holder_.store(std::thread::id(), std::memory_order_relaxed);
      mutex_.unlock();
    }
    bool HeldByThisThread() const {
      return holder_.load(std::memory_order_relaxed) == std::this_thread::get_id();
    }

   private:
    std::mutex mutex_;
    std::atomic<std::thread::id> holder_{};
  };

  // A provider context joining the library session (held while it joins).
  static Mutex& Joining();
  // Making or finding the process's one library session.
  static Mutex& Acquiring();
  // Every call into the library (SharedLibrarySession::Run).
  static Mutex& Library();
  // The passphrases the application gave, taken by prompts inside a call.
  static Mutex& Passphrases();
  // The list of live provider contexts; nothing is taken while it is held.
  static Mutex& Contexts();

 private:
  static constexpr int k_count = 5;

  ProcessLocks();
  static ProcessLocks& Instance();
  static void Prepare();
  static void Release();

  // In nesting order.
  Mutex locks_[k_count];
  // Which of them Prepare took (not those the forking thread already held).
  bool taken_[k_count] = {};
};

}  // namespace x509auth_provider
