#pragma once
// Names the certificates the library leaves out of a listing because their
// chain cannot be built, with the setting that fixes it, for the components
// that list through the library on a user's behalf (the provider and the
// PKCS#11 module). The library says only "Failed to get CA chain for a
// certificate" after the certificate's name; the component follows its
// lines during the listing and, only when such a line came, looks for the
// file: the certificate files not offered are found by their identity (the
// offered ones are known from their key paths), and only those are read, to
// match the name. Each line is given once while the same certificates stay
// left out. Header-only: each component keeps its own copy and its own
// watched instance.
#include <dirent.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <sys/stat.h>

#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "x509auth/OpenSslPtr.h"
#include "x509auth/RegularFile.h"

namespace x509auth_common {

class LeftOutCertificates {
 public:
  // Follows the library's lines while it lives: one listing at a time, under
  // the component's lock.
  class Watch {
   public:
    explicit Watch(LeftOutCertificates& watched) {
      watched.failures_.clear();
      watched.name_.clear();
      watched.reason_.clear();
      watched.code_ = 0;
      Watching() = &watched;
    }
    ~Watch() { Watching() = nullptr; }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
  };

  // Every line of the library, with its own copy of the arguments.
  static void Observe(const char* format, va_list arguments) {
    if (Watching() != nullptr && format != nullptr) Watching()->Follow(format, arguments);
  }

  // The certificates directories the library reads: B/certs for each base
  // directory B, and H/D/certs for each home one D when $HOME is |home|
  // (null: none).
  static std::vector<std::string> CertificateDirs(const std::vector<std::string>& dirs,
                                                  const std::vector<std::string>& home_dirs,
                                                  const char* home) {
    std::vector<std::string> certificate_dirs;
    for (const std::string& dir : dirs) certificate_dirs.push_back(dir + "/certs");
    if (home != nullptr)
      for (const std::string& dir : home_dirs)
        certificate_dirs.push_back(std::string(home) + "/" + dir + "/certs");
    return certificate_dirs;
  }

  void SetCertificateDirs(std::vector<std::string> dirs) { dirs_ = std::move(dirs); }

  // After a listing: the lines, not given before, naming the certificates
  // left out in it, given the key paths of the file certificates offered.
  std::vector<std::string> Report(const std::vector<std::string>& offered_key_paths) {
    if (failures_.empty()) {
      reported_.clear();
      return {};
    }
    const std::vector<std::string> lines = Lines(offered_key_paths);
    std::vector<std::string> fresh;
    for (const std::string& line : lines)
      if (reported_.count(line) == 0) fresh.push_back(line);
    reported_ = std::set<std::string>(lines.begin(), lines.end());
    return fresh;
  }

 private:
  using FileIdentity = std::pair<dev_t, ino_t>;

  struct Failure {
    std::string name;
    std::string reason;
    int code = 0;
  };

  // The library's lines this follows, as it hands them over.
  static constexpr const char* k_certificate_line = "cert: [%s]";
  static constexpr const char* k_verify_line =
      "Cert::CaChain X509_verify_cert failed. Error code: [%i], Error message: [%s], Error "
      "depth: [%i]";
  static constexpr const char* k_chain_failed_line = "Failed to get CA chain for a certificate";

  static LeftOutCertificates*& Watching() {
    static LeftOutCertificates* watching = nullptr;
    return watching;
  }

  static bool Identity(const std::string& path, FileIdentity& identity) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
    identity = {status.st_dev, status.st_ino};
    return true;
  }

  // The certificate file whose key file is |key_path| (B/keys/NAME.key for
  // B/certs/NAME).
  static std::string CertificateOfKey(const std::string& key_path) {
    const std::filesystem::path key(key_path);
    std::string name = key.filename().string();
    if (name.size() > 4 && name.compare(name.size() - 4, 4, ".key") == 0)
      name.resize(name.size() - 4);
    return (key.parent_path().parent_path() / "certs" / name).string();
  }

  // The subject's common name of the certificate in |path| (PEM or DER), as
  // the library names it; false when it holds none.
  static bool CommonName(const std::string& path, std::string& name) {
    std::vector<unsigned char> bytes;
    std::string reason;
    if (!RegularFile::ReadFile(path, bytes, reason) || bytes.empty()) return false;
    x509auth_openssl::X509Ptr cert;
    const x509auth_openssl::BioPtr bio(
        BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
    if (bio != nullptr) cert.reset(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    if (cert == nullptr) {
      const unsigned char* cursor = bytes.data();
      cert.reset(d2i_X509(nullptr, &cursor, static_cast<long>(bytes.size())));
    }
    // What was not a certificate leaves errors the program must not see.
    ERR_clear_error();
    if (cert == nullptr) return false;
    char text[256] = {};
    const int length = X509_NAME_get_text_by_NID(X509_get_subject_name(cert.get()), NID_commonName,
                                                 text, sizeof(text));
    name = length > 0 ? std::string(text, static_cast<std::size_t>(length)) : std::string();
    return true;
  }

  static bool IssuerMissing(int code) {
    return code == X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT ||
           code == X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY ||
           code == X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT ||
           code == X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN ||
           code == X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE;
  }

  void Follow(const char* format, va_list arguments) {
    if (std::strcmp(format, k_certificate_line) == 0) {
      const char* name = va_arg(arguments, const char*);
      name_ = name != nullptr ? name : "";
      reason_.clear();
      code_ = 0;
    } else if (std::strcmp(format, k_verify_line) == 0) {
      code_ = va_arg(arguments, int);
      const char* reason = va_arg(arguments, const char*);
      reason_ = reason != nullptr ? reason : "";
    } else if (std::strcmp(format, k_chain_failed_line) == 0) {
      failures_.push_back(Failure{name_, reason_, code_});
    }
  }

  std::vector<std::string> Lines(const std::vector<std::string>& offered_key_paths) const {
    std::set<FileIdentity> offered;
    for (const std::string& key_path : offered_key_paths) {
      FileIdentity identity;
      if (Identity(CertificateOfKey(key_path), identity)) offered.insert(identity);
    }
    // The files not offered, by common name; only these are read.
    std::vector<std::pair<std::string, std::string>> left_out;
    for (const std::string& dir : dirs_) {
      std::error_code error;
      for (const auto& entry : std::filesystem::directory_iterator(dir, error)) {
        const std::string path = entry.path().string();
        FileIdentity identity;
        std::string name;
        if (!Identity(path, identity) || offered.count(identity) != 0) continue;
        if (CommonName(path, name)) left_out.emplace_back(path, name);
      }
    }
    std::vector<std::string> lines;
    for (const Failure& failure : failures_) {
      const std::string why =
          "is not offered: its chain cannot be built" +
          (failure.reason.empty() ? std::string() : " (" + failure.reason + ")") +
          (IssuerMissing(failure.code) || failure.reason.empty()
               ? "; add its CA to ca_files (or X509AUTH_CA_FILES)"
               : std::string());
      bool named = false;
      for (const auto& [path, name] : left_out) {
        if (name != failure.name) continue;
        lines.push_back("certificate " + path + " (" + name + ") " + why);
        named = true;
      }
      if (!named) lines.push_back("token certificate (" + failure.name + ") " + why);
    }
    return lines;
  }

  std::vector<std::string> dirs_;
  std::vector<Failure> failures_;
  // The library's lines so far about the certificate it is at.
  std::string name_;
  std::string reason_;
  int code_ = 0;
  std::set<std::string> reported_;
};

}  // namespace x509auth_common
