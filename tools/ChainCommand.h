#pragma once
#include <string>

#include "Command.h"
#include "GlobalOptions.h"

namespace x509auth_tool {

struct ChainOptions {
  std::string thumbprint;
  bool pem = false;
};

// `chain`: the thumbprints and subjects of a certificate's chain, leaf
// first; with --pem the leaf and the CA certificates the library hands out.
int RunChain(const GlobalOptions& global, const ChainOptions& options);

// Registers `chain` and its options on |app|.
Command AddChainCommand(CLI::App& app, const GlobalOptions& global);

}  // namespace x509auth_tool
