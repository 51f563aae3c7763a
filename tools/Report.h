#pragma once
// Diagnostics of the tool: every line it writes on stderr starts with the
// tool's name, so a script can show it as it is. A failure is one line; the
// library's lines that explain it (see Evidence) follow it, indented. Every
// line is shown through Printable: names in it may come from anyone.
#include <string>

namespace x509auth_tool {

// Prints "x509-auth: |message|" on stderr, then the current step's library
// lines unless the tool is quiet, and returns k_exit_failed.
int Fail(const std::string& message);
// The same, without the library's lines: for failures of the tool's own.
int FailPlain(const std::string& message);
// The same for a usage error; returns k_exit_usage.
int FailUsage(const std::string& message);
// Prints an indented detail line under a failure (e.g. candidates).
void FailDetail(const std::string& line);
// Prints "x509-auth: warning: |message|" unless the tool is quiet; the exit
// status stays what it would be.
void Warn(const std::string& message);
// Prints "x509-auth: |message|" on stderr unless the tool is quiet.
void Note(const std::string& message);
void SetQuiet(bool quiet);
// Runs |hook| before the next line the tool writes on stderr (and clears
// it): whoever borrowed stderr gives it back first.
void BeforeNextReport(void (*hook)());
bool IsQuiet();

}  // namespace x509auth_tool
