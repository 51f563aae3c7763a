#include "cert/X509StoreBatch.h"

#include <openssl/err.h>
#include <openssl/x509.h>

#include <memory>

#include "base/OpenSslPtr.h"

namespace quorvant::shared::x509 {

namespace {

using X509ObjectPtr = std::unique_ptr<X509_OBJECT, OpenSslDeleter<X509_OBJECT, X509_OBJECT_free>>;

}  // namespace

X509StoreBatch::X509StoreBatch(X509_STORE* store) : store_(store) {
  STACK_OF(X509_OBJECT)* objects = X509_STORE_get0_objects(store_);
  for (int i = 0; i < sk_X509_OBJECT_num(objects); ++i) {
    if (X509* cert = X509_OBJECT_get0_X509(sk_X509_OBJECT_value(objects, i))) present_.insert(cert);
  }
}

X509StoreBatch::~X509StoreBatch() = default;

int X509StoreBatch::Add(X509* cert) {
  if (cert == nullptr) return 0;
  // An equal certificate already there is success, as in OpenSSL.
  if (present_.count(cert) != 0) return 1;
  X509ObjectPtr object(X509_OBJECT_new());
  if (!object || X509_OBJECT_set1_X509(object.get(), cert) != 1) {
    ERR_raise(ERR_LIB_X509, ERR_R_MALLOC_FAILURE);
    return 0;
  }
  if (!X509_STORE_lock(store_)) return 0;
  // Pushing marks the stack unsorted; OpenSSL sorts it before searching it.
  const int pushed = sk_X509_OBJECT_push(X509_STORE_get0_objects(store_), object.get());
  X509_STORE_unlock(store_);
  if (pushed == 0) {
    ERR_raise(ERR_LIB_X509, ERR_R_MALLOC_FAILURE);
    return 0;
  }
  object.release();  // now the store's
  present_.insert(cert);
  return 1;
}

void X509StoreBatch::AddCertificatesOf(X509_STORE* from) {
  STACK_OF(X509_OBJECT)* objects = X509_STORE_get0_objects(from);
  for (int i = 0; i < sk_X509_OBJECT_num(objects); ++i) {
    if (X509* cert = X509_OBJECT_get0_X509(sk_X509_OBJECT_value(objects, i))) Add(cert);
  }
}

}  // namespace quorvant::shared::x509
