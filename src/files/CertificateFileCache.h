#pragma once
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <string>
#include <unordered_map>

#include "api/OpenSslPtr.h"

namespace quorvant::shared::x509 {

// Certificates read from files, kept between requests so that a request
// which scans a directory of many certificates parses only the files that
// changed. An entry is used only while the file's identity (device, inode,
// size, modification and change times) is exactly what it was when read; a
// file changed less than a second before it was read is not kept, since a
// second change within the file system's timestamp granularity could leave
// its identity as it was. Holds certificates only, never keys; bounded, the
// least recently used half going when it is full. Thread-safe.
class CertificateFileCache {
 public:
  static constexpr std::size_t k_default_capacity = 4096;

  explicit CertificateFileCache(std::size_t capacity = k_default_capacity);
  ~CertificateFileCache();
  CertificateFileCache(const CertificateFileCache&) = delete;
  CertificateFileCache& operator=(const CertificateFileCache&) = delete;

  // The one the certificate stores use.
  static CertificateFileCache& Instance();

  // What ReadX509FromDerOrPemFile(path) returns now: the kept certificate
  // (another reference to it) when the file is unchanged, else the file
  // read again. A file that holds no certificate is kept as such too.
  X509Ptr Read(const std::filesystem::path& path);

  // For tests and diagnostics.
  std::size_t Size() const;
  std::uint64_t Hits() const;
  void Clear();

 private:
  struct Identity {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    long long modified_ns = 0;
    long long changed_ns = 0;
    bool operator==(const Identity& other) const;
  };
  struct Entry {
    Identity identity;
    X509Ptr cert;  // null: the file holds no certificate
    std::uint64_t last_used = 0;
  };

  void EvictOldHalf();

  const std::size_t capacity_;
  mutable std::mutex mutex_;
  std::unordered_map<std::string, Entry> entries_;
  std::uint64_t clock_ = 0;
  std::uint64_t hits_ = 0;
};

}  // namespace quorvant::shared::x509
