#pragma once
// What must be undone when the tool is interrupted (Ctrl-C at a prompt, a
// SIGTERM): the terminal's echo. The handler uses only async-signal-safe
// calls on state stored here, then dies of the same signal (a shell shows
// Ctrl-C as exit status 130).
#include <termios.h>

namespace x509auth_tool {

class InterruptCleanup {
 public:
  // Installs the SIGINT, SIGTERM and SIGHUP handlers once.
  static void Install();
  // The terminal |fd| must get |saved| back if the tool is interrupted.
  static void SetTerminal(int fd, const termios& saved);
  static void ClearTerminal();
};

}  // namespace x509auth_tool
