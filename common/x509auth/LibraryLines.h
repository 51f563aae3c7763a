#pragma once
// One reading of the library's log lines for every component that shows
// them (the tool, the provider, the PKCS#11 module): the library logs its
// routine step trace at "warning", where a user would take it for a
// problem; shown at "info", "warning" keeps what a user should look at. The
// library's own priorities stay as they are; only what is shown changes.
#include <cstring>

namespace x509auth_common {

// IsRoutineStep returns true when the library's line with |format| (the
// format string it hands its log callback, unformatted) is a step of its
// routine trace: a function entered, a certificate picked, a count. Lines
// about failures, refusals and missing things are not, whatever their
// priority.
inline bool IsRoutineStep(int priority, const char* format) {
  static const char* const k_routine_steps[] = {
      "CertStore::Open",
      "CertStore::Open ::  NOT ICertificateStore::CertStoreType::k_users_cert_store",
      "CertStore::Open :: ICertificateStore::CertStoreType::k_users_cert_store",
      "CertStore::OpenFileStore",
      "CertStore::OpenSmartCardStore",
      "CertStore::OpenSmartCardStore x509 certs that we added =%d",
      "cert: [%s]",
      "cert type: [%d] FileBased",
      "cert type: [%d]",
      "cert type: Libp11CertContext",
      "Keys Path not returned for smart card, request separately",
      "Total Client Certificates picked: %d",
      "Total Client Certificates returned: %d",
      // A token key's trace, logged at the priority of failures.
      "PKCS11_CERT* cert_ptr: [%p]",
  };
  if (format == nullptr || priority < 2) return false;
  for (const char* step : k_routine_steps)
    if (std::strcmp(format, step) == 0) return true;
  return false;
}

// ShownPriority is the priority to show the library's line at: "info" (1)
// for its routine steps, its own priority otherwise.
inline int ShownPriority(int priority, const char* format) {
  return IsRoutineStep(priority, format) ? 1 : priority;
}

}  // namespace x509auth_common
