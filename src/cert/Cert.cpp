#include "cert/Cert.h"

#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <stdexcept>

#include "base/SafeCallbacksWrapper.h"
#include "cert/Asn1Time.h"
#include "cert/ChainBuilder.h"
#include "cert/DefaultCaPaths.h"
#include "cert/ICertificateStore.h"
#include "cert/ViewerFile.h"
#include "files/CertificateFiles.h"

namespace quorvant::shared::x509 {

namespace {

constexpr const char* k_viewer_program = "gcr-viewer";
constexpr const char* k_viewer_folder = "Quorvant";

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

template <class... Ts>
struct Overloaded : Ts... {
  using Ts::operator()...;
};
template <class... Ts>
Overloaded(Ts...) -> Overloaded<Ts...>;

// Only the first common name counts; a name without one yields "".
std::string CommonNameOf(X509_NAME* name) {
  const int length = X509_NAME_get_text_by_NID(name, NID_commonName, nullptr, 0);
  if (length <= 0) return std::string();
  std::string text(static_cast<std::size_t>(length), '\0');
  // The terminator lands in the string's own spare byte.
  X509_NAME_get_text_by_NID(name, NID_commonName, text.data(), length + 1);
  return text;
}

}  // namespace

Cert::Cert(CertContext context) : context_(std::move(context)) {}

X509* Cert::GetX509() const {
  return std::visit(
      Overloaded{[](const std::unique_ptr<CertFileContext>& c) { return c->x509.get(); },
                 [](const std::unique_ptr<EncodedCertContext>& c) { return c->x509.get(); },
                 [](const std::unique_ptr<Libp11CertContext>& c) { return c->cert->x509; }},
      context_);
}

X509_STORE* Cert::GetX509Store() const {
  const ICertificateStore* store = std::visit([](const auto& c) { return c->store; }, context_);
  return store->X509Store();
}

const CertContext& Cert::GetContext() const { return context_; }

std::string Cert::PublicKeyAlgorithm() const {
  X509_PUBKEY* public_key = X509_get_X509_PUBKEY(GetX509());
  X509_ALGOR* algorithm = nullptr;
  X509_PUBKEY_get0_param(nullptr, nullptr, nullptr, &algorithm, public_key);
  const ASN1_OBJECT* object = nullptr;
  X509_ALGOR_get0(&object, nullptr, nullptr, algorithm);
  std::string text(1024, '\0');
  // Flag 1: always the dotted numbers, never a short or long name.
  const int length = OBJ_obj2txt(text.data(), 1024, object, 1);
  text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  return text;
}

Algorithm Cert::PublicKeyAlgorithmGroup() const {
  const std::string oid = PublicKeyAlgorithm();
  // RSASSA-PSS keys sit under the RSA arc but cannot do PKCS#1 v1.5, so they
  // are deliberately not counted as RSA.
  if (oid == "1.2.840.113549.1.1.10") return Algorithm::k_unknown;
  if (oid.rfind("1.2.840.113549.", 0) == 0) return Algorithm::k_rsa;
  if (oid.rfind("1.2.840.10045.", 0) == 0) return Algorithm::k_ec;
  return Algorithm::k_unknown;
}

bool Cert::IntendedKeyUsage(std::uint32_t& usage) const {
  const std::uint32_t bits = X509_get_key_usage(GetX509());
  // OpenSSL answers all ones without the extension; callers want "none".
  usage = bits == 0xFFFFFFFFu ? 0 : bits;
  return true;
}

std::uint32_t Cert::EnhancedKeyUsage() const {
  // Unlike the key usage, all ones (no extension) is handed on unchanged.
  return X509_get_extended_key_usage(GetX509());
}

std::string Cert::Name() const {
  X509_NAME* subject = X509_get_subject_name(GetX509());
  if (subject == nullptr) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Warning, "Subject name empty");
    return std::string();
  }
  return CommonNameOf(subject);
}

