#pragma once
// The library's offering decision for every certificate it can see, entry
// by entry, with the reasons: what `doctor` prints, and what the other
// commands say about a certificate that exists but is not offered.
//
// It runs on the library's internal layer linked into the tool (the same
// store scan and the same decision, DecideOffer of keystore/OfferDecision.h,
// that X509_Auth_LoadClientCertificates takes), never through
// X509_Auth_*: the shared library's copies of the process-wide singletons
// (callbacks, settings, the PKCS#11 context) are not this layer's.
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "GlobalOptions.h"

namespace x509auth_tool {

// One report: a certs entry, a token certificate, or a folder: a certs
// directory that is missing or unreadable, or a certs or keys folder others
// can write to.
struct Finding {
  std::string kind;  // "file", "smartcard" or "directory"
  std::string path;
  std::string token;
  std::string thumbprint;
  std::string subject;
  bool offered = false;
  std::vector<std::string> reasons;
  // Worth fixing, whatever the offering: "key-file-open" (a key file open to
  // group or others), "writable-folder" (a certs or keys folder they can
  // write to). Their texts are in |details| too.
  std::vector<std::string> warnings;
  std::map<std::string, std::string> details;
  std::string key;  // key status; empty when there is no certificate
  std::string key_path;
  std::vector<std::string> tls;
  std::string tls_note;

  void Add(const std::string& reason, const std::string& detail) {
    reasons.push_back(reason);
    details[reason] = detail;
  }
  void AddWarning(const std::string& warning, const std::string& detail) {
    warnings.push_back(warning);
    details[warning] = detail;
  }
};

class OfferingReport {
 public:
  // Every entry of every certs directory, then every token certificate
  // when |with_tokens| (the module is global.module_path); nullopt after
  // printing why the store could not be read.
  static std::optional<std::vector<Finding>> Collect(const GlobalOptions& global, bool with_tokens);

  // "<subject> (<where>) exists but is not offered: <reason> ..." for a file
  // certificate whose thumbprint starts with |digits| and that the library
  // does not offer; nullopt when there is none.
  static std::optional<std::string> WhyNotOffered(const GlobalOptions& global,
                                                  const std::string& digits);
};

}  // namespace x509auth_tool
