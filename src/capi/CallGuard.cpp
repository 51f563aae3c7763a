#include "capi/CallGuard.h"

#include <pthread.h>

#include "base/SafeCallbacksWrapper.h"
#include "x509_auth.h"

namespace quorvant::shared::x509 {
namespace {

// A host whose log callback itself calls the library again would be told of
// the refusal through that same callback, and so on: one line per thread is
// enough.
thread_local bool t_reporting = false;

}  // namespace

std::atomic<bool>& CallGuard::Busy() {
  static std::atomic<bool> busy{false};
  // A child forked while another thread was inside a call has no such
  // thread: its calls would be refused for ever.
  static const bool reset_in_child =
      pthread_atfork(nullptr, nullptr, [] { Busy().store(false); }) == 0;
  (void)reset_in_child;
  return busy;
}

CallGuard::CallGuard(const char* function) : entered_(!Busy().exchange(true)) {
  if (entered_ || t_reporting) return;
  t_reporting = true;
  SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                            "%s refused: the library is already inside a call (re-entered from a "
                            "callback or a PKCS#11 module, or called from two threads at once)",
                            function);
  t_reporting = false;
}

CallGuard::~CallGuard() {
  if (entered_) Busy().store(false);
}

}  // namespace quorvant::shared::x509
