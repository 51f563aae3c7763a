#include "files/PrivateKeyFiles.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "base/PromptAnswer.h"
#include "base/SafeCallbacksWrapper.h"
#include "base/WipeOnExit.h"
#include "x509auth/RegularFile.h"

namespace quorvant::shared::x509 {

namespace {

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

int AskHostForPassword(char* buffer, int size, const char* path) {
  const std::string prompt = std::string("Enter password for: ") + path;
  const PromptAnswer answer("Enter password", prompt.c_str());
  // A status-0 result without text has no usable value either.
  if (!answer.Received() || answer.Status() != 0 || answer.Text() == nullptr) return -1;

  const std::size_t length = answer.Length();
  if (size < 0 || length > static_cast<std::size_t>(size)) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                              "Password for [%s] is too long. Max length is [%i]", path, size);
    return -1;
  }
  // OpenSSL takes the returned length; it wants no terminating NUL, so a
  // password filling the whole buffer is accepted.
  std::memcpy(buffer, answer.Text(), length);
  return static_cast<int>(length);
}

// OpenSSL 3 asks again after a refused password (its decoder fails, then
// its legacy reader retries), so one PEM read remembers a refusal and the
// user is prompted once per read, as with OpenSSL 1.1.
struct PasswordRequest {
  bool refused = false;
};
thread_local PasswordRequest* current_request = nullptr;
thread_local std::uint64_t password_callbacks = 0;

class PasswordRequestScope {
 public:
  explicit PasswordRequestScope(PasswordRequest* request) : previous_(current_request) {
    current_request = request;
  }
  ~PasswordRequestScope() { current_request = previous_; }
  PasswordRequestScope(const PasswordRequestScope&) = delete;
  PasswordRequestScope& operator=(const PasswordRequestScope&) = delete;

 private:
  PasswordRequest* previous_;
};

// OpenSSL's PEM password callback; |user_data| is the key file's path.
int PemPasswordCallback(char* buffer, int size, int /*rwflag*/, void* user_data) {
  ++password_callbacks;
  if (current_request != nullptr && current_request->refused) return -1;
  int outcome = -1;
  // OpenSSL is C: nothing may unwind through it, so any failure here is a
  // refused password.
  try {
    outcome = AskHostForPassword(buffer, size, static_cast<const char*>(user_data));
  } catch (...) {
    outcome = -1;
  }
  if (outcome < 0 && current_request != nullptr) current_request->refused = true;
  return outcome;
}

using x509auth_common::RegularFile;

void LogCannotOpen(const std::filesystem::path& path, const char* reason) {
  SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                            "Could not open private key file [%s]. Error message [%s]",
                            path.c_str(), reason);
}

// Opens a key file for one reader: without blocking, checked on the
// descriptor (regular, within the size limit); a refusal is logged. The PEM
// reader says nothing of a directory, in which it merely finds no PEM.
RegularFile OpenKeyFile(const std::filesystem::path& path, bool report_directory) {
  RegularFile file = RegularFile::Open(path.native());
  if (file.IsOpen()) return file;
  if (file.WhyRefused() != RegularFile::Refusal::k_not_regular || !S_ISDIR(file.Status().st_mode))
    LogCannotOpen(path, file.Reason().c_str());
  else if (report_directory)
    LogCannotOpen(path, std::strerror(EISDIR));
  return file;
}

// A checked key file read through stdio, with a buffer of its own instead
// of one of stdio's, wiped once the stream is closed.
class KeyFileStream {
 public:
  explicit KeyFileStream(RegularFile file) : buffer_(BUFSIZ), wipe_(buffer_) {
    const int descriptor = file.Release();
    stream_.reset(::fdopen(descriptor, "r"));
    if (!stream_) {
      error_ = errno;
      ::close(descriptor);
      return;
    }
    std::setvbuf(stream_.get(), reinterpret_cast<char*>(buffer_.data()), _IOFBF, buffer_.size());
  }
  KeyFileStream(const KeyFileStream&) = delete;
  KeyFileStream& operator=(const KeyFileStream&) = delete;

  bool IsOpen() const { return stream_ != nullptr; }
  int Error() const { return error_; }
  std::FILE* get() const { return stream_.get(); }

 private:
  // In this order, so that the stream is closed before its buffer is wiped.
  std::vector<unsigned char> buffer_;
  const WipeOnExit wipe_;
  FilePtr stream_;
  int error_ = 0;
};

EvpPkeyPtr PemKey(std::FILE* stream, const std::filesystem::path& path) {
  // The callback runs only for an encrypted key.
  PasswordRequest request;
  const PasswordRequestScope scope(&request);
  return EvpPkeyPtr(
      PEM_read_PrivateKey(stream, nullptr, PemPasswordCallback, const_cast<char*>(path.c_str())));
}

