#include "files/KeptKeyFile.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "base/SafeCallbacksWrapper.h"
#include "base/WipeOnExit.h"
#include "files/PrivateKeyFiles.h"
#include "x509auth/RegularFile.h"

namespace quorvant::shared::x509 {

namespace {

// Reads all of |descriptor| from its start without moving its offset, for
// a reader that comes after.
bool ReadFromStart(int descriptor, std::size_t size, std::vector<unsigned char>& bytes) {
  bytes.assign(size, 0);
  std::size_t done = 0;
  while (done < size) {
    const ssize_t got =
        ::pread(descriptor, bytes.data() + done, size - done, static_cast<off_t>(done));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    done += static_cast<std::size_t>(got);
  }
  bytes.resize(done);
  return done == size;
}

}  // namespace

std::array<unsigned char, 32> KeptKeyFile::DigestOf(const std::vector<unsigned char>& bytes) {
  std::array<unsigned char, 32> digest{};
  EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, EVP_sha256(), nullptr);
  return digest;
}

bool KeptKeyFile::SameBytes() const {
  std::vector<unsigned char> bytes;
  const WipeOnExit wipe(bytes);
  std::string reason;
  return x509auth_common::RegularFile::ReadFile(key_path_.native(), bytes, reason) &&
         DigestOf(bytes) == kept_digest_;
}

KeptKeyFile::KeptKeyFile(X509Ptr certificate, std::filesystem::path cert_path,
                         std::filesystem::path key_path)
    : certificate_(std::move(certificate)),
      cert_path_(std::move(cert_path)),
      key_path_(std::move(key_path)) {}

KeptKeyFile::State KeptKeyFile::Refresh() {
  struct stat status {};
  if (::stat(key_path_.c_str(), &status) != 0) {
    const int error = errno;
    key_.reset();
    refused_ = false;
    if (error == ENOENT) {
      SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error, "Private key file [%s] does not exist",
                                key_path_.c_str());
      return State::k_missing;
    }
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                              "Could not open private key file [%s]. Error message [%s]",
                              key_path_.c_str(), std::strerror(error));
    return State::k_unreadable;
  }
  const FileIdentity now = FileIdentity::Of(status);
  if (key_ && now == kept_ && (now.Settled() || SameBytes())) return State::k_ready;
  if (refused_ && now == refused_identity_ && now.Settled()) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                              "Private key file [%s] does not appear to match cert [%s]",
                              key_path_.c_str(), cert_path_.c_str());
    return State::k_mismatch;
  }
  return ReadAgain();
}

KeptKeyFile::State KeptKeyFile::ReadAgain() {
  // The key in hand belongs to a file that is no more: it goes first, so
  // that a failure below leaves nothing to sign with.
  key_.reset();
  refused_ = false;
  x509auth_common::RegularFile file = x509auth_common::RegularFile::Open(key_path_.native());
  if (!file.IsOpen()) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                              "Could not open private key file [%s]. Error message [%s]",
                              key_path_.c_str(), file.Reason().c_str());
    return State::k_unreadable;
  }
  // Identified by the descriptor that is read: what is kept is what was
  // parsed, even when the file is replaced meanwhile.
  const FileIdentity read = FileIdentity::Of(file.Status());
  std::vector<unsigned char> bytes;
  const WipeOnExit wipe(bytes);
  ReadFromStart(file.Descriptor(), static_cast<std::size_t>(file.Status().st_size), bytes);
  const std::array<unsigned char, 32> digest = DigestOf(bytes);
  EvpPkeyPtr key = ReadPrivateKeyFromOpenFile(std::move(file), key_path_);
  if (!key) {
    LogWithOpenSslErrors(X509_Auth_LogPriority_Error, "Failed to parse private key file [%s]",
                         key_path_.c_str());
    return State::k_unreadable;
  }
  if (X509_check_private_key(certificate_.get(), key.get()) != 1) {
    ERR_clear_error();
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                              "Private key file [%s] does not appear to match cert [%s]",
                              key_path_.c_str(), cert_path_.c_str());
    refused_ = true;
    refused_identity_ = read;
    return State::k_mismatch;
  }
  key_ = std::move(key);
  kept_ = read;
  kept_digest_ = digest;
  return State::k_ready;
}

}  // namespace quorvant::shared::x509
