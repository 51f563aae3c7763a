#pragma once
#include <string>

#include "Command.h"
#include "GlobalOptions.h"

namespace x509auth_tool {

struct ShowOptions {
  std::string thumbprint;
};

// `show`: opens the certificate in the desktop's certificate viewer.
int RunShow(const GlobalOptions& global, const ShowOptions& options);

// Registers `show` and its options on |app|.
Command AddShowCommand(CLI::App& app, const GlobalOptions& global);

}  // namespace x509auth_tool
