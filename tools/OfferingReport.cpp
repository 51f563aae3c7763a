#include "OfferingReport.h"

#include <libp11.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <set>
#include <utility>

#include "CommandLibrarySession.h"
#include "Formatting.h"
#include "KeyFileCheck.h"
#include "OpenSslHandles.h"
#include "Report.h"
#include "base/SafeCallbacksWrapper.h"
#include "base/X509Settings.h"
#include "cert/ICertificate.h"
#include "files/DirectoryEntries.h"
#include "keystore/KeyStore.h"
#include "keystore/OfferDecision.h"
#include "smartcard/Libp11Context.h"
#include "smartcard/Pkcs11ModuleChoice.h"
#include "store/CertStore.h"

namespace x509auth_tool {
namespace {

namespace fs = std::filesystem;
namespace lib = quorvant::shared::x509;

// "certificate has expired (OpenSSL verify error 10 at depth 0)", or the
// failed step in the library's words when it is not a verification failure.
std::string ChainText(const lib::ChainBuilder::Failure& failure) {
  if (failure.verification)
    return failure.message + " (OpenSSL verify error " + std::to_string(failure.verify_error) +
           " at depth " + std::to_string(failure.depth) + ")";
  return failure.message.empty() ? "the chain could not be built" : failure.message;
}

// Whether the token holding |slot| can sign RSA-PSS, as the library does it:
// with CKM_RSA_PKCS_PSS, or with CKM_RSA_X_509 over a block it encodes.
std::optional<bool> TokenCanPss(PKCS11_SLOT* slot) {
  const std::shared_ptr<lib::Libp11Context> context = lib::Libp11Context::GetInstance();
  CK_FUNCTION_LIST_PTR functions = context != nullptr ? context->ModuleFunctions() : nullptr;
  if (functions == nullptr || slot == nullptr) return std::nullopt;
  const CK_SLOT_ID id = PKCS11_get_slotid_from_slot(slot);
  CK_ULONG count = 0;
  if (functions->C_GetMechanismList(id, nullptr, &count) != CKR_OK) return std::nullopt;
  std::vector<CK_MECHANISM_TYPE> mechanisms(count);
  if (functions->C_GetMechanismList(id, mechanisms.data(), &count) != CKR_OK) return std::nullopt;
  mechanisms.resize(count);
  for (const CK_MECHANISM_TYPE mechanism : mechanisms)
    if (mechanism == CKM_RSA_PKCS_PSS || mechanism == CKM_RSA_X_509) return true;
  return false;
}

// The library's decision for one certificate (lib::DecideOffer, which
// X509_Auth_LoadClientCertificates takes too) with every reason, its chain
// built against the key store's own store.
void AddDecision(const lib::ICertificate& cert, const lib::KeyStore& key_store, Finding& finding) {
  // A trusted store of its own for each certificate, as a single chain
  // request makes.
  lib::ChainBuilder builder;
  const lib::OfferDecision decision =
      lib::DecideOffer(cert, &key_store.OwnStore(), builder, lib::OfferDecision::Reasons::k_every);
  if (!decision.key_usage_allowed)
    finding.Add("key-usage",
                "neither TLS client authentication (extended key usage) nor digital signature "
                "(key usage) is allowed");
  if (!decision.chained) finding.Add("chain", ChainText(decision.chain_failure));
  if (decision.has_thumbprint) {
    finding.thumbprint = Hex(decision.thumbprint.data(), decision.thumbprint.size());
  } else {
    finding.Add("chain", "the thumbprint could not be computed");
  }
  finding.offered = decision.offered;
  if (decision.expired) finding.Add("expired", "not valid after " + IsoTime(cert.NotAfter()));
  if (decision.not_yet_valid)
    finding.Add("not-yet-valid", "not valid before " + IsoTime(cert.NotBefore()));
}

// A certificate file's key file: its state, and what it means for signing.
void AddKeyFile(const lib::ICertificate& cert, const lib::CertFileContext& file, Finding& finding) {
  finding.kind = "file";
  finding.path = file.cert_path.string();
  finding.key_path = file.key_path.string();
  const std::vector<unsigned char> der = cert.Encode();
  const X509Ptr x509 = ParseDer(der.data(), der.size());
  const KeyFileStatus key = CheckKeyFile(x509.get(), file.cert_path, file.key_path);
  finding.key = key.status;
  if (!key.detail.empty()) finding.details["key"] = key.detail;
  // Offered all the same: the library offers a certificate whatever its
  // key file's state, and signing fails later.
  if (finding.offered && key.status == "missing")
    finding.Add("key-missing", "no key file " + finding.key_path + "; signing will fail");
  if (finding.offered && key.status == "does-not-match")
    finding.Add("key-mismatch",
                finding.key_path + " is not this certificate's key; signing will fail");
  if (const std::optional<std::string> exposed = KeyFileExposure(file.key_path))
    finding.AddWarning("key-file-open", *exposed);
}

// The TLS versions the certificate's key can sign for. |token_pss|: for an
// RSA key on a token, whether the token signs RSA-PSS (unknown: nullopt).
void AddTlsVersions(lib::Algorithm group, std::optional<bool> token_pss, Finding& finding) {
  const bool key_usable =
      finding.key == "plain" || finding.key == "encrypted" || finding.key == "token";
  if (!finding.offered) {
    finding.tls_note = "not offered";
  } else if (!key_usable) {
    finding.tls_note = "no usable private key";
  } else if (group == lib::Algorithm::k_rsa && finding.kind == "smartcard" && token_pss != true) {
    finding.tls = {"tls1.2"};
    finding.tls_note = token_pss == false
                           ? "no TLS 1.3: the token offers neither CKM_RSA_PKCS_PSS nor "
                             "CKM_RSA_X_509, and TLS 1.3 needs RSA-PSS"
                           : "TLS 1.3 unknown: the token's mechanisms could not be read";
  } else if (group == lib::Algorithm::k_rsa || group == lib::Algorithm::k_ec) {
    finding.tls = {"tls1.2", "tls1.3"};
  } else {
    finding.tls_note = "the key's algorithm is neither RSA nor EC";
  }
}

// Everything the report says of one certificate.
Finding Evaluate(const lib::ICertificate& cert, const lib::KeyStore& key_store) {
  Finding finding;
  finding.subject = cert.Name();
  AddDecision(cert, key_store, finding);
  std::optional<bool> token_pss;
  const lib::CertContext& context = cert.GetContext();
  if (const auto* file = std::get_if<std::unique_ptr<lib::CertFileContext>>(&context)) {
    AddKeyFile(cert, **file, finding);
  } else if (const auto* token = std::get_if<std::unique_ptr<lib::Libp11CertContext>>(&context)) {
    finding.kind = "smartcard";
    PKCS11_SLOT* slot = (*token)->slot;
    finding.token = slot != nullptr && slot->token != nullptr && slot->token->label != nullptr
                        ? slot->token->label
                        : "";
    // The key object is private: only a login (at signing time) can see it.
    finding.key = "token";
    if (cert.PublicKeyAlgorithmGroup() == lib::Algorithm::k_rsa) token_pss = TokenCanPss(slot);
  } else {
    finding.kind = "other";
  }
  AddTlsVersions(cert.PublicKeyAlgorithmGroup(), token_pss, finding);
  return finding;
}

// An entry the store did not take as a certificate: unreadable, or not one.
Finding NotACertificate(const fs::directory_entry& entry) {
  Finding finding;
  finding.kind = "file";
  finding.path = entry.path().string();
  finding.tls_note = "not offered";
  std::error_code error;
  if (!entry.is_regular_file(error)) {
    finding.Add("not-a-certificate", "not a regular file");
  } else if (access(finding.path.c_str(), R_OK) != 0) {
    finding.Add("unreadable", std::strerror(errno));
  } else {
    finding.Add("not-a-certificate", "neither a PEM nor a DER certificate");
  }
  return finding;
}

Finding DirectoryFinding(const fs::path& certs, const std::string& reason,
                         const std::string& detail) {
  Finding finding;
  finding.kind = "directory";
  finding.path = certs.string();
  finding.Add(reason, detail);
  return finding;
}

// The certs and keys folders of |base| that others can write to.
void AddWritableFolders(const fs::path& base, std::vector<Finding>& findings) {
  for (const auto& [name, holds] :
       {std::pair<const char*, const char*>{"certs", "certificates"}, {"keys", "keys"}}) {
    const std::optional<std::string> writable = WritableFolder(base / name, holds);
    if (!writable) continue;
    Finding finding;
    finding.kind = "directory";
    finding.path = (base / name).string();
    finding.AddWarning("writable-folder", *writable);
    findings.push_back(std::move(finding));
  }
}

// Where the library's scan of a certs directory ends early: an entry whose
// status cannot be taken (a looping link, a target the user may not see),
// or a directory that cannot be read on. The entries after it are never
// scanned, so none of them is offered, whatever it holds.
struct ScanStop {
  std::string entry;  // the entry's path; empty when reading the folder failed
  std::string why;
};

// Walks |certs| as the library's scan does (lib::DirectoryEntries, the
// directory's own order, links followed with the same calls, so the same
// failures); the entries it passes go to |scanned|.
std::optional<ScanStop> WalkAsTheLibrary(const fs::path& certs, std::set<std::string>& scanned) {
  try {
    lib::DirectoryEntries entries(certs);
    while (true) {
      try {
        if (!entries.Next()) return std::nullopt;
      } catch (const fs::filesystem_error& error) {
        return ScanStop{"", error.code().message()};
      }
      try {
        entries.IsRegularFile();
      } catch (const fs::filesystem_error& error) {
        return ScanStop{entries.Path(), error.code().message()};
      }
      scanned.insert(entries.Path());
    }
  } catch (const fs::filesystem_error&) {
    // Not opened at all: reported as an unreadable certs directory.
    return std::nullopt;
  }
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

// The second and later reports of one certificate say so, naming the one
// the key operations use (the first in the store's order).
void MarkDuplicates(std::vector<Finding>& findings) {
  std::map<std::string, const Finding*> first;
  for (Finding& finding : findings) {
    if (finding.thumbprint.empty() || !finding.offered) continue;
    const auto [seen, inserted] = first.emplace(finding.thumbprint, &finding);
    if (inserted) continue;
    const Finding& used = *seen->second;
    const std::string where =
        used.kind == "smartcard" ? "the token \"" + used.token + "\"" : used.path;
    finding.Add("duplicate",
                "the same certificate as " + where + ", which sign, decrypt and tls use");
  }
}

}  // namespace

std::optional<std::vector<Finding>> OfferingReport::Collect(const GlobalOptions& global,
                                                            bool with_tokens) {
  lib::SafeCallbacksWrapper::GetInstance().Replace(CommandLibrarySession::Callbacks());
  std::vector<const char*> dirs, home_dirs;
  for (const std::string& dir : global.dirs) dirs.push_back(dir.c_str());
  for (const std::string& dir : global.home_dirs) home_dirs.push_back(dir.c_str());
  if (dirs.empty() && home_dirs.empty()) home_dirs.push_back(".x509-auth");
  lib::X509Settings::GetInstance().Replace(
      X509_Auth_Settings{dirs.data(), dirs.size(), home_dirs.data(), home_dirs.size()});
  lib::Pkcs11ModuleChoice::GetInstance().Choose(with_tokens ? global.module_path.c_str() : "");

  std::vector<Finding> findings;
  lib::KeyStore key_store;
  key_store.Init();
  for (const std::string& path : global.cas) {
    const std::optional<std::vector<unsigned char>> data = CommandLibrarySession::ReadCaFile(path);
    if (!data) return std::nullopt;
    if (!key_store.AddAdditionalCertificateAuthorityToStore(data->data(), data->size()))
      return FailPlain("the library did not accept " + path +
                       " as a CA certificate (PEM or DER expected)"),
             std::nullopt;
  }
  lib::CertStore users_store;
  if (const std::uint32_t error = users_store.Open(lib::ICertificateStore::k_users_cert_store))
    return Fail("the certificate store could not be opened (error " + std::to_string(error) + ")"),
           std::nullopt;

  // Evaluations by certificate path, in the store's order; token ones apart.
  std::map<std::string, std::deque<Finding>> by_path;
  std::vector<Finding> tokens;
  for (const std::unique_ptr<lib::ICertificate>& cert : users_store.Certificates()) {
    Finding finding = Evaluate(*cert, key_store);
    if (finding.kind == "file")
      by_path[finding.path].push_back(std::move(finding));
    else
      tokens.push_back(std::move(finding));
  }

  for (const fs::path& base : BaseDirectories()) {
    const fs::path certs = base / "certs";
    AddWritableFolders(base, findings);
    std::error_code error;
    const fs::file_status status = fs::status(certs, error);
    if (!fs::is_directory(status)) {
      findings.push_back(
          fs::exists(status)
              ? DirectoryFinding(certs, "no-certs-directory", "not a directory")
              : DirectoryFinding(certs, "no-certs-directory", "the directory does not exist"));
      continue;
    }
    std::vector<fs::directory_entry> entries;
    fs::directory_iterator it(certs, error);
    for (fs::directory_iterator end; !error && it != end; it.increment(error))
      entries.push_back(*it);
    if (error) {
      findings.push_back(DirectoryFinding(certs, "unreadable", error.message()));
      continue;
    }
    std::sort(entries.begin(), entries.end(),
              [](const auto& a, const auto& b) { return a.path() < b.path(); });
    std::set<std::string> scanned;
    const std::optional<ScanStop> stop = WalkAsTheLibrary(certs, scanned);
    const std::string stop_text =
        stop ? "the scan of " + certs.string() + " stopped at " +
                   (stop->entry.empty() ? std::string("reading the folder")
                                        : fs::path(stop->entry).filename().string()) +
                   ": " + stop->why
             : std::string();
    for (const fs::directory_entry& entry : entries) {
      if (stop && entry.path().string() == stop->entry) {
        Finding finding;
        finding.kind = "file";
        finding.path = entry.path().string();
        finding.tls_note = "not offered";
        finding.Add("scan-stopped", "its status cannot be taken (" + stop->why +
                                        "), so the library's scan of " + certs.string() +
                                        " ends here: the entries after it are not scanned");
        findings.push_back(std::move(finding));
        continue;
      }
      if (stop && scanned.count(entry.path().string()) == 0) {
        Finding finding;
        finding.kind = "file";
        finding.path = entry.path().string();
        finding.tls_note = "not offered";
        finding.Add("not-scanned", stop_text);
        findings.push_back(std::move(finding));
        continue;
      }
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
  MarkDuplicates(findings);
  return findings;
}

std::optional<std::string> OfferingReport::WhyNotOffered(const GlobalOptions& global,
                                                         const std::string& digits) {
  // Files only: the tokens stay with the library session that is running.
  const std::optional<std::vector<Finding>> findings = Collect(global, false);
  if (!findings) return std::nullopt;
  for (const Finding& finding : *findings) {
    if (finding.offered || finding.thumbprint.compare(0, digits.size(), digits) != 0) continue;
    std::string reasons;
    for (const std::string& reason : finding.reasons) {
      const auto detail = finding.details.find(reason);
      reasons += (reasons.empty() ? "" : "; ") + reason +
                 (detail != finding.details.end() ? " (" + detail->second + ")" : "");
    }
    return finding.subject + " (" + finding.path + ") exists but is not offered: " + reasons +
           " (see 'x509-auth doctor')";
  }
  return std::nullopt;
}

}  // namespace x509auth_tool