std::string Cert::IssuerName() const {
  X509_NAME* issuer = X509_get_issuer_name(GetX509());
  if (issuer == nullptr) {
    const std::string name = Name();
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Warning, "Issuer name empty. Cert name: [%s]",
                              name.c_str());
    return std::string();
  }
  return CommonNameOf(issuer);
}

std::time_t Cert::NotBefore() const {
  return ConvertAsn1TimeToTimeT(X509_get0_notBefore(GetX509()));
}

std::time_t Cert::NotAfter() const { return ConvertAsn1TimeToTimeT(X509_get0_notAfter(GetX509())); }

bool Cert::SupportsSmartCard() const { return context_.index() == 2; }

std::vector<unsigned char> Cert::Encode() const {
  const int size = i2d_X509(GetX509(), nullptr);
  if (size < 0) throw std::length_error("Cert::Encode: negative DER size");
  std::vector<unsigned char> der(static_cast<std::size_t>(size));
  // With an empty array the cursor would be null and OpenSSL would allocate
  // a buffer of its own, which nobody frees.
  if (!der.empty()) {
    unsigned char* cursor = der.data();
    i2d_X509(GetX509(), &cursor);
  }
  return der;
}

bool Cert::Thumbprint(x509::Thumbprint& thumbprint) const {
  return GetThumbprintForX509Cert(GetX509(), &thumbprint);
}

bool Cert::CaChain(std::vector<x509::Thumbprint>& chain,
                   const ICertificateStore* extra_store) const {
  ChainBuilder builder;
  return CaChain(chain, extra_store, builder);
}

bool Cert::CaChain(std::vector<x509::Thumbprint>& chain, const ICertificateStore* extra_store,
                   ChainBuilder& builder) const {
  X509_STORE* extra = extra_store != nullptr ? extra_store->X509Store() : nullptr;
  return builder.CaChain(GetX509(), GetX509Store(), extra, chain);
}

bool Cert::ShowDialog(void* /*parent*/) const {
  std::filesystem::path file_path;
  try {
    const auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
    const long seconds = static_cast<long>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(since_epoch).count() / 1000000000);
    char digits[32];
    std::snprintf(digits, sizeof digits, "%ld", seconds);
    const std::string file_name = std::string("cert-") + digits + ".pem";
    const std::filesystem::path folder = std::filesystem::temp_directory_path() / k_viewer_folder;
    if (std::filesystem::status(folder).type() != std::filesystem::file_type::directory)
      std::filesystem::create_directory(folder);
    ViewerFile::CheckFolder(folder);
    file_path = folder / file_name;
  } catch (const std::exception& error) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                              "Error geting temporary filename for cert: [%s]", error.what());
    return false;
  }

  FilePtr file(ViewerFile::OpenForWriting(file_path));
  if (!file) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error, "Error opening file [%s]",
                              file_path.c_str());
    return false;
  }
  int written = PEM_write_X509(file.get(), GetX509());
  // A full or size-limited disk shows only when the buffer goes out: the
  // viewer must not be started on a truncated file.
  if (written == 1 && std::fflush(file.get()) != 0) written = 0;
  file.reset();  // closed before the viewer can read it
  if (written != 1) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                              "Error writing cert to temporary file: [%s]. Error: [%i]",
                              file_path.c_str(), written);
    return false;
  }

  std::string program = k_viewer_program;
  std::string argument = file_path.string();
  const pid_t pid = fork();
  if (pid == -1) {
    const int error = errno;
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error, "error forking process: [%s]",
                              std::strerror(error));
    return false;
  }
  // The viewer runs on its own; it is neither waited for nor tracked.
  if (pid > 0) return true;

  char* const arguments[] = {program.data(), argument.data(), nullptr};
  execvp(k_viewer_program, arguments);
  const int error = errno;
  // Still in the child: it reports false and carries on in the caller's code
  // rather than terminating itself.
  SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error, "error calling execv for [%s]: [%s]",
                            k_viewer_program, std::strerror(error));
  return false;
}

}  // namespace quorvant::shared::x509
