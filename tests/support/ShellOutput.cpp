#include "ShellOutput.h"

#include <cstdio>

namespace x509auth_test {

std::string ShellOutput(const std::string& command) {
  std::string output;
  if (FILE* pipe = popen(command.c_str(), "r")) {
    char buffer[4096];
    while (std::fgets(buffer, sizeof buffer, pipe) != nullptr) output += buffer;
    pclose(pipe);
  }
  return output;
}

}  // namespace x509auth_test
