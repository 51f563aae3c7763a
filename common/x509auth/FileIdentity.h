#pragma once
#include <sys/stat.h>

#include <ctime>
#include <tuple>

namespace x509auth_common {

// What tells one version of a file from another without reading it
// (the library's kept files, the PKCS#11 module's key-file probe):
// device, inode, size, modification and change times. Those times move in
// clock ticks, so a file changed within the last seconds could change again
// and keep them all: Settled() says whether they can vouch for it.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  struct timespec modified {};
  struct timespec changed {};

  static FileIdentity Of(const struct stat& status) {
    return FileIdentity{status.st_dev, status.st_ino, status.st_size, status.st_mtim,
                        status.st_ctim};
  }

  // Longer than any file system's time granularity.
  static constexpr long k_settle_seconds = 2;

  bool Settled() const {
    struct timespec now {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec - changed.tv_sec >= k_settle_seconds;
  }

  bool operator==(const FileIdentity& other) const {
    return std::tie(device, inode, size, modified.tv_sec, modified.tv_nsec, changed.tv_sec,
                    changed.tv_nsec) == std::tie(other.device, other.inode, other.size,
                                                 other.modified.tv_sec, other.modified.tv_nsec,
                                                 other.changed.tv_sec, other.changed.tv_nsec);
  }
  bool operator!=(const FileIdentity& other) const { return !(*this == other); }
};

}  // namespace x509auth_common
