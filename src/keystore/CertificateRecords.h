#pragma once
#include <string>
#include <vector>

#include "cert/ChainBuilder.h"
#include "keystore/CertificateWrapper.h"
#include "keystore/KeptOfferDecisions.h"
#include "x509_auth.h"

namespace quorvant::shared::x509 {

class ICertificate;
class ICertificateStore;

// How a certificate becomes the record the host is handed: the same steps,
// and the same lines, for the whole listing and for one certificate found by
// its thumbprint, so that both give equal records.
class CertificateRecords {
 public:
  // Describes |cert| into |*wrapper| as the listing does, its chain built
  // against |added| (the host's CAs) with |builder|, or taken from |kept|
  // while |trust| holds; false, after the listing's line, when its chain or
  // thumbprint cannot be had.
  static bool Describe(const ICertificate& cert, const ICertificateStore* added,
                       ChainBuilder& builder, KeptOfferDecisions& kept, const std::string& trust,
                       CertificateWrapper* wrapper);
  // The fields and lines of Describe that need no decision: everything but
  // the chain and the thumbprint.
  static void DescribeSource(const ICertificate& cert, CertificateWrapper* wrapper);
  // Fills the wrappers' chain pointers and returns one record per wrapper,
  // pointing into it. Throws std::invalid_argument("Unimplemented") for a
  // key algorithm group above 2.
  static std::vector<X509_Auth_Certificate> Records(std::vector<CertificateWrapper>& wrappers);
};

}  // namespace quorvant::shared::x509
