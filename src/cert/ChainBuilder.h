#pragma once
#include <openssl/x509_vfy.h>

#include <cstdint>
#include <string>
#include <vector>

#include "base/OpenSslPtr.h"
#include "base/Thumbprint.h"

namespace quorvant::shared::x509 {

// Verifies certificates and returns their chains against one trusted store:
// the certificates of a certificate's own X509_STORE and of an optional extra
// one, plus the system's default CA locations, copied into a fresh store so
// that neither source changes. The fresh store is made on first use and kept
// for further certificates of the same two sources, so that a listing pays
// for it once instead of once per certificate. Lookups into the CA directory
// may cache what they find in it; a later verification then finds the same
// certificates there, which is what it would load anyway. One thread at a time.
class ChainBuilder {
 public:
  // Why the last CaChain failed: OpenSSL's verification error with its
  // message and depth, or (not |verification|) the step that failed, in the
  // words of its log line; an empty message when nothing failed.
  struct Failure {
    bool verification = false;
    int verify_error = 0;
    int depth = 0;
    std::string message;
  };

  ChainBuilder();
  ~ChainBuilder();
  ChainBuilder(const ChainBuilder&) = delete;
  ChainBuilder& operator=(const ChainBuilder&) = delete;

  // Appends the thumbprints of |cert|'s verified chain, the certificate
  // first. |own| is the X509_STORE of the store that made the certificate
  // (null fails), |extra| may be null. Logs every failure.
  bool CaChain(X509* cert, X509_STORE* own, X509_STORE* extra, std::vector<Thumbprint>& chain);
  const Failure& LastFailure() const { return last_failure_; }
  // When the last CaChain's outcome may next change by time alone: the
  // earliest validity date, still ahead, of a certificate of the chain it
  // built or tried (seconds since the epoch); k_never when none is ahead,
  // and 0 when nothing was verified.
  static constexpr std::int64_t k_never = INT64_MAX;
  std::int64_t LastChainChangesAt() const { return last_changes_at_; }
  void ForgetFailure() { last_failure_ = Failure{}; }

 private:
  bool Prepare(X509_STORE* own, X509_STORE* extra);
  // Initialises |context| on the trusted store for |cert|; false after
  // logging and recording the failure.
  bool InitContext(X509_STORE_CTX* context, X509* cert);

  // The context points into the trusted store: it is freed first.
  X509StorePtr trusted_;
  X509_STORE* own_ = nullptr;
  X509_STORE* extra_ = nullptr;
  // Whether the system's CA file has joined |trusted_| (see CaChain).
  bool ca_file_added_ = false;
  Failure last_failure_;
  std::int64_t last_changes_at_ = 0;
};

}  // namespace quorvant::shared::x509
