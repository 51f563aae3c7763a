#include "keystore/KeptOfferDecisions.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <variant>

#include "cert/CertFileContext.h"
#include "cert/DefaultCaPaths.h"
#include "cert/ICertificate.h"
#include "store/CertStore.h"

namespace quorvant::shared::x509 {

namespace {

// The parsed certificate of a file certificate; null for any other.
X509* FileCertificate(const ICertificate& cert) {
  const auto* file = std::get_if<std::unique_ptr<CertFileContext>>(&cert.GetContext());
  return file != nullptr ? (*file)->x509.get() : nullptr;
}

}  // namespace

std::string KeptOfferDecisions::TrustOf(const CertStore& users, const CertStore& added) {
  const std::string users_digest = users.ContentDigest();
  const std::string added_digest = added.ContentDigest();
  if (users_digest.empty() || added_digest.empty()) return {};
  // Validity dates are handed out as local time.
  const char* zone = std::getenv("TZ");
  return users_digest + added_digest + DefaultCaPaths::Fingerprint() + "|" +
         (zone != nullptr ? zone : "-");
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

const KeptOfferDecisions::Kept* KeptOfferDecisions::Find(const ICertificate& cert,
                                                         const std::string& trust) {
  const X509* x509 = FileCertificate(cert);
  if (x509 == nullptr || trust.empty()) return nullptr;
  const auto found = kept_.find(x509);
  if (found == kept_.end()) return nullptr;
  const std::int64_t now = static_cast<std::int64_t>(std::time(nullptr));
  if (found->second.trust != trust || now >= found->second.changes_at) {
    kept_.erase(found);
    return nullptr;
  }
  found->second.listing = listing_;
  listing_changes_at_ = std::min(listing_changes_at_, found->second.changes_at);
  return &found->second;
}

void KeptOfferDecisions::Keep(const ICertificate& cert, const std::string& trust,
                              const CertificateWrapper& described, const OfferDecision& decision,
                              const ChainBuilder& builder) {
  X509* x509 = FileCertificate(cert);
  if (x509 == nullptr || trust.empty()) {
    listing_changes_at_ = 0;
    return;
  }
  std::int64_t changes_at = 0;
  if (!decision.key_usage_allowed) {
    changes_at = ChainBuilder::k_never;
  } else if (decision.chained || decision.chain_failure.verification) {
    changes_at = builder.LastChainChangesAt();
  }
  listing_changes_at_ = std::min(listing_changes_at_, changes_at);
  if (static_cast<std::int64_t>(std::time(nullptr)) >= changes_at) {
    kept_.erase(x509);
    return;
  }
  X509_up_ref(x509);
  Kept& kept = kept_[x509];
  kept.cert.reset(x509);
  kept.trust = trust;
  kept.changes_at = changes_at;
  kept.listing = listing_;
  kept.described = described;
  kept.decision = decision;
}

}  // namespace quorvant::shared::x509
