#pragma once
#include "Command.h"
#include "GlobalOptions.h"

namespace x509auth_tool {

struct ListOptions {
  bool json = false;
};

// `list`: the offered certificates as a table, or a JSON array.
int RunList(const GlobalOptions& global, const ListOptions& options);

// Registers `list` and its options on |app|.
Command AddListCommand(CLI::App& app, const GlobalOptions& global);

}  // namespace x509auth_tool
