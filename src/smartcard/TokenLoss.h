#pragma once
#include <p11-kit/pkcs11.h>

namespace quorvant::shared::x509 {

// Recognises the results that mean a token, or the sessions on it, went
// away under an operation: CKR_DEVICE_REMOVED, CKR_TOKEN_NOT_PRESENT,
// CKR_SESSION_HANDLE_INVALID and CKR_SESSION_CLOSED. With the token watch on
// such a failure earns one fresh listing and one retry.
class TokenLoss {
 public:
  static bool IsLossResult(CK_RV result);
  // CKR_KEY_HANDLE_INVALID and CKR_OBJECT_HANDLE_INVALID: a key found
  // earlier that the token no longer has under that handle (a token
  // re-created, its objects made anew), worth one fresh lookup as well.
  static bool IsStaleHandleResult(CK_RV result);
  // A session probe's code: the module's CK_RV negated.
  static bool IsLossProbe(int probe);
  // Whether OpenSSL's error queue holds such a result recorded by libp11.
  // The queue is left as it was found, for the caller's own error lines.
  static bool InErrorQueue() { return LossInErrorQueue() != CKR_OK; }
  // The first such result in the queue, or CKR_OK when there is none.
  static CK_RV LossInErrorQueue();
  // The first result recorded by libp11 for which |matches| holds, or
  // CKR_OK; the queue is left as it was found.
  static CK_RV FirstInErrorQueue(bool (*matches)(CK_RV));
};

}  // namespace quorvant::shared::x509
