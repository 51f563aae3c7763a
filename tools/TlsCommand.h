#pragma once
#include <string>

#include "Command.h"
#include "GlobalOptions.h"

namespace x509auth_tool {

struct TlsOptions {
  std::string target;      // HOST:PORT
  std::string thumbprint;  // --cert
  std::string ca_file;     // --CAfile; empty: the system's CAs
  std::string servername;  // --servername; also checked against the server's name
  bool tls1_2 = false, tls1_3 = false;
  std::string send;                   // --send: one line written after the handshake
  std::string token_key = "library";  // or "export"
  int timeout_seconds = 15;
  bool allow_no_client_auth = false;  // a server that asks for no certificate is a success
};

// `tls`: a TLS handshake authenticated with a certificate. The key works
// through the x509auth OpenSSL provider built into the tool (the same code
// as the module), or, for a token certificate with --token-key export,
// through the key X509_Auth_GetPrivateKeyForCertificate exports.
int RunTls(const GlobalOptions& global, const TlsOptions& options);

// Registers `tls` and its options on |app|.
Command AddTlsCommand(CLI::App& app, const GlobalOptions& global);

}  // namespace x509auth_tool
