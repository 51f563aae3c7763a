#pragma once
// Names the certificates the library leaves out of a listing because their
// chain cannot be built, with the setting that fixes it. The library says
// only "Failed to get CA chain for a certificate" after the certificate's
// name; the module follows its lines during the listing and, only when
// such a line came, looks for the file: the certificate files not offered
// are found by their identity (the offered ones are known from their key
// paths), and only those are read, to match the name. Each line is logged
// once while the same certificates stay left out.
#include <cstdarg>
#include <set>
#include <string>
#include <vector>

namespace x509auth_pkcs11 {

class LeftOutCertificates {
 public:
  // Follows the library's lines while it lives: one listing at a time,
  // under the module's lock.
  class Watch {
   public:
    explicit Watch(LeftOutCertificates& watched);
    ~Watch();
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
  };

  // Every line of the library, with its own copy of the arguments.
  static void Observe(int priority, const char* format, va_list arguments);

  // The certificates directories the library reads (B/certs for each base
  // directory B, the home ones below $HOME).
  void SetCertificateDirs(std::vector<std::string> dirs) { dirs_ = std::move(dirs); }
  // After a listing: logs the certificates left out in it, given the key
  // paths of the file certificates that were offered.
  void Report(const std::vector<std::string>& offered_key_paths);

 private:
  struct Failure {
    std::string name;
    std::string reason;
    int code = 0;
  };
  void Follow(const char* format, va_list arguments);
  std::vector<std::string> Lines(const std::vector<std::string>& offered_key_paths) const;

  std::vector<std::string> dirs_;
  std::vector<Failure> failures_;
  // The library's lines so far about the certificate it is at.
  std::string name_;
  std::string reason_;
  int code_ = 0;
  std::set<std::string> reported_;
};

}  // namespace x509auth_pkcs11
