#include "files/CertificateFiles.h"

#include <openssl/pem.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <system_error>

#include "base/SafeCallbacksWrapper.h"
#include "files/ReadAllBytes.h"

namespace quorvant::shared::x509 {

namespace {

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

}  // namespace

bool GetThumbprintForX509Cert(const X509* cert, Thumbprint* thumbprint) {
  const EVP_MD* sha1 = EVP_get_digestbyname("sha1");
  unsigned char digest[EVP_MAX_MD_SIZE] = {};
  unsigned int length = 0;
  if (X509_digest(cert, sha1, digest, &length) == 0) return false;
  // The output is a fixed 20 bytes; anything longer cannot be a SHA-1.
  if (length > thumbprint->size()) return false;
  std::memcpy(thumbprint->data(), digest, length);
  return true;
}

X509Ptr ReadX509FromPemFile(const std::filesystem::path& path) {
  FilePtr file(std::fopen(path.c_str(), "r"));
  if (!file) return X509Ptr();
  return X509Ptr(PEM_read_X509(file.get(), nullptr, nullptr, nullptr));
}

X509Ptr ReadX509FromDerFile(const std::filesystem::path& path) {
  // A directory opens as a stream on Linux, and seeking to its end reports a
  // huge size on ext4, so it is refused before anything is allocated.
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored)) return X509Ptr();
  std::ifstream stream(path, std::ios::in | std::ios::binary);
  if (!stream.is_open()) return X509Ptr();
  const std::vector<unsigned char> bytes = ReadAllBytes(stream);
  const unsigned char* cursor = bytes.data();
  return X509Ptr(d2i_X509(nullptr, &cursor, static_cast<int>(bytes.size())));
}

X509Ptr ReadX509FromDerOrPemFile(const std::filesystem::path& path) {
  if (X509Ptr pem = ReadX509FromPemFile(path)) return pem;
  return ReadX509FromDerFile(path);
}

bool ConvertPemDataToDer(const unsigned char* pem, std::uint64_t length,
                         std::vector<unsigned char>& der) {
  // OpenSSL takes an int length, and a negative one means "up to the first
  // NUL", which may lie past the given bytes: such a length is refused.
  const int truncated = static_cast<int>(static_cast<std::uint32_t>(length));
  if (truncated < 0) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Warning, "Unable to convert PEM to DER");
    return false;
  }
  BioPtr bio(BIO_new_mem_buf(pem, truncated));
  X509Ptr cert(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
  if (!cert) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Warning, "Unable to convert PEM to DER");
    return false;
  }
  const int der_length = i2d_X509(cert.get(), nullptr);
  if (der_length <= 0) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Warning, "Unable to convert PEM to DER");
    return false;
  }
  der.resize(static_cast<std::size_t>(der_length));
  unsigned char* cursor = der.data();
  i2d_X509(cert.get(), &cursor);
  return true;
}

}  // namespace quorvant::shared::x509
