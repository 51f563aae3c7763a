#include "keystore/OfferDecision.h"

#include <openssl/x509.h>

#include "base/OpenSslPtr.h"
#include "cert/ICertificate.h"
#include "keystore/KeyStore.h"

namespace quorvant::shared::x509 {

OfferDecision DecideOffer(const ICertificate& cert, const ICertificateStore* extra_store,
                          ChainBuilder& builder, OfferDecision::Reasons reasons) {
  const bool every = reasons == OfferDecision::Reasons::k_every;
  OfferDecision decision;
  decision.key_usage_allowed = KeyStore::IsPermitted(cert);
  if (!decision.key_usage_allowed && !every) return decision;

  builder.ForgetFailure();
  decision.chained = cert.CaChain(decision.chain, extra_store, builder);
  if (!decision.chained) {
    decision.chain_failure = builder.LastFailure();
    if (!every) return decision;
  }

  decision.has_thumbprint = cert.Thumbprint(decision.thumbprint);
  decision.offered = decision.key_usage_allowed && decision.chained && decision.has_thumbprint;
  if (!every) return decision;

  const std::vector<unsigned char> der = cert.Encode();
  const unsigned char* bytes = der.data();
  const X509Ptr x509(d2i_X509(nullptr, &bytes, static_cast<long>(der.size())));
  if (x509) {
    decision.expired = X509_cmp_current_time(X509_get0_notAfter(x509.get())) < 0;
    decision.not_yet_valid = X509_cmp_current_time(X509_get0_notBefore(x509.get())) > 0;
  }
  return decision;
}

}  // namespace quorvant::shared::x509
