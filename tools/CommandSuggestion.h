#pragma once
#include <string>
#include <vector>

#include "Command.h"

namespace x509auth_tool {

// "unknown command 'lst' (did you mean 'list'?); ...": the nearest command
// name is offered when |word| looks like a typo of it or begins it.
std::string UnknownCommand(const std::string& word, const std::vector<Command>& commands);

}  // namespace x509auth_tool
