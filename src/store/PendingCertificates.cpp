#include "store/PendingCertificates.h"

#include <utility>

namespace quorvant::shared::x509 {

void PendingCertificates::AddOwned(X509Ptr cert) {
  if (!cert) return;
  order_.push_back(cert.get());
  owned_.push_back(std::move(cert));
}

void PendingCertificates::Clear() {
  order_.clear();
  owned_.clear();
}

}  // namespace quorvant::shared::x509
