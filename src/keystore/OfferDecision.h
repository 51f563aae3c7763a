#pragma once
#include <vector>

#include "base/Thumbprint.h"
#include "cert/ChainBuilder.h"

namespace quorvant::shared::x509 {

class ICertificate;
class ICertificateStore;

// Whether a certificate is offered for TLS client authentication, and why
// not: the one decision X509_Auth_LoadClientCertificates takes and the
// x509-auth tool's doctor reports. Offered means: its key usage allows client
// authentication, its chain verifies, and its thumbprint can be computed.
struct OfferDecision {
  // How far DecideOffer goes: the listing stops at the first refusal, so
  // that a refused certificate costs (and logs) no more; the doctor wants
  // every reason.
  enum class Reasons { k_until_refused, k_every };

  bool offered = false;
  bool key_usage_allowed = false;
  // The verified chain, the certificate first, when |chained|; otherwise
  // why not.
  bool chained = false;
  std::vector<Thumbprint> chain;
  ChainBuilder::Failure chain_failure;
  bool has_thumbprint = false;
  x509::Thumbprint thumbprint{};
  // Dates, only with Reasons::k_every; an expired or not yet valid
  // certificate also fails its chain.
  bool expired = false;
  bool not_yet_valid = false;
};

// DecideOffer takes the decision for |cert|, building its chain with
// |builder| against the certificate's own store and |extra_store| (may be
// null). The chain builder logs as it always does.
OfferDecision DecideOffer(const ICertificate& cert, const ICertificateStore* extra_store,
                          ChainBuilder& builder, OfferDecision::Reasons reasons);

}  // namespace quorvant::shared::x509
