#pragma once
// Diagnostics of the tool: every failure is one line on stderr that starts
// with the tool's name, so a script can show it as it is.
#include <string>

namespace x509auth_tool {

// Prints "x509-auth: |message|" on stderr and returns k_exit_failed.
int Fail(const std::string& message);
// Prints an indented detail line under a failure (e.g. candidates).
void FailDetail(const std::string& line);
// Prints "x509-auth: |message|" on stderr unless the tool is quiet.
void Note(const std::string& message);
void SetQuiet(bool quiet);

}  // namespace x509auth_tool
