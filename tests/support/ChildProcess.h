#pragma once
// Runs a program (openssl, the tool) in a child process for tests: its own
// session with no controlling terminal, a chosen working directory, added
// environment and standard input, and a time limit after which it is killed,
// so that no test can hang on a peer.
#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace x509auth_test {

struct ChildResult {
  int status = -1;         // exit status, or 128 + signal
  bool timed_out = false;  // killed at the time limit
  std::string out;
  std::string err;
};

struct ChildRun {
  std::vector<std::string> argv;           // argv[0] is the program's path
  std::string cwd;                         // empty: the test's working directory
  std::string input;                       // written to standard input, then closed
  std::map<std::string, std::string> env;  // added to the test's environment
  // Text the child reads on descriptor 3 (as with --pin-fd 3); without it,
  // descriptor 3 is closed in the child, whatever the test has open there.
  std::optional<std::string> fd3;
  std::chrono::seconds limit{30};
};

ChildResult RunChild(const ChildRun& run);

// A child that keeps running while the test talks to it (a TLS server); its
// output goes to a file. Killed and reaped by the destructor at the latest.
class BackgroundChild {
 public:
  BackgroundChild(const ChildRun& run, const std::string& output_file);
  ~BackgroundChild();
  BackgroundChild(const BackgroundChild&) = delete;
  BackgroundChild& operator=(const BackgroundChild&) = delete;

  // Waits until the output holds |text|, the child exits or |limit| passes.
  bool WaitForOutput(const std::string& text, std::chrono::milliseconds limit) const;
  // Waits for the child to exit by itself within |limit|, else kills it.
  // Returns its exit status as ChildResult::status does.
  int Finish(std::chrono::milliseconds limit);
  std::string Output() const;
  bool Running() const;
  // The child's process id, for a look at it in /proc; -1 once it is reaped.
  pid_t Pid() const { return status_ >= 0 ? -1 : pid_; }
  // Sends |signal| (SIGTERM: ask it to end) to a child still running.
  void Signal(int signal) const;

 private:
  pid_t pid_ = -1;
  mutable int status_ = -1;
  std::string output_file_;
};

// The path of the openssl program tests use, and what a child running it
// needs when the provider module is built with AddressSanitizer (the
// sanitizer's runtime preloaded into the uninstrumented program).
std::string OpensslProgram();
std::map<std::string, std::string> SanitizerEnvironment();

// A TCP port on 127.0.0.1 that was free a moment ago.
int FreeLoopbackPort();

}  // namespace x509auth_test
