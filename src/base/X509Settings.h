#pragma once
#include <filesystem>
#include <vector>

#include "x509_auth.h"

namespace quorvant::shared::x509 {

// The certificate base directories for the whole process. Written only by
// X509_Auth_Init and X509_Auth_PostInitUpdateSettings; read by the file store
// each time a users' store is opened.
class X509Settings {
 public:
  static X509Settings& GetInstance();

  X509Settings(const X509Settings&) = delete;
  X509Settings& operator=(const X509Settings&) = delete;

  // Replaces both lists from |settings|, in array order.
  void Replace(const X509_Auth_Settings& settings);

  // Base directories searched as given.
  const std::vector<std::filesystem::path>& CertificateDirectories() const {
    return certificate_directories_;
  }
  // Base directories searched below $HOME.
  const std::vector<std::filesystem::path>& HomeCertificateDirectories() const {
    return home_certificate_directories_;
  }

 private:
  X509Settings() = default;

  std::vector<std::filesystem::path> certificate_directories_;
  std::vector<std::filesystem::path> home_certificate_directories_;
};

}  // namespace quorvant::shared::x509
