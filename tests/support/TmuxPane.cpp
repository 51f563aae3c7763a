#include "TmuxPane.h"

#include <chrono>
#include <thread>

#include "ShellOutput.h"

namespace x509auth_test {

TmuxPane::TmuxPane(std::filesystem::path socket) : socket_(std::move(socket)) {}

TmuxPane::~TmuxPane() { Run("kill-server"); }

std::string TmuxPane::Quote(const std::string& text) {
  std::string quoted = "'";
  for (const char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

std::string TmuxPane::Run(const std::string& arguments) {
  return ShellOutput("tmux -S " + Quote(socket_.string()) + " " + arguments + " 2>&1");
}

bool TmuxPane::Start(const std::string& shell_command) {
  Run("new-session -d -s pane -x 200 -y 50 " + Quote(shell_command + "; sleep 30"));
  return WaitFor("");
}

void TmuxPane::TypeLine(const std::string& text) {
  Run("send-keys -t pane -l " + Quote(text));
  Run("send-keys -t pane Enter");
}

std::string TmuxPane::Screen() { return Run("capture-pane -p -t pane"); }

bool TmuxPane::WaitFor(const std::string& text) {
  for (int i = 0; i < 200; ++i) {
    const std::string screen = Screen();
    if (screen.find("no server running") == std::string::npos &&
        screen.find(text) != std::string::npos)
      return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return false;
}

}  // namespace x509auth_test
