#pragma once
#include <openssl/x509_vfy.h>

#include <set>

namespace quorvant::shared::x509 {

// Adds many certificates to an X509_STORE with the result of calling
// X509_STORE_add_cert on each in turn: the same objects, in the same order,
// duplicates (equal under X509_cmp) skipped. OpenSSL 3.0 sorts the store's
// whole object stack on every X509_STORE_add_cert, which made filling a store
// quadratic; here the objects are pushed and the stack is left for OpenSSL to
// sort once, on its next lookup. The store must not be used by another thread
// while a batch lives.
class X509StoreBatch {
 public:
  // Indexes the certificates already in |store|.
  explicit X509StoreBatch(X509_STORE* store);
  ~X509StoreBatch();
  X509StoreBatch(const X509StoreBatch&) = delete;
  X509StoreBatch& operator=(const X509StoreBatch&) = delete;

  // Takes a reference to |cert| unless an equal one is in the store already.
  // Returns 0 only when OpenSSL cannot allocate, like X509_STORE_add_cert.
  int Add(X509* cert);
  // Adds the certificates (not CRLs) of |from|.
  void AddCertificatesOf(X509_STORE* from);

 private:
  struct X509Less {
    bool operator()(X509* a, X509* b) const { return X509_cmp(a, b) < 0; }
  };

  X509_STORE* store_;
  std::set<X509*, X509Less> present_;
};

}  // namespace quorvant::shared::x509
