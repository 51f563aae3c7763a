#include "InterruptCleanup.h"

#include <errno.h>
#include <signal.h>
#include <unistd.h>

#include <iterator>
#include <vector>

namespace x509auth_tool {
namespace {

// Plain storage: the signal handler may read it at any moment.
volatile sig_atomic_t g_terminal_fd = -1;
termios g_saved_terminal;
termios g_prompting_terminal;

void OnSignal(int signal_number) {
  if (g_terminal_fd >= 0) {
    tcsetattr(g_terminal_fd, TCSAFLUSH, &g_saved_terminal);
    (void)!write(g_terminal_fd, "\n", 1);
  }
  // Die of the same signal, so the parent sees what happened.
  signal(signal_number, SIG_DFL);
  raise(signal_number);
}

// Ctrl-Z at the prompt: the shell gets its terminal back with echo on while
// the tool is stopped, and the prompt gets echo off again when it goes on.
void OnStop(int) {
  const int saved_errno = errno;
  const int fd = g_terminal_fd;
  if (fd >= 0) tcsetattr(fd, TCSAFLUSH, &g_saved_terminal);
  signal(SIGTSTP, SIG_DFL);
  raise(SIGTSTP);
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTSTP);
  // Delivered here, with the default action: the process stops until
  // SIGCONT, then carries on from this line.
  sigprocmask(SIG_UNBLOCK, &stop, nullptr);
  struct sigaction again {};
  again.sa_handler = OnStop;
  again.sa_flags = SA_RESTART;
  sigemptyset(&again.sa_mask);
  sigaction(SIGTSTP, &again, nullptr);
  if (fd >= 0 && g_terminal_fd == fd) tcsetattr(fd, TCSAFLUSH, &g_prompting_terminal);
  errno = saved_errno;
}

}  // namespace

void InterruptCleanup::Install() {
  static bool installed = false;
  if (installed) return;
  installed = true;
  struct sigaction action {};
  action.sa_handler = OnSignal;
  sigemptyset(&action.sa_mask);
  // Every signal whose default action ends the process and that can be
  // caught: the keyboard's (Ctrl-C, Ctrl-\), kill's, timers', a closed pipe,
  // exceeded limits, faults, and the real-time ones.
  static const int k_ending[] = {SIGHUP,  SIGINT,  SIGQUIT,   SIGILL,  SIGTRAP, SIGABRT,
                                 SIGBUS,  SIGFPE,  SIGUSR1,   SIGSEGV, SIGUSR2, SIGPIPE,
                                 SIGALRM, SIGTERM, SIGSTKFLT, SIGXCPU, SIGXFSZ, SIGVTALRM,
                                 SIGPROF, SIGIO,   SIGPWR,    SIGSYS};
  std::vector<int> signals(std::begin(k_ending), std::end(k_ending));
  for (int real_time = SIGRTMIN; real_time <= SIGRTMAX; ++real_time) signals.push_back(real_time);
  for (const int signal_number : signals) {
    // A signal the parent chose to ignore (nohup, a background job) stays
    // so, and so does one a library already handles.
    struct sigaction previous {};
    if (sigaction(signal_number, nullptr, &previous) != 0 || previous.sa_handler != SIG_DFL)
      continue;
    sigaction(signal_number, &action, nullptr);
  }
  struct sigaction stop {};
  stop.sa_handler = OnStop;
  stop.sa_flags = SA_RESTART;
  sigemptyset(&stop.sa_mask);
  struct sigaction previous {};
  if (sigaction(SIGTSTP, nullptr, &previous) == 0 && previous.sa_handler == SIG_DFL)
    sigaction(SIGTSTP, &stop, nullptr);
}

void InterruptCleanup::SetTerminal(int fd, const termios& saved, const termios& prompting) {
  g_saved_terminal = saved;
  g_prompting_terminal = prompting;
  g_terminal_fd = fd;
}

void InterruptCleanup::ClearTerminal() { g_terminal_fd = -1; }

}  // namespace x509auth_tool
