#pragma once
// One retry of a key operation that met a token or session gone away, for
// the per-request operations (KeyStore) and the keys held open
// (OpenTokenKey) alike: the same warning, one fresh slot listing, one more
// attempt, then whatever that attempt gives.
#include <memory>

#include "base/SafeCallbacksWrapper.h"
#include "smartcard/Libp11Context.h"

namespace quorvant::shared::x509 {

// Runs |attempt|; when it failed and |context| (null: the watch is off)
// noted a token loss meanwhile, lists the tokens afresh and returns
// |again|'s outcome instead.
template <typename Attempt, typename Again>
auto RetryOnceAfterTokenLoss(const std::shared_ptr<Libp11Context>& context, Attempt attempt,
                             Again again) {
  // A loss noted before this operation is not its own.
  if (context) context->TakeTokenLoss();
  auto outcome = attempt();
  if (outcome.result.code == X509_Auth_ResultCode_Success || !context || !context->TakeTokenLoss())
    return outcome;
  SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Warning,
                            "A token or its session went away during the operation; listing the "
                            "tokens again and trying once more");
  context->ForceRefresh();
  return again();
}

}  // namespace quorvant::shared::x509
