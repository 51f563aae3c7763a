#pragma once
#include <string>

#include "Command.h"
#include "GlobalOptions.h"

namespace x509auth_tool {

struct SignOptions {
  std::string thumbprint;
  std::string hash = "sha256";
  std::string in = "-";
  std::string out;   // empty: hex on stdout
  bool pss = false;  // RSA-PSS instead of PKCS#1 v1.5
};

// `sign`: hashes the input, signs the digest through the library, and
// verifies the signature with the certificate's public key.
int RunSign(const GlobalOptions& global, const SignOptions& options);

// Registers `sign` and its options on |app|.
Command AddSignCommand(CLI::App& app, const GlobalOptions& global);

}  // namespace x509auth_tool
