#pragma once
// The checks and transforms the commands put on their options. Each one's
// name stays out of the help's option labels ("FILE", not "FILE:FILE").
#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace x509auth_tool {

// Paths on the command line are made absolute while they are read: the
// provider behind `tls` and the library take them as they are.
CLI::Validator AbsolutePath();
CLI::Validator Thumbprint();
CLI::Validator ExistingFile();
// A file descriptor number; CLI11's own range check would print the range
// of a double.
CLI::Validator Descriptor();
CLI::Validator Seconds();
CLI::Validator OneOf(std::vector<std::string> choices);

// The positional THUMBPRINT that most commands take.
void AddThumbprintArgument(CLI::App& command, std::string& thumbprint);
// --in FILE (standard input by default) and --out FILE, which |out_help|
// describes.
void AddInputAndOutput(CLI::App& command, std::string& in, std::string& out,
                       const std::string& out_help);

}  // namespace x509auth_tool
