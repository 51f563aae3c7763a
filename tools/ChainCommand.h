#pragma once
#include <string>

#include "GlobalOptions.h"

namespace x509auth_tool {

struct ChainOptions {
  std::string thumbprint;
  bool pem = false;
};

// `chain`: the thumbprints and subjects of a certificate's chain, leaf
// first; with --pem the leaf and the CA certificates the library hands out.
int RunChain(const GlobalOptions& global, const ChainOptions& options);

}  // namespace x509auth_tool
