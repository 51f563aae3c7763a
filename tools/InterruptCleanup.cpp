#include "InterruptCleanup.h"

#include <signal.h>
#include <unistd.h>

#include <initializer_list>

namespace x509auth_tool {
namespace {

// Plain storage: the signal handler may read it at any moment.
volatile sig_atomic_t g_terminal_fd = -1;
termios g_saved_terminal;

void OnSignal(int signal_number) {
  if (g_terminal_fd >= 0) {
    tcsetattr(g_terminal_fd, TCSAFLUSH, &g_saved_terminal);
    (void)!write(g_terminal_fd, "\n", 1);
  }
  // Die of the same signal, so the parent sees what happened.
  signal(signal_number, SIG_DFL);
  raise(signal_number);
}

}  // namespace

void InterruptCleanup::Install() {
  static bool installed = false;
  if (installed) return;
  installed = true;
  struct sigaction action {};
  action.sa_handler = OnSignal;
  sigemptyset(&action.sa_mask);
  for (int signal_number : {SIGINT, SIGTERM, SIGHUP}) {
    // A signal the parent chose to ignore (nohup, a background job) stays so.
    struct sigaction previous {};
    if (sigaction(signal_number, nullptr, &previous) == 0 && previous.sa_handler == SIG_IGN)
      continue;
    sigaction(signal_number, &action, nullptr);
  }
}

void InterruptCleanup::SetTerminal(int fd, const termios& saved) {
  g_saved_terminal = saved;
  g_terminal_fd = fd;
}

void InterruptCleanup::ClearTerminal() { g_terminal_fd = -1; }

}  // namespace x509auth_tool
