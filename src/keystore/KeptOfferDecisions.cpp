#include "keystore/KeptOfferDecisions.h"

#include <ctime>
#include <variant>

#include "base/SafeCallbacksWrapper.h"
#include "cert/CertFileContext.h"
#include "cert/DefaultCaPaths.h"
#include "cert/ICertificate.h"
#include "store/CertStore.h"

namespace quorvant::shared::x509 {

std::string KeptOfferDecisions::TrustOf(const CertStore& users, const CertStore& added) {
  const std::string users_digest = users.ContentDigest();
  const std::string added_digest = added.ContentDigest();
  if (users_digest.empty() || added_digest.empty()) return {};
  return users_digest + added_digest + DefaultCaPaths::Fingerprint();
}

void KeptOfferDecisions::EndListing() {
  for (auto entry = kept_.begin(); entry != kept_.end();) {
    if (entry->second.listing != listing_) {
      entry = kept_.erase(entry);
    } else {
      ++entry;
    }
  }
}

OfferDecision KeptOfferDecisions::Decide(const ICertificate& cert, const std::string& trust,
                                         const ICertificateStore* added, ChainBuilder& builder) {
  const auto* file = std::get_if<std::unique_ptr<CertFileContext>>(&cert.GetContext());
  if (file == nullptr || trust.empty())
    return DecideOffer(cert, added, builder, OfferDecision::Reasons::k_until_refused);
  X509* x509 = (*file)->x509.get();
  const std::int64_t now = static_cast<std::int64_t>(std::time(nullptr));
  const auto found = kept_.find(x509);
  if (found != kept_.end() && found->second.trust == trust && now < found->second.changes_at) {
    found->second.listing = listing_;
    const OfferDecision& decision = found->second.decision;
    if (decision.key_usage_allowed && !decision.chained) {
      const ChainBuilder::Failure& failure = decision.chain_failure;
      SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Warning,
                                "Cert::CaChain X509_verify_cert failed. Error code: [%i], Error "
                                "message: [%s], Error depth: [%i]",
                                failure.verify_error, failure.message.c_str(), failure.depth);
    }
    return decision;
  }

  OfferDecision decision =
      DecideOffer(cert, added, builder, OfferDecision::Reasons::k_until_refused);
  std::int64_t changes_at = 0;
  if (!decision.key_usage_allowed) {
    changes_at = ChainBuilder::k_never;
  } else if (decision.chained || decision.chain_failure.verification) {
    // Failures of other steps (memory, a context) are not the certificate's.
    changes_at = builder.LastChainChangesAt();
  }
  if (now < changes_at) {
    X509_up_ref(x509);
    Kept& kept = kept_[x509];
    kept.cert.reset(x509);
    kept.trust = trust;
    kept.changes_at = changes_at;
    kept.listing = listing_;
    kept.decision = decision;
  } else {
    kept_.erase(x509);
  }
  return decision;
}

}  // namespace quorvant::shared::x509
