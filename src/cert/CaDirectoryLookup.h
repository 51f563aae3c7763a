#pragma once
#include <openssl/x509_vfy.h>

#include <string>

namespace quorvant::shared::x509 {

// The system's CA directory as a store lookup, giving what OpenSSL's store
// lookup over the same directory gives (every certificate and CRL in the
// files named <subject hash>.N and <subject hash>.rN, PEM or DER) without
// listing the directory at every lookup of every store: the listing is kept
// for the process and taken again only when the directory changes (device,
// inode, modification and change times), and each file found is parsed
// once and again only when it changes. Thread-safe.
class CaDirectoryLookup {
 public:
  // Adds the lookup over |directory| to |store|; false when it cannot.
  static bool AddTo(X509_STORE* store, const std::string& directory);
  // Forgets every listing and parsed file and frees the lookup method (the
  // library's end, once no store holds the lookup).
  static void Clear();
};

}  // namespace quorvant::shared::x509
