#pragma once
// What must be undone when a signal ends the tool (Ctrl-C or Ctrl-\ at a
// prompt, kill, a timer, a closed pipe, a limit): the terminal's echo. The
// handler uses only async-signal-safe calls on state stored here, then dies
// of the same signal with its default action (a shell shows Ctrl-C as exit
// status 130). Ctrl-Z gives the terminal back as it was for as long as the
// tool is stopped.
#include <termios.h>

namespace x509auth_tool {

class InterruptCleanup {
 public:
  // Installs the handler, once, for every signal whose default action ends
  // the process and that is not ignored or handled already.
  static void Install();
  // The terminal |fd| must get |saved| back if the tool is interrupted or
  // stopped (Ctrl-Z), and |prompting| again when it is continued.
  static void SetTerminal(int fd, const termios& saved, const termios& prompting);
  static void ClearTerminal();
};

}  // namespace x509auth_tool
