#pragma once
// What the library hands out (certificate arrays, signatures, plaintexts,
// CA lists) goes back through X509_Auth_Free. The host-side components (the
// tool, the provider, the PKCS#11 module) hold it in this the moment it
// arrives, so no path of theirs forgets it or frees it twice.
#include <memory>

#include "x509_auth.h"

namespace x509auth_common {

struct LibraryFree {
  void operator()(const void* p) const { X509_Auth_Free(p); }
};

// Holds a pointer the library handed out. Fill it through Receive(), which
// gives the out-parameter the library writes to:
//   LibraryOwned<X509_Auth_Signature> signature;
//   X509_Auth_SignHash(..., Receive(signature));
template <typename T>
using LibraryOwned = std::unique_ptr<const T, LibraryFree>;

// The out-parameter for a call that hands a |T| out; the pointer it
// receives is owned by |owner| when the statement ends.
template <typename T>
class Received {
 public:
  explicit Received(LibraryOwned<T>& owner) : owner_(owner) {}
  ~Received() { owner_.reset(raw_); }
  Received(const Received&) = delete;
  Received& operator=(const Received&) = delete;
  operator const T**() { return &raw_; }
  operator T**() { return const_cast<T**>(&raw_); }

 private:
  LibraryOwned<T>& owner_;
  const T* raw_ = nullptr;
};

template <typename T>
Received<T> Receive(LibraryOwned<T>& owner) {
  return Received<T>(owner);
}

}  // namespace x509auth_common
