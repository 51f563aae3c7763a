#include "files/PrivateKeyFiles.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

#include "base/SafeCallbacksWrapper.h"
#include "base/WipeOnExit.h"
#include "files/ReadAllBytes.h"

namespace quorvant::shared::x509 {

namespace {

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

// Hands a PIN-entry result back to the host on every way out of the
// password callback, including an exception while it is held.
class PinEntryResultReleaser {
 public:
  PinEntryResultReleaser(X509_Auth_FreePinEntryResultCallback release,
                         X509_Auth_PinEntryResult* result)
      : release_(release), result_(result) {}
  ~PinEntryResultReleaser() {
    if (release_ != nullptr && result_ != nullptr) release_(result_);
  }
  PinEntryResultReleaser(const PinEntryResultReleaser&) = delete;
  PinEntryResultReleaser& operator=(const PinEntryResultReleaser&) = delete;

 private:
  X509_Auth_FreePinEntryResultCallback release_;
  X509_Auth_PinEntryResult* result_;
};

int AskHostForPassword(char* buffer, int size, const char* path) {
  const std::string prompt = std::string("Enter password for: ") + path;
  const SafeCallbacksWrapper& callbacks = SafeCallbacksWrapper::GetInstance();
  const X509_Auth_PinEntryCallback pin_entry = callbacks.PinEntryCallback();
  if (pin_entry == nullptr) return -1;
  // Copied before the prompt so the result goes back to the release
  // function that belongs to the prompt that made it.
  const X509_Auth_FreePinEntryResultCallback release = callbacks.FreePinEntryResultCallback();

  X509_Auth_PinEntryResult* result = pin_entry("Enter password", prompt.c_str());
  if (result == nullptr) return -1;
  const PinEntryResultReleaser releaser(release, result);
  // A status-0 result without text has no usable value either.
  if (result->status != 0 || result->value == nullptr) return -1;

  const std::size_t length = std::strlen(result->value);
  if (size < 0 || length > static_cast<std::size_t>(size)) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                              "Password for [%s] is too long. Max length is [%i]", path, size);
    return -1;
  }
  // OpenSSL takes the returned length; it wants no terminating NUL, so a
  // password filling the whole buffer is accepted.
  std::memcpy(buffer, result->value, length);
  return static_cast<int>(length);
}

// OpenSSL 3 asks again after a refused password (its decoder fails, then
// its legacy reader retries), so one PEM read remembers a refusal and the
// user is prompted once per read, as with OpenSSL 1.1.
struct PasswordRequest {
  bool refused = false;
};
thread_local PasswordRequest* current_request = nullptr;

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

}  // namespace

EvpPkeyPtr ReadPrivateKeyFromPemFile(const std::filesystem::path& path) {
  // stdio reads the key text through this buffer instead of one of its own,
  // so that it can be wiped once the file is closed (declared first).
  std::vector<unsigned char> stdio_buffer(BUFSIZ);
  const WipeOnExit wipe(stdio_buffer);
  FilePtr file(std::fopen(path.c_str(), "r"));
  if (file)
    std::setvbuf(file.get(), reinterpret_cast<char*>(stdio_buffer.data()), _IOFBF,
                 stdio_buffer.size());
  if (!file) {
    const int error = errno;
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                              "Could not open private key file [%s]. Error message [%s]",
                              path.c_str(), std::strerror(error));
    return EvpPkeyPtr();
  }
  // The callback runs only for an encrypted key.
  PasswordRequest request;
  const PasswordRequestScope scope(&request);
  return EvpPkeyPtr(PEM_read_PrivateKey(file.get(), nullptr, PemPasswordCallback,
                                        const_cast<char*>(path.c_str())));
}

EvpPkeyPtr ReadPrivateKeyFromDerFile(const std::filesystem::path& path) {
  // A directory opens as a stream on Linux, and seeking to its end reports a
  // huge size on ext4, so it is refused before anything is allocated.
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored)) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                              "Could not open private key file [%s]. Error message [%s]",
                              path.c_str(), std::strerror(EISDIR));
    return EvpPkeyPtr();
  }
  std::ifstream stream(path, std::ios::in | std::ios::binary);
  if (!stream.is_open()) {
    const int error = errno;
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                              "Could not open private key file [%s]. Error message [%s]",
                              path.c_str(), std::strerror(error));
    return EvpPkeyPtr();
  }
  std::vector<unsigned char> bytes = ReadAllBytes(stream);
  const WipeOnExit wipe(bytes);
  const unsigned char* cursor = bytes.data();
  return EvpPkeyPtr(d2i_AutoPrivateKey(nullptr, &cursor, static_cast<int>(bytes.size())));
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
    // is not a key file, and nothing is read from it.
    const bool readable = type == std::filesystem::file_type::regular ||
                          type == std::filesystem::file_type::directory;
    EvpPkeyPtr key = readable ? ReadPrivateKeyFromDerOrPemFile(key_path) : EvpPkeyPtr();
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
