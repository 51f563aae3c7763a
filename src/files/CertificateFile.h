#pragma once
#include <filesystem>

#include "base/OpenSslPtr.h"
#include "base/Thumbprint.h"

namespace quorvant::shared::x509 {

// A certificate read from a "certs" directory and where its key should be.
// Made once per version of the file and then shared, unchanged, by every
// store that scans the file while it stays as it was: copying two paths per
// file per request cost more than the rest of the scan of an unchanged file.
struct CertificateFile {
  X509Ptr x509;
  std::filesystem::path cert_path;
  std::filesystem::path key_path;  // need not exist
  // The certificate's SHA-1 thumbprint, taken once when the record is made so
  // that a lookup by thumbprint does not encode and hash every certificate
  // again; unset when it could not be taken.
  bool has_thumbprint = false;
  Thumbprint thumbprint{};
};

}  // namespace quorvant::shared::x509
