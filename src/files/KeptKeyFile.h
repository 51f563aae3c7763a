#pragma once
#include <sys/stat.h>

#include <filesystem>

#include "base/OpenSslPtr.h"

namespace quorvant::shared::x509 {

// The private key of one certificate file, parsed once and kept while its
// key file is the same file: one stat per use tells, and a file that
// changed is read (and its password asked for) again. The key is freed, and
// with it cleansed by OpenSSL, when the file goes, when it no longer holds
// the certificate's key, and on destruction. No password is kept.
class KeptKeyFile {
 public:
  enum class State { k_ready, k_missing, k_unreadable, k_mismatch };

  KeptKeyFile(X509Ptr certificate, std::filesystem::path cert_path, std::filesystem::path key_path);

  // Makes the kept key that of the file as it is now, logging one line for
  // a file that is gone, cannot be parsed or does not match.
  State Refresh();
  // The kept key after a Refresh that gave k_ready; null otherwise.
  EVP_PKEY* Key() const { return key_.get(); }
  const std::filesystem::path& KeyPath() const { return key_path_; }

 private:
  // What tells one file from another and a rewritten file from before.
  struct Identity {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    struct timespec modified {};
    struct timespec changed {};
    bool operator==(const Identity& other) const;
  };
  static Identity IdentityOf(const struct stat& status);
  State ReadAgain();

  X509Ptr certificate_;
  std::filesystem::path cert_path_;
  std::filesystem::path key_path_;
  EvpPkeyPtr key_;
  Identity kept_{};
  // A file already refused for holding another key is not read (nor its
  // password asked for) again until it changes.
  bool refused_ = false;
  Identity refused_identity_{};
};

}  // namespace quorvant::shared::x509
