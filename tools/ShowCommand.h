#pragma once
#include <string>

#include "GlobalOptions.h"

namespace x509auth_tool {

struct ShowOptions {
  std::string thumbprint;
};

// `show`: opens the certificate in the desktop's certificate viewer.
int RunShow(const GlobalOptions& global, const ShowOptions& options);

}  // namespace x509auth_tool
