#pragma once
// A program on a real terminal for tests of what a person types: a tmux
// server of the test's own (its socket in the test's directory) runs one
// shell command in a pane; the test types with send-keys and reads the
// screen with capture-pane. The server is killed when the pane goes.
#include <filesystem>
#include <string>

namespace x509auth_test {

class TmuxPane {
 public:
  explicit TmuxPane(std::filesystem::path socket);
  ~TmuxPane();
  TmuxPane(const TmuxPane&) = delete;
  TmuxPane& operator=(const TmuxPane&) = delete;

  // Starts |shell_command| (run by sh) in a new 200x50 pane.
  bool Start(const std::string& shell_command);
  // Types |text| literally, then Enter.
  void TypeLine(const std::string& text);
  std::string Screen();
  // Waits up to 20 s for |text| on the screen.
  bool WaitFor(const std::string& text);

  // |text| in single quotes for sh.
  static std::string Quote(const std::string& text);

 private:
  std::string Run(const std::string& arguments);

  std::filesystem::path socket_;
};

}  // namespace x509auth_test
