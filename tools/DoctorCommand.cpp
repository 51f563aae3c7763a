#include "DoctorCommand.h"

#include <libp11.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "Formatting.h"
#include "KeyFileCheck.h"
#include "LibrarySession.h"
#include "OpenSslHandles.h"
#include "Report.h"
#include "api/SafeCallbacksWrapper.h"
#include "api/X509Settings.h"
#include "cert/ICertificate.h"
#include "keystore/KeyStore.h"
#include "store/CertStore.h"

namespace x509auth_tool {
namespace {

namespace fs = std::filesystem;
namespace lib = quorvant::shared::x509;

constexpr const char* k_rsa_tls13_note =
    "no TLS 1.3 with an RSA key: TLS 1.3 needs RSA-PSS signatures and the library signs with "
    "PKCS#1 v1.5 only";

// One report: a certs entry, a token certificate, or a missing certs
// directory.
struct Finding {
  std::string kind;  // "file", "token" or "directory"
  std::string path;
  std::string token;
  std::string thumbprint;
  std::string subject;
  bool offered = false;
  std::vector<std::string> reasons;
  std::map<std::string, std::string> details;
  std::string key;  // key status; empty when there is no certificate
  std::string key_path;
  std::vector<std::string> tls;
  std::string tls_note;

  void Add(const std::string& reason, const std::string& detail) {
    reasons.push_back(reason);
    details[reason] = detail;
  }
};

// Captures what Cert::CaChain logs while it runs: the library's own words
// for why a chain could not be built.
class ChainLog {
 public:
  ChainLog() {
    LibrarySession::SetLogObserver(
        [this](X509_Auth_LogPriority priority, const char* format, const std::string& text) {
          if (capturing_ && priority >= X509_Auth_LogPriority_Warning &&
              std::string(format).rfind("Cert::CaChain", 0) == 0)
            lines_.push_back(text);
        });
  }
  ~ChainLog() { LibrarySession::SetLogObserver(nullptr); }
  void Start() {
    lines_.clear();
    capturing_ = true;
  }
  // "certificate has expired (OpenSSL verify error 10 at depth 0)", or the
  // library's line as it is when it is not a verification failure.
  std::string Stop() {
    capturing_ = false;
    static const std::regex verify(
        R"(X509_verify_cert failed\. Error code: \[(-?\d+)\], Error message: \[(.*)\], Error depth: \[(-?\d+)\])");
    for (const std::string& line : lines_) {
      std::smatch match;
      if (std::regex_search(line, match, verify))
        return match[2].str() + " (OpenSSL verify error " + match[1].str() + " at depth " +
               match[3].str() + ")";
    }
    return lines_.empty() ? "the chain could not be built" : lines_.front();
  }

