#pragma once
#include <filesystem>

#include "base/OpenSslPtr.h"

namespace quorvant::shared::x509 {

class ICertificateStore;

// A certificate loaded from a file of a "certs" directory. Members are
// destroyed key path, certificate path, then the certificate.
struct CertFileContext {
  const ICertificateStore* store = nullptr;  // not owned: the store that listed it
  X509Ptr x509;
  std::filesystem::path cert_path;
  std::filesystem::path key_path;
};

}  // namespace quorvant::shared::x509