EvpPkeyPtr DerKey(const std::vector<unsigned char>& bytes) {
  static const unsigned char k_nothing = 0;
  const unsigned char* cursor = bytes.empty() ? &k_nothing : bytes.data();
  return EvpPkeyPtr(d2i_AutoPrivateKey(nullptr, &cursor, static_cast<int>(bytes.size())));
}

// PEM, then DER, from one opened and checked file: what is parsed is what
// was checked, with no second open for another file to be put in its place.
EvpPkeyPtr ReadKeyFromOpenFile(RegularFile file, const std::filesystem::path& path) {
  const auto size = static_cast<std::size_t>(file.Status().st_size);
  KeyFileStream stream(std::move(file));
  if (!stream.IsOpen()) {
    LogCannotOpen(path, std::strerror(stream.Error()));
    return EvpPkeyPtr();
  }
  if (EvpPkeyPtr pem = PemKey(stream.get(), path)) return pem;
  std::vector<unsigned char> bytes(size);
  const WipeOnExit wipe(bytes);
  std::rewind(stream.get());
  bytes.resize(std::fread(bytes.data(), 1, bytes.size(), stream.get()));
  return DerKey(bytes);
}

// The key in |key_path|, read only when it is, once opened, a regular file
// within the size limit. A FIFO or a device (which would block the read or
// never end it) is no key file and is not read; a file too large is named
// in one line; a directory and a file that cannot be opened are reported
// by each reader, as they always were.
EvpPkeyPtr ReadCheckedKeyFile(const std::filesystem::path& key_path) {
  RegularFile file = RegularFile::Open(key_path.native());
  if (file.IsOpen()) return ReadKeyFromOpenFile(std::move(file), key_path);
  switch (file.WhyRefused()) {
    case RegularFile::Refusal::k_too_large:
      LogCannotOpen(key_path, file.Reason().c_str());
      return EvpPkeyPtr();
    case RegularFile::Refusal::k_not_regular:
      if (!S_ISDIR(file.Status().st_mode)) return EvpPkeyPtr();
      break;
    default: break;
  }
  return ReadPrivateKeyFromDerOrPemFile(key_path);
}

}  // namespace

std::uint64_t PasswordCallbacksSoFar() { return password_callbacks; }

EvpPkeyPtr ReadPrivateKeyFromOpenFile(RegularFile file, const std::filesystem::path& path) {
  return ReadKeyFromOpenFile(std::move(file), path);
}

EvpPkeyPtr ReadPrivateKeyFromPemFile(const std::filesystem::path& path) {
  RegularFile file = OpenKeyFile(path, false);
  if (!file.IsOpen()) return EvpPkeyPtr();
  KeyFileStream stream(std::move(file));
  if (!stream.IsOpen()) {
    LogCannotOpen(path, std::strerror(stream.Error()));
    return EvpPkeyPtr();
  }
  return PemKey(stream.get(), path);
}

EvpPkeyPtr ReadPrivateKeyFromDerFile(const std::filesystem::path& path) {
  RegularFile file = OpenKeyFile(path, true);
  if (!file.IsOpen()) return EvpPkeyPtr();
  std::vector<unsigned char> bytes;
  const WipeOnExit wipe(bytes);
  if (!file.ReadAll(bytes)) return EvpPkeyPtr();
  return DerKey(bytes);
}

EvpPkeyPtr ReadPrivateKeyFromDerOrPemFile(const std::filesystem::path& path) {
  if (EvpPkeyPtr pem = ReadPrivateKeyFromPemFile(path)) return pem;
  return ReadPrivateKeyFromDerFile(path);
}

EvpPkeyPtr GetPrivateKeyForX509Cert(X509* cert, const std::filesystem::path& cert_path,
                                    const std::filesystem::path& key_path) {
  try {
    const std::filesystem::file_type type = std::filesystem::status(key_path).type();
    if (type == std::filesystem::file_type::not_found || type == std::filesystem::file_type::none) {
      SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error, "Private key file [%s] does not exist",
                                key_path.c_str());
      return EvpPkeyPtr();
    }
    // A FIFO or a device would block the read or never end it: such a file
    // is not a key file and is not even opened. Put in place after this
    // look, it is refused on the opened descriptor instead.
    const bool readable = type == std::filesystem::file_type::regular ||
                          type == std::filesystem::file_type::directory;
    EvpPkeyPtr key = readable ? ReadCheckedKeyFile(key_path) : EvpPkeyPtr();
    if (!key) {
      SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                                "Failed to parse private key file [%s]", key_path.c_str());
    } else if (X509_check_private_key(cert, key.get()) == 1) {
      return key;
    } else {
      SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                                "Private key file [%s] does not appear to match cert [%s]",
                                key_path.c_str(), cert_path.c_str());
    }
  } catch (const std::filesystem::filesystem_error& error) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error, "%s", error.what());
  }
  LogAllOpenSslErrors();
  return EvpPkeyPtr();
}

}  // namespace quorvant::shared::x509
