#pragma once
// The library's open keys behind the module's key objects, one per
// certificate thumbprint: opened through X509_Auth_OpenKey at the object's
// first signature or decryption (its password or PIN asked then, under the
// caller's prompt routing) and used for every later one, until the object
// leaves the catalogue, the login ends or the module is finalised.
#include <functional>
#include <map>

#include "TokenObject.h"
#include "x509_auth.h"

namespace x509auth_pkcs11 {

class OpenKeys {
 public:
  // The open key of |thumbprint|, opened now when none is; 0 with |failure|
  // set when the library cannot open it.
  X509_Auth_KeyHandle Get(const Thumbprint& thumbprint, X509_Auth_Result& failure);
  // Closes every key for which |gone| holds.
  void CloseIf(const std::function<bool(const Thumbprint&)>& gone);
  void CloseAll();
  // Forgets every key without closing it: a forked child's library starts
  // over, and its handles name nothing.
  void Forget() { keys_.clear(); }
  std::size_t Count() const { return keys_.size(); }

 private:
  std::map<Thumbprint, X509_Auth_KeyHandle> keys_;
};

}  // namespace x509auth_pkcs11
