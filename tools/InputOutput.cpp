#include "InputOutput.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "Report.h"

namespace x509auth_tool {
namespace {

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

// The first write error on stdout, and whether it was reported.
int g_stdout_error = 0;
bool g_stdout_reported = false;

std::string InputName(const std::string& path) {
  return path == "-" ? std::string("standard input") : path;
}

// Opens |path| ("-": stdin) for reading; null after printing why.
std::FILE* OpenInput(const std::string& path, FilePtr& owned) {
  if (path == "-") return stdin;
  owned.reset(std::fopen(path.c_str(), "rb"));
  if (!owned) return Fail("cannot read " + path + ": " + std::strerror(errno)), nullptr;
  return owned.get();
}

// Calls |take| with each piece of |in| until the end of the input, or until
// |take| returns false; false after printing a read error.
template <typename Take>
bool ReadPieces(std::FILE* in, const std::string& path, Take take) {
  unsigned char buffer[65536];
  std::size_t n;
  // One Ctrl-D on a terminal ends the input: stop at the first end of file
  // rather than read on for a second one.
  while ((n = std::fread(buffer, 1, sizeof buffer, in)) > 0) {
    if (!take(buffer, n)) return true;
    if (std::feof(in)) break;
  }
  if (std::ferror(in)) {
    const int error = errno;
    return Fail("cannot read " + InputName(path) + ": " + std::strerror(error)), false;
  }
  return true;
}

}  // namespace

std::optional<std::vector<unsigned char>> ReadInput(const std::string& path, std::size_t limit,
                                                    const std::string& what) {
  FilePtr owned;
  std::FILE* in = OpenInput(path, owned);
  if (in == nullptr) return std::nullopt;
  std::vector<unsigned char> data;
  bool too_long = false;
  const bool read = ReadPieces(in, path, [&](const unsigned char* piece, std::size_t n) {
    too_long = data.size() + n > limit;
    if (!too_long) data.insert(data.end(), piece, piece + n);
    return !too_long;
  });
  if (!read) return std::nullopt;
  if (too_long)
    return FailPlain(InputName(path) + " is longer than " + what + " can be (more than " +
                     std::to_string(limit) + " bytes)"),
           std::nullopt;
  return data;
}

bool DigestInput(const std::string& path, EVP_MD_CTX* digest) {
  FilePtr owned;
  std::FILE* in = OpenInput(path, owned);
  if (in == nullptr) return false;
  bool hashed = true;
  const bool read = ReadPieces(in, path, [&](const unsigned char* piece, std::size_t n) {
    hashed = EVP_DigestUpdate(digest, piece, n) == 1;
    return hashed;
  });
  if (read && !hashed) Fail("cannot hash " + InputName(path));
  return read && hashed;
}

bool WriteOutput(const std::string& path, const unsigned char* data, std::size_t length,
                 mode_t mode) {
  if (path.empty() || path == "-") {
    if (std::fwrite(data, 1, length, stdout) != length && g_stdout_error == 0)
      g_stdout_error = errno;
    return FlushStandardOutput();
  }
  const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (descriptor < 0) return Fail("cannot write " + path + ": " + std::strerror(errno)), false;
  struct stat status {};
  const bool regular = ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
  std::size_t done = 0;
  int error = 0;
  while (done < length) {
    const ssize_t n = ::write(descriptor, data + done, length - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      error = n < 0 ? errno : EIO;
      break;
    }
    done += static_cast<std::size_t>(n);
  }
  if (::close(descriptor) != 0 && error == 0 && errno != EINTR) error = errno;
  if (error == 0) return true;
  // Half a signature or plaintext is worse than none: it must not pass for
  // the result. Only a regular file is removed; a device or pipe stays.
  const bool removed = regular && ::unlink(path.c_str()) == 0;
  Fail("cannot write " + path + ": " + std::strerror(error) +
       (removed ? " (the incomplete file was removed)" : ""));
  return false;
}

void PrintOut(const std::string& text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() && g_stdout_error == 0)
    g_stdout_error = errno != 0 ? errno : EIO;
}

bool FlushStandardOutput() {
  if (std::fflush(stdout) != 0 && g_stdout_error == 0) g_stdout_error = errno != 0 ? errno : EIO;
  if (g_stdout_error == 0 && std::ferror(stdout)) g_stdout_error = EIO;
  if (g_stdout_error == 0) return true;
  if (!g_stdout_reported)
    FailPlain(std::string("cannot write to standard output: ") + std::strerror(g_stdout_error));
  g_stdout_reported = true;
  return false;
}

}  // namespace x509auth_tool
