#pragma once
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "base/OpenSslPtr.h"
#include "files/CertificateFile.h"
#include "files/FileIdentity.h"
#include "x509auth/RegularFile.h"

namespace quorvant::shared::x509 {

// Certificates read from files, kept between requests so that a request
// which scans a directory of many certificates parses only the files that
// changed, and shares the record made for the file instead of building it
// again. An entry is used only while the file's identity (device, inode,
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
  static CertificateFileCache& GetInstance();

  // What a directory scan learns of a file besides its record.
  struct Facts {
    bool identified = false;  // its status could be taken
    bool settled = false;     // unchanged for over a second when it was read
    std::uint64_t links = 0;  // hard links to it
    bool mount_known = false;
    std::uint64_t mount_id = 0;  // the mount it was found on
    // Why the file was not read at all, and the text for a log line.
    x509auth_common::RegularFile::Refusal refusal = x509auth_common::RegularFile::Refusal::k_none;
    std::string reason;
  };

  // The record of the certificate file |name| in the directory open as
  // |directory| (AT_FDCWD for a name that is a whole path), whose whole path
  // is |cert_path| and whose key is expected at |key_path|. It holds what
  // ReadX509FromDerOrPemFile(cert_path) returns now: the kept record when the
  // file is unchanged, else one made from the file read again. Null when the
  // file holds no certificate, which is kept as such too; errno then tells
  // whether the file could not be opened for want of descriptors. A file
  // found on its descriptor to be no regular file, or too large, is never
  // kept: it is looked at again (opened and refused) on every read.
  // |facts|, when given, receives what was learnt of the file.
  std::shared_ptr<const CertificateFile> Read(int directory, const char* name,
                                              const std::string& cert_path,
                                              const std::string& key_path, Facts* facts = nullptr);

  // What ReadX509FromDerOrPemFile(path) returns now, through the same entries.
  X509Ptr Read(const std::filesystem::path& path);

  // For tests and diagnostics.
  std::size_t Size() const;
  std::uint64_t Hits() const;
  void Clear();

 private:
  struct Entry {
    FileIdentity identity;
    std::shared_ptr<const CertificateFile> file;  // null: no certificate in it
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
