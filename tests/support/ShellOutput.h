#pragma once
// What a short shell command prints, for tests that read state from outside
// the program under test (a terminal's modes, a tmux screen).
#include <string>

namespace x509auth_test {

// Runs |command| with sh and gives its standard output; empty when the
// shell could not be started.
std::string ShellOutput(const std::string& command);

}  // namespace x509auth_test
