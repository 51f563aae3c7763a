#pragma once
// Reading a command's input (a file or "-" for stdin) and writing its
// binary output (a file, or stdout).
#include <optional>
#include <string>
#include <vector>

namespace x509auth_tool {

// The bytes of |path| ("-": stdin), or nullopt after printing why.
std::optional<std::vector<unsigned char>> ReadInput(const std::string& path);
// Writes |data| to |path| ("-" or empty: stdout); false after printing why.
bool WriteOutput(const std::string& path, const unsigned char* data, std::size_t length);

}  // namespace x509auth_tool
