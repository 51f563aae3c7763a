#pragma once
#include <string>

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

}  // namespace x509auth_tool
