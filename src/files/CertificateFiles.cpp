#include "files/CertificateFiles.h"

#include <openssl/pem.h>

#include <cerrno>
#include <cstring>

#include "base/SafeCallbacksWrapper.h"

namespace quorvant::shared::x509 {

namespace {

using x509auth_common::RegularFile;

// The whole file, when it is a regular file within the size limit: opened
// without blocking and checked on the descriptor, so that a FIFO, a device
// or a huge file put in its place is refused before a byte is read. An open
// that fails leaves its errno for the caller.
bool ReadCertificateFile(const std::filesystem::path& path, std::vector<unsigned char>& bytes,
                         RegularFile::Refusal* refusal, std::string* reason) {
  RegularFile file = RegularFile::Open(path.native());
  const bool read = file.IsOpen() && file.ReadAll(bytes);
  if (refusal != nullptr) *refusal = file.WhyRefused();
  if (reason != nullptr) *reason = read ? std::string() : file.Reason();
  if (!read && file.Error() != 0) errno = file.Error();
  return read;
}

// A BIO over no bytes needs a valid pointer all the same.
const unsigned char* DataOf(const std::vector<unsigned char>& bytes) {
  static const unsigned char k_nothing = 0;
  return bytes.empty() ? &k_nothing : bytes.data();
}

X509Ptr PemCertificate(const std::vector<unsigned char>& bytes) {
  BioPtr bio(BIO_new_mem_buf(DataOf(bytes), static_cast<int>(bytes.size())));
  if (!bio) return X509Ptr();
  return X509Ptr(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
}

X509Ptr DerCertificate(const std::vector<unsigned char>& bytes) {
  const unsigned char* cursor = DataOf(bytes);
  return X509Ptr(d2i_X509(nullptr, &cursor, static_cast<int>(bytes.size())));
}

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
  std::vector<unsigned char> bytes;
  if (!ReadCertificateFile(path, bytes, nullptr, nullptr)) return X509Ptr();
  return PemCertificate(bytes);
}

X509Ptr ReadX509FromDerFile(const std::filesystem::path& path) {
  std::vector<unsigned char> bytes;
  if (!ReadCertificateFile(path, bytes, nullptr, nullptr)) return X509Ptr();
  return DerCertificate(bytes);
}

X509Ptr ReadX509FromDerOrPemFile(const std::filesystem::path& path) {
  return ReadX509FromDerOrPemFile(path, nullptr, nullptr);
}

X509Ptr ReadX509FromDerOrPemFile(const std::filesystem::path& path,
                                 x509auth_common::RegularFile::Refusal* refusal,
                                 std::string* reason) {
  // Read once, tried as PEM and then as DER: the form is never sniffed.
  std::vector<unsigned char> bytes;
  if (!ReadCertificateFile(path, bytes, refusal, reason)) return X509Ptr();
  if (X509Ptr pem = PemCertificate(bytes)) return pem;
  return DerCertificate(bytes);
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
