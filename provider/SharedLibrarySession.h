#pragma once
// The library keeps one set of callbacks, one settings record and one key
// store for the whole process, and is not thread-safe. Every provider context
// of the process (the module loaded into several library contexts, or built
// into a host) therefore shares one session: the first context initialises
// the library, the last one to go deinitialises it, and one process-wide lock
// covers every call. Each call runs with the calling context's directory
// lists and PKCS#11 module and routes prompts to that request's passphrase
// callback.
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ErrorQueueGuard.h"
#include "PassphraseSource.h"
#include "ProcessLocks.h"
#include "x509_auth.h"

namespace x509auth_provider {

// What one provider context asks of the library.
struct ProviderSettings {
  std::vector<std::string> dirs;       // absolute, searched as given
  std::vector<std::string> home_dirs;  // relative to $HOME
  std::string module;                  // absolute PKCS#11 module path; "": none
  int log_threshold = 4;               // lowest priority written; 4: nothing
};

// One call into the library: the context's settings and, for key
// operations, where PINs and passwords come from (null: refuse prompts).
struct Request {
  Request(const ProviderSettings* settings_in, const PassphraseSource* passphrase_in)
      : settings(settings_in), passphrase(passphrase_in) {}

  const ProviderSettings* settings = nullptr;
  const PassphraseSource* passphrase = nullptr;
  // Set when the library asked for a secret the request could not give.
  mutable bool prompt_refused = false;
  // The library's lines that explain a failure (its errors and OpenSSL's
  // reasons), formatted, for the error the caller raises if the call failed.
  mutable std::vector<std::string> evidence;
};

class SharedLibrarySession {
 public:
  // The process's session, initialising the library for the first caller.
  static std::shared_ptr<SharedLibrarySession> Acquire(const ProviderSettings& settings);
  ~SharedLibrarySession();
  SharedLibrarySession(const SharedLibrarySession&) = delete;
  SharedLibrarySession& operator=(const SharedLibrarySession&) = delete;

  // Runs |call| (which calls into the library) under the process-wide lock,
  // with |request|'s directories applied and its passphrase source answering
  // prompts. Whatever the library leaves on OpenSSL's error queue is taken
  // off again: its failures reach the caller as results and evidence.
  template <typename Call>
  auto Run(const Request& request, Call&& call) {
    std::lock_guard<ProcessLocks::Mutex> lock(Mutex());
    const ExitHandlerAfterLoad exit_handler;
    const Scope scope(request);
    return call();
  }

  // Which initialisation of the library is current; read under the lock
  // (inside Run). A key opened under another one is gone.
  static std::uint64_t Generation();
  // Closes |key| if the library is still the initialisation |generation|
  // that opened it; after its end, the key is already gone.
  static void CloseKey(X509_Auth_KeyHandle key, std::uint64_t generation);

 private:
  SharedLibrarySession() = default;
  static ProcessLocks::Mutex& Mutex();
  // Deinitialises the library at process exit, once, if a session is live.
  static void DeinitialiseAtExit();

  // The library loads the PKCS#11 module during a request, and a module's
  // own static objects are destroyed at exit before every exit handler
  // registered ahead of them: logging out and unloading through a module
  // already torn down reads freed memory. So after a request that loaded a
  // shared object, the exit handler is registered again, to run first.
  class ExitHandlerAfterLoad {
   public:
    ExitHandlerAfterLoad();
    ~ExitHandlerAfterLoad();
    ExitHandlerAfterLoad(const ExitHandlerAfterLoad&) = delete;
    ExitHandlerAfterLoad& operator=(const ExitHandlerAfterLoad&) = delete;

   private:
    unsigned long long loads_before_;
  };

  class Scope {
   public:
    explicit Scope(const Request& request);
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    const ErrorQueueGuard errors_;
  };
};

}  // namespace x509auth_provider