 private:
  bool capturing_ = false;
  std::vector<std::string> lines_;
};

// The library's decision for one certificate, taken with its own code and in
// the order X509_Auth_LoadClientCertificates takes it: IsPermitted, CaChain
// against the key store's own store, Thumbprint.
Finding Evaluate(const lib::ICertificate& cert, const lib::KeyStore& key_store, ChainLog& log) {
  Finding finding;
  finding.subject = cert.Name();
  const bool permitted = lib::KeyStore::IsPermitted(cert);
  if (!permitted)
    finding.Add("key-usage",
                "neither TLS client authentication (extended key usage) nor digital signature "
                "(key usage) is allowed");
  std::vector<lib::Thumbprint> chain;
  log.Start();
  const bool chained = cert.CaChain(chain, &key_store.OwnStore());
  const std::string chain_error = log.Stop();
  if (!chained) finding.Add("chain", chain_error);
  lib::Thumbprint thumbprint{};
  const bool has_thumbprint = cert.Thumbprint(thumbprint);
  if (has_thumbprint) {
    finding.thumbprint = Hex(thumbprint.data(), thumbprint.size());
  } else {
    finding.Add("chain", "the thumbprint could not be computed");
  }
  finding.offered = permitted && chained && has_thumbprint;

  const std::vector<unsigned char> der = cert.Encode();
  X509Ptr x509 = ParseDer(der.data(), der.size());
  if (x509) {
    if (X509_cmp_current_time(X509_get0_notAfter(x509.get())) < 0)
      finding.Add("expired", "not valid after " + IsoTime(cert.NotAfter()));
    if (X509_cmp_current_time(X509_get0_notBefore(x509.get())) > 0)
      finding.Add("not-yet-valid", "not valid before " + IsoTime(cert.NotBefore()));
  }

  const lib::CertContext& context = cert.GetContext();
  if (const auto* file = std::get_if<std::unique_ptr<lib::CertFileContext>>(&context)) {
    finding.kind = "file";
    finding.path = (*file)->cert_path.string();
    finding.key_path = (*file)->key_path.string();
    const KeyFileStatus key = CheckKeyFile(x509.get(), (*file)->cert_path, (*file)->key_path);
    finding.key = key.status;
    if (!key.detail.empty()) finding.details["key"] = key.detail;
  } else if (const auto* token = std::get_if<std::unique_ptr<lib::Libp11CertContext>>(&context)) {
    finding.kind = "token";
    const PKCS11_SLOT* slot = (*token)->slot;
    finding.token = slot != nullptr && slot->token != nullptr && slot->token->label != nullptr
                        ? slot->token->label
                        : "";
    // The key object is private: only a login (at signing time) can see it.
    finding.key = "token";
  } else {
    finding.kind = "other";
  }

  const bool key_usable = finding.key == "plain" || finding.key == "encrypted" || finding.key == "token";
  if (finding.offered && key_usable) {
    const lib::Algorithm group = cert.PublicKeyAlgorithmGroup();
    if (group == lib::Algorithm::k_rsa) {
      finding.tls = {"tls1.2"};
      finding.tls_note = k_rsa_tls13_note;
    } else if (group == lib::Algorithm::k_ec) {
      finding.tls = {"tls1.2", "tls1.3"};
    } else {
      finding.tls_note = "the key's algorithm is neither RSA nor EC";
    }
  } else if (!finding.offered) {
    finding.tls_note = "not offered";
  } else {
    finding.tls_note = "no usable private key";
  }
  return finding;
}

Finding NotACertificate(const fs::directory_entry& entry) {
  Finding finding;
  finding.kind = "file";
  finding.path = entry.path().string();
  std::error_code error;
  finding.Add("not-a-certificate", entry.is_regular_file(error)
                                       ? "neither a PEM nor a DER certificate"
                                       : "not a regular file");
  finding.tls_note = "not offered";
  return finding;
}

// The base directories in the store's own order and form.
std::vector<fs::path> BaseDirectories() {
  const lib::X509Settings& settings = lib::X509Settings::GetInstance();
  std::vector<fs::path> bases = settings.CertificateDirectories();
  if (const char* home = std::getenv("HOME"))
    for (const fs::path& relative : settings.HomeCertificateDirectories())
      bases.push_back(fs::path(home) / relative);
  return bases;
}

nlohmann::json ToJson(const Finding& f) {
  return nlohmann::json{{"kind", f.kind},
                        {"path", f.path},
                        {"token", f.token},
                        {"thumbprint", f.thumbprint},
                        {"subject", f.subject},
                        {"offered", f.offered},
                        {"reasons", f.reasons},
                        {"details", f.details},
                        {"key", f.key},
                        {"key_path", f.key_path},
                        {"tls", f.tls},
                        {"tls_note", f.tls_note}};
}

void PrintHuman(const std::vector<Finding>& findings) {
  auto field = [](const char* name, const std::string& value) {
    std::printf("  %-11s %s\n", name, value.c_str());
  };
  std::size_t offered = 0;
  for (const Finding& f : findings) {
    offered += f.offered ? 1 : 0;
    std::printf("%s\n", f.kind == "token" ? ("token \"" + f.token + "\"").c_str() : f.path.c_str());
    if (!f.subject.empty()) field("subject", f.subject);
    if (!f.thumbprint.empty()) field("thumbprint", f.thumbprint);
    field("offered", f.offered ? "yes" : "no");
    bool first = true;
    for (const std::string& reason : f.reasons) {
      const auto detail = f.details.find(reason);
      field(first ? "reasons" : "", reason + (detail != f.details.end() ? ": " + detail->second : ""));
      first = false;
    }
    if (!f.key.empty()) {
      std::string key = f.key;
      if (!f.key_path.empty()) key += "  " + f.key_path;
      const auto detail = f.details.find("key");
      if (detail != f.details.end()) key += " (" + detail->second + ")";
      field("key", key);
    }
    if (f.kind != "directory") {
      std::string tls;
      for (const std::string& version : f.tls) tls += (tls.empty() ? "" : ", ") + version;
      if (!f.tls_note.empty()) tls += (tls.empty() ? "" : "; ") + f.tls_note;
      field("tls", tls);
    }
  }
  std::printf("%zu entr%s, %zu offered, %zu not offered\n", findings.size(),
              findings.size() == 1 ? "y" : "ies", offered, findings.size() - offered);
}

}  // namespace

int RunDoctor(const GlobalOptions& global, const DoctorOptions& options) {
  LibrarySession session(global);  // logging and prompts only; never started
  lib::SafeCallbacksWrapper::GetInstance().Replace(LibrarySession::Callbacks());
  lib::X509Settings::GetInstance().Replace(session.Settings());
  ChainLog chain_log;
  // Doctor explains failures itself; the library's raw lines come with -v.
  const LibrarySession::Demotion quiet_errors(nullptr);

  std::vector<Finding> findings;
  {
    lib::KeyStore key_store;
    key_store.Init();
    for (const std::string& path : global.cas) {
      const std::optional<std::vector<unsigned char>> data = LibrarySession::ReadCaFile(path);
      if (!data) return k_exit_failed;
      if (!key_store.AddAdditionalCertificateAuthorityToStore(data->data(), data->size()))
        return Fail("the library did not accept " + path + " as a CA certificate (PEM or DER expected)");
    }
    lib::CertStore users_store;
    if (const std::uint32_t error = users_store.Open(lib::ICertificateStore::k_users_cert_store))
      return Fail("the certificate store could not be opened (error " + std::to_string(error) + ")");

    // Evaluations by certificate path, in the store's order; token ones apart.
    std::map<std::string, std::deque<Finding>> by_path;
    std::vector<Finding> tokens;
    for (const std::unique_ptr<lib::ICertificate>& cert : users_store.Certificates()) {
      Finding finding = Evaluate(*cert, key_store, chain_log);
      if (finding.kind == "file")
        by_path[finding.path].push_back(std::move(finding));
      else
        tokens.push_back(std::move(finding));
    }

    for (const fs::path& base : BaseDirectories()) {
      const fs::path certs = base / "certs";
      std::error_code error;
      if (!fs::is_directory(certs, error)) {
        Finding missing;
        missing.kind = "directory";
        missing.path = certs.string();
        missing.Add("no-certs-directory", "the directory does not exist");
        findings.push_back(std::move(missing));
        continue;
      }
      std::vector<fs::directory_entry> entries;
      for (fs::directory_iterator it(certs, error), end; !error && it != end; it.increment(error))
        entries.push_back(*it);
      std::sort(entries.begin(), entries.end(),
                [](const auto& a, const auto& b) { return a.path() < b.path(); });
      for (const fs::directory_entry& entry : entries) {
        auto found = by_path.find(entry.path().string());
        if (found == by_path.end() || found->second.empty()) {
          findings.push_back(NotACertificate(entry));
          continue;
        }
        findings.push_back(std::move(found->second.front()));
        found->second.pop_front();
      }
    }
    for (Finding& token : tokens) findings.push_back(std::move(token));
  }

  if (options.json) {
    nlohmann::json array = nlohmann::json::array();
    for (const Finding& finding : findings) array.push_back(ToJson(finding));
    std::printf("%s\n", array.dump(2).c_str());
  } else {
    PrintHuman(findings);
  }
  return k_exit_ok;
}

}  // namespace x509auth_tool
