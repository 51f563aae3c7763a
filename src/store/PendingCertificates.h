#pragma once
#include <openssl/x509.h>

#include <vector>

#include "base/OpenSslPtr.h"

namespace quorvant::shared::x509 {

// Certificates gathered for a store's X509_STORE and not yet in it, oldest
// first. Most of them are held for the whole life of the store by the store's
// own lists (the file records), so taking and dropping a reference to each,
// on every request, would only cost: those are kept as plain pointers. The
// others (the default CA file's certificates, token certificates) have owners
// that may let go while the store lives, so the list holds a reference of its
// own to each until it is cleared.
class PendingCertificates {
 public:
  // |cert| must stay alive at least as long as it is pending here.
  void AddHeld(X509* cert) { order_.push_back(cert); }
  void AddOwned(X509Ptr cert);

  bool Empty() const { return order_.empty(); }
  // In the order they were added.
  const std::vector<X509*>& InOrder() const { return order_; }
  // Forgets them all and drops the references of the owned ones.
  void Clear();

 private:
  std::vector<X509*> order_;
  std::vector<X509Ptr> owned_;
};

}  // namespace quorvant::shared::x509
