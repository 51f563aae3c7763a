#include "ChildProcess.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

namespace x509auth_test {
namespace {

using Clock = std::chrono::steady_clock;

int PipeWithText(const std::string& text) {
  int fds[2];
  if (pipe(fds) != 0) std::abort();
  fcntl(fds[1], F_SETPIPE_SZ, 1 << 20);
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(fds[1], text.data() + done, text.size() - done);
    if (n <= 0) std::abort();
    done += static_cast<std::size_t>(n);
  }
  close(fds[1]);
  return fds[0];
}

std::vector<char*> Argv(std::vector<std::string>& strings) {
  std::vector<char*> argv;
  for (std::string& arg : strings) argv.push_back(&arg[0]);
  argv.push_back(nullptr);
  return argv;
}

// In the child: the environment, the directory, then the program.
[[noreturn]] void Exec(const ChildRun& run, std::vector<std::string> strings) {
  setsid();  // no controlling terminal: a prompt cannot reach the user
  for (const auto& [name, value] : run.env) setenv(name.c_str(), value.c_str(), 1);
  if (!run.cwd.empty() && chdir(run.cwd.c_str()) != 0) _exit(126);
  std::vector<char*> argv = Argv(strings);
  execvp(argv[0], argv.data());
  _exit(127);
}

int StatusOf(int raw) { return WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw); }

}  // namespace

ChildResult RunChild(const ChildRun& run) {
  int out_pipe[2], err_pipe[2];
  if (pipe(out_pipe) != 0 || pipe(err_pipe) != 0) std::abort();
  const int in_fd = PipeWithText(run.input);
  const int fd3 = run.fd3 ? PipeWithText(*run.fd3) : -1;
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(in_fd, 0);
    dup2(out_pipe[1], 1);
    dup2(err_pipe[1], 2);
    // Descriptor 3 is set last: any of the pipes above may have had that
    // number, and each is already where it belongs.
    if (fd3 >= 0) {
      dup2(fd3, 3);
    } else {
      close(3);
    }
    for (int fd : {in_fd, out_pipe[0], out_pipe[1], err_pipe[0], err_pipe[1], fd3})
      if (fd > 3) close(fd);
    Exec(run, run.argv);
  }
  close(in_fd);
  if (fd3 >= 0) close(fd3);
  close(out_pipe[1]);
  close(err_pipe[1]);

  ChildResult result;
  const Clock::time_point deadline = Clock::now() + run.limit;
  pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open_count = 2;
  while (open_count > 0) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) {
      result.timed_out = true;
      kill(pid, SIGKILL);
      break;
    }
    const int ready = poll(fds, 2, static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char buffer[4096];
      const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<std::size_t>(n));
      } else {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open_count;
      }
    }
  }
  for (pollfd& fd : fds)
    if (fd.fd >= 0) close(fd.fd);
  int raw = 0;
  waitpid(pid, &raw, 0);
  result.status = StatusOf(raw);
  return result;
}

BackgroundChild::BackgroundChild(const ChildRun& run, const std::string& output_file)
    : output_file_(output_file) {
  const int in_fd = PipeWithText(run.input);
  const int out_fd = open(output_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (out_fd < 0) std::abort();
  pid_ = fork();
  if (pid_ == 0) {
    dup2(in_fd, 0);
    dup2(out_fd, 1);
    dup2(out_fd, 2);
    if (in_fd > 2) close(in_fd);
    if (out_fd > 2) close(out_fd);
    Exec(run, run.argv);
  }
  close(in_fd);
  close(out_fd);
}

BackgroundChild::~BackgroundChild() { Finish(std::chrono::milliseconds(0)); }

bool BackgroundChild::Running() const {
  if (status_ >= 0 || pid_ <= 0) return false;
  int raw = 0;
  if (waitpid(pid_, &raw, WNOHANG) == pid_) {
    status_ = StatusOf(raw);
    return false;
  }
  return true;
}

bool BackgroundChild::WaitForOutput(const std::string& text,
                                    std::chrono::milliseconds limit) const {
  const Clock::time_point deadline = Clock::now() + limit;
  while (true) {
    if (Output().find(text) != std::string::npos) return true;
    if (!Running() || Clock::now() >= deadline) return Output().find(text) != std::string::npos;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

int BackgroundChild::Finish(std::chrono::milliseconds limit) {
  const Clock::time_point deadline = Clock::now() + limit;
  while (Running() && Clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  if (Running()) {
    kill(pid_, SIGKILL);
    int raw = 0;
    waitpid(pid_, &raw, 0);
    status_ = StatusOf(raw);
  }
  return status_;
}

void BackgroundChild::Signal(int signal) const {
  if (Running()) kill(pid_, signal);
}

std::string BackgroundChild::Output() const {
  std::ifstream in(output_file_);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string OpensslProgram() { return "openssl"; }

std::map<std::string, std::string> SanitizerEnvironment() {
  std::map<std::string, std::string> env;
#ifdef X509AUTH_TEST_ASAN_RUNTIME
  // The module is instrumented, the openssl program is not: the runtime has
  // to come first. Leaks are looked for in the test processes themselves.
  env["LD_PRELOAD"] = X509AUTH_TEST_ASAN_RUNTIME;
  env["ASAN_OPTIONS"] = "detect_leaks=0:abort_on_error=1";
#endif
  return env;
}

int FreeLoopbackPort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = 0;
  socklen_t length = sizeof(address);
  int port = -1;
  if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
    port = ntohs(address.sin_port);
  if (fd >= 0) close(fd);
  return port;
}

}  // namespace x509auth_test
