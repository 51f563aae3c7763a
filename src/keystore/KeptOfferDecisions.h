#pragma once
#include <cstdint>
#include <map>
#include <string>

#include "base/OpenSslPtr.h"
#include "keystore/CertificateWrapper.h"
#include "keystore/OfferDecision.h"

namespace quorvant::shared::x509 {

class CertStore;
class ICertificate;

// The offer decisions of certificate files, and what their records say,
// kept with the parsed certificate they were taken for while nothing they
// depend on changed: the same parsed certificate (the file cache parses a
// changed file again), the same certificates in the users' store and among
// the host's CAs, the same default CA locations and time zone, and no
// validity date of the chain crossed since. Verifying every chain again made
// each listing cost as much as the first. One listing at a time.
class KeptOfferDecisions {
 public:
  struct Kept {
    // Held, so that no other certificate can take its address.
    X509Ptr cert;
    std::string trust;
    std::int64_t changes_at = 0;
    std::uint64_t listing = 0;
    // Everything but the chain and the thumbprint, which |decision| holds.
    CertificateWrapper described;
    OfferDecision decision;
  };

  // What the decisions of a listing are taken against.
  static std::string TrustOf(const CertStore& users, const CertStore& added);

  // Starts a listing: what it does not ask for is forgotten at its end.
  void BeginListing() {
    ++listing_;
    listing_changes_at_ = ChainBuilder::k_never;
  }
  void EndListing();
  // When a decision of the latest listing may next change by time alone; 0
  // when one of them was not kept (a token's, or a failure of no
  // verification), which may change at any time.
  std::int64_t ListingChangesAt() const { return listing_changes_at_; }

  // What was kept for |cert| when it may still be used; null otherwise, and
  // always for a certificate that is no file or an empty |trust|.
  const Kept* Find(const ICertificate& cert, const std::string& trust);
  // Keeps what was found for a file certificate, while the chain's dates
  // |builder| last saw allow; failures of steps other than the
  // verification are not the certificate's and are not kept.
  void Keep(const ICertificate& cert, const std::string& trust, const CertificateWrapper& described,
            const OfferDecision& decision, const ChainBuilder& builder);

 private:
  std::map<const X509*, Kept> kept_;
  std::uint64_t listing_ = 0;
  std::int64_t listing_changes_at_ = 0;
};

}  // namespace quorvant::shared::x509
