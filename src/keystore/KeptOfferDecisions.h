#pragma once
#include <cstdint>
#include <map>
#include <string>

#include "base/OpenSslPtr.h"
#include "keystore/OfferDecision.h"

namespace quorvant::shared::x509 {

class CertStore;
class ICertificate;
class ICertificateStore;

// The offer decisions of certificate files, kept with the parsed certificate
// they were taken for while nothing they depend on changed: the same parsed
// certificate (the file cache parses a changed file again), the same
// certificates in the users' store and among the host's CAs, the same
// default CA locations, and no validity date of the chain crossed since.
// Verifying every chain again made each listing cost as much as the first.
// One listing at a time.
class KeptOfferDecisions {
 public:
  // What the decisions of a listing are taken against.
  static std::string TrustOf(const CertStore& users, const CertStore& added);

  // Starts a listing: what it does not ask for is forgotten at its end.
  void BeginListing() { ++listing_; }
  void EndListing();

  // DecideOffer(k_until_refused) for |cert|, from what was kept when it may
  // be (writing the line the chain builder wrote when it was taken), taken
  // and kept otherwise. Only certificate files are kept; |trust| empty keeps
  // nothing.
  OfferDecision Decide(const ICertificate& cert, const std::string& trust,
                       const ICertificateStore* added, ChainBuilder& builder);

 private:
  struct Kept {
    // Held, so that no other certificate can take its address.
    X509Ptr cert;
    std::string trust;
    std::int64_t changes_at = 0;
    std::uint64_t listing = 0;
    OfferDecision decision;
  };
  std::map<const X509*, Kept> kept_;
  std::uint64_t listing_ = 0;
};

}  // namespace quorvant::shared::x509
