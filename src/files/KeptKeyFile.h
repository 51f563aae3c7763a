#pragma once
#include <array>
#include <filesystem>
#include <vector>

#include "base/OpenSslPtr.h"
#include "files/FileIdentity.h"

namespace quorvant::shared::x509 {

// The private key of one certificate file, parsed once and kept while its
// key file is the same file: one stat per use tells, and a file that
// changed is read (and its password asked for) again. File times move in
// clock ticks, so a file changed within the last seconds could change again
// unseen: its bytes are compared with those parsed instead. The key is freed, and
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
  // SHA-256 of |bytes|.
  static std::array<unsigned char, 32> DigestOf(const std::vector<unsigned char>& bytes);
  // Whether the file now holds the bytes the kept key was parsed from.
  bool SameBytes() const;
  State ReadAgain();

  X509Ptr certificate_;
  std::filesystem::path cert_path_;
  std::filesystem::path key_path_;
  EvpPkeyPtr key_;
  FileIdentity kept_{};
  std::array<unsigned char, 32> kept_digest_{};
  // A file already refused for holding another key is not read (nor its
  // password asked for) again until it changes.
  bool refused_ = false;
  FileIdentity refused_identity_{};
};

}  // namespace quorvant::shared::x509
