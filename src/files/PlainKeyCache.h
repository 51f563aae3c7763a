#pragma once
#include <openssl/x509.h>

#include <array>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>

#include "base/OpenSslPtr.h"
#include "files/FileIdentity.h"

namespace quorvant::shared::x509 {

// Unencrypted key files parsed for the per-request key operations, kept
// while each file is the same file, so that a request whose key file did not
// change uses the key parsed before. A key that asked for a password is
// never kept: it is read, and its password asked for, at every request.
// Kept keys are freed (OpenSSL cleanses them) on Clear, when their file
// changes, and at exit. Thread-safe.
class PlainKeyCache {
 public:
  // At most this many key files are kept; the oldest goes first.
  static constexpr std::size_t k_max_keys = 64;

  static PlainKeyCache& GetInstance();

  // The key in |key_path| when it belongs to |cert|, as
  // GetPrivateKeyForX509Cert gives it and with its lines: from memory when
  // the file is the one kept (no line, as for any successful read), read
  // otherwise.
  EvpPkeyPtr Get(X509* cert, const std::filesystem::path& cert_path,
                 const std::filesystem::path& key_path);
  void Clear();
  std::size_t Size() const;

 private:
  struct Kept {
    FileIdentity identity;
    std::array<unsigned char, 32> digest{};
    X509Ptr cert;
    EvpPkeyPtr key;
    std::uint64_t last_use = 0;
  };

  mutable std::mutex mutex_;
  std::map<std::string, Kept> kept_;
  std::uint64_t uses_ = 0;
};

}  // namespace quorvant::shared::x509
