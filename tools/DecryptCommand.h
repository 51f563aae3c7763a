#pragma once
#include <string>

#include "Command.h"
#include "GlobalOptions.h"

namespace x509auth_tool {

struct DecryptOptions {
  std::string thumbprint;
  std::string padding;  // "pkcs1" or "oaep"
  std::string in = "-";
  std::string out;  // empty: standard output
};

// `decrypt`: decrypts the input with a certificate's RSA private key.
int RunDecrypt(const GlobalOptions& global, const DecryptOptions& options);

// Registers `decrypt` and its options on |app|.
Command AddDecryptCommand(CLI::App& app, const GlobalOptions& global);

}  // namespace x509auth_tool
