#pragma once
#include <openssl/x509_vfy.h>

#include <string>
#include <vector>

#include "base/OpenSslPtr.h"

namespace quorvant::shared::x509 {

// The system's default CA locations, as X509_STORE_set_default_paths gives
// them: the default CA file's certificates and CRLs, the hashed CA directory
// and the default store URI. The CA file (some 150 certificates) is parsed
// once per process and again only when it changes, and only for a chain that
// cannot be built without it: parsing it dominated every request of a fresh
// process, and most client chains end in CAs the host added.
class DefaultCaPaths {
 public:
  // Adds the hashed CA directory and the default store URI, which OpenSSL
  // asks only for what a store's own objects lack. Returns 1 on success and
  // 0 when a lookup cannot be added, like X509_STORE_set_default_paths.
  static int SetOn(X509_STORE* store);
  // Adds the CA file's certificates and CRLs (from the cache, parsing the
  // file if it changed). A missing CA file adds nothing and is no failure.
  static void AddCaFile(X509_STORE* store);
  // What the default CA locations are now (the CA file's and the CA
  // directory's paths, devices, inodes, sizes, modification and change
  // times): equal texts mean chains verified against them may be kept. A
  // file rewritten in place inside the directory does not change it.
  static std::string Fingerprint();
};

}  // namespace quorvant::shared::x509
