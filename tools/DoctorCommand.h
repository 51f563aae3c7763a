#pragma once
#include "GlobalOptions.h"

namespace x509auth_tool {

struct DoctorOptions {
  bool json = false;
};

// `doctor`: one report for every entry of every certs directory and every
// token certificate: offered or not, and why; the key; TLS readiness.
//
// It runs on the library's internal layer linked into the tool (the same
// store scan, KeyStore::IsPermitted and Cert::CaChain against a key store's
// own store that X509_Auth_LoadClientCertificates runs), and never calls
// X509_Auth_*: the shared library's copies of the process-wide singletons
// (callbacks, settings, the PKCS#11 context) stay untouched, so the module
// is loaded once, by this layer only.
int RunDoctor(const GlobalOptions& global, const DoctorOptions& options);

}  // namespace x509auth_tool
