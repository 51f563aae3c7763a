#pragma once
// What must be undone when the tool is interrupted (Ctrl-C at a prompt, a
// SIGTERM): the terminal's echo and the private module directory. The
// handler uses only async-signal-safe calls on state stored here.
#include <termios.h>

namespace x509auth_tool {

class InterruptCleanup {
 public:
  // Installs the SIGINT, SIGTERM and SIGHUP handlers once.
  static void Install();
  // The terminal |fd| must get |saved| back if the tool is interrupted.
  static void SetTerminal(int fd, const termios& saved);
  static void ClearTerminal();
  // The module link and its directory, removed if the tool is interrupted.
  static void SetDirectory(const char* link, const char* directory);
  static void ClearDirectory();
};

}  // namespace x509auth_tool
