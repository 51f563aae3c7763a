#pragma once
// Opening a file that a user, a careless set-up or an attacker may have put
// in place of a certificate, key, CA or settings file. The file is opened
// first and checked on the descriptor (no window between a check and the
// open): without blocking, so a FIFO or a device answers at once; regular
// files only; at most a stated size, so that no host is blocked or made to
// read gigabytes. Shared by the library, the provider, the PKCS#11 module
// and the tool, header-only so that none links another's internals.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace x509auth_common {

// The largest certificate, key, CA or settings file any component reads.
// A certificate or key is a few KiB; a bundle of every public CA is about
// 200 KiB. What is larger is skipped with one line naming it.
inline constexpr std::uint64_t k_max_file_bytes = 4u * 1024u * 1024u;

class RegularFile {
 public:
  enum class Refusal { k_none, k_open_failed, k_not_regular, k_too_large, k_read_failed };

  RegularFile() = default;
  RegularFile(RegularFile&& other) noexcept { *this = std::move(other); }
  RegularFile& operator=(RegularFile&& other) noexcept {
    if (this != &other) {
      Close();
      descriptor_ = std::exchange(other.descriptor_, -1);
      status_ = other.status_;
      refusal_ = other.refusal_;
      error_ = other.error_;
    }
    return *this;
  }
  RegularFile(const RegularFile&) = delete;
  RegularFile& operator=(const RegularFile&) = delete;
  ~RegularFile() { Close(); }

  // Opens |path| for reading. |follow_links| false refuses a symbolic link
  // as the last component (O_NOFOLLOW) where a link has no business.
  static RegularFile Open(const std::string& path, std::uint64_t limit = k_max_file_bytes,
                          bool follow_links = true) {
    RegularFile file;
    const int flags =
        O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | (follow_links ? 0 : O_NOFOLLOW);
    const int descriptor = ::open(path.c_str(), flags);
    if (descriptor < 0) {
      file.refusal_ = Refusal::k_open_failed;
      file.error_ = errno;
      return file;
    }
    file.descriptor_ = descriptor;
    if (::fstat(descriptor, &file.status_) != 0) {
      file.error_ = errno;
      file.refusal_ = Refusal::k_open_failed;
      file.Close();
    } else if (!S_ISREG(file.status_.st_mode)) {
      file.refusal_ = Refusal::k_not_regular;
      file.Close();
    } else if (static_cast<std::uint64_t>(file.status_.st_size) > limit) {
      file.refusal_ = Refusal::k_too_large;
      file.Close();
    } else {
      // Reads of a regular file never block; later readers (stdio, OpenSSL's
      // BIOs) expect the ordinary mode.
      ::fcntl(descriptor, F_SETFL, ::fcntl(descriptor, F_GETFL) & ~O_NONBLOCK);
    }
    return file;
  }

  bool IsOpen() const { return descriptor_ >= 0; }
  int Descriptor() const { return descriptor_; }
  const struct stat& Status() const { return status_; }
  Refusal WhyRefused() const { return refusal_; }
  // errno of a failed open or read (0 otherwise).
  int Error() const { return error_; }

  // Why the file was refused, for a log line or a message: the system's
  // reason, "not a regular file" or "larger than 4 MiB (N bytes)".
  std::string Reason() const {
    switch (refusal_) {
      case Refusal::k_none: return "";
      case Refusal::k_open_failed:
      case Refusal::k_read_failed: return std::strerror(error_);
      case Refusal::k_not_regular: return "not a regular file";
      case Refusal::k_too_large:
        return "larger than " + std::to_string(k_max_file_bytes / (1024 * 1024)) + " MiB (" +
               std::to_string(static_cast<long long>(status_.st_size)) + " bytes)";
    }
    return "";
  }

  // Reads the whole file into |bytes|, at most the size fstat gave (a file
  // growing meanwhile is cut there, never read on without end). False, with
  // the reason kept, on a read error.
  bool ReadAll(std::vector<unsigned char>& bytes) {
    bytes.assign(static_cast<std::size_t>(status_.st_size), 0);
    std::size_t done = 0;
    while (IsOpen() && done < bytes.size()) {
      const ssize_t got = ::read(descriptor_, bytes.data() + done, bytes.size() - done);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) {
        error_ = errno;
        refusal_ = Refusal::k_read_failed;
        return false;
      }
      if (got == 0) break;  // shrunk since fstat
      done += static_cast<std::size_t>(got);
    }
    bytes.resize(done);
    return IsOpen();
  }

  // Hands the descriptor over (to fdopen or a BIO), which then closes it.
  int Release() { return std::exchange(descriptor_, -1); }

  // Reads |path| whole; false with |reason| set when it cannot be opened,
  // is no regular file, is too large or cannot be read.
  static bool ReadFile(const std::string& path, std::vector<unsigned char>& bytes,
                       std::string& reason, std::uint64_t limit = k_max_file_bytes) {
    RegularFile file = Open(path, limit);
    if (!file.IsOpen() || !file.ReadAll(bytes)) {
      reason = file.Reason();
      return false;
    }
    return true;
  }

 private:
  void Close() {
    if (descriptor_ >= 0) ::close(descriptor_);
    descriptor_ = -1;
  }

  int descriptor_ = -1;
  struct stat status_ {};
  Refusal refusal_ = Refusal::k_none;
  int error_ = 0;
};

}  // namespace x509auth_common
