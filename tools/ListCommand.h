#pragma once
#include "GlobalOptions.h"

namespace x509auth_tool {

struct ListOptions {
  bool json = false;
};

// `list`: the offered certificates as a table, or a JSON array.
int RunList(const GlobalOptions& global, const ListOptions& options);

}  // namespace x509auth_tool
