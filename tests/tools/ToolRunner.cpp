#include "ToolRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace x509auth_test {
namespace {

// Writes |text| into a pipe and returns its read end (the text is small
// enough for the pipe buffer).
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

}  // namespace

const char* ToolPath() { return X509_AUTH_TOOL_PATH; }

ToolResult RunTool(const std::vector<std::string>& args) { return RunTool(ToolRun{args}); }

ToolResult RunTool(const ToolRun& run) {
  int out_pipe[2], err_pipe[2];
  if (pipe(out_pipe) != 0 || pipe(err_pipe) != 0) std::abort();
  const int in_fd = PipeWithText(run.input);
  const int fd3 = run.with_fd3 ? PipeWithText(run.fd3) : -1;

  std::vector<std::string> argv_strings{ToolPath()};
  argv_strings.insert(argv_strings.end(), run.args.begin(), run.args.end());
  std::vector<char*> argv;
  for (std::string& arg : argv_strings) argv.push_back(&arg[0]);
  argv.push_back(nullptr);

  const pid_t pid = fork();
  if (pid == 0) {
    setsid();  // no controlling terminal
    dup2(in_fd, 0);
    dup2(out_pipe[1], 1);
    dup2(err_pipe[1], 2);
    if (fd3 >= 0) {
      dup2(fd3, 3);
    } else {
      close(3);
    }
    for (int fd : {in_fd, out_pipe[0], out_pipe[1], err_pipe[0], err_pipe[1], fd3})
      if (fd > 3) close(fd);
    for (const auto& [name, value] : run.env) setenv(name.c_str(), value.c_str(), 1);
    if (!run.cwd.empty() && chdir(run.cwd.c_str()) != 0) _exit(126);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(in_fd);
  if (fd3 >= 0) close(fd3);
  close(out_pipe[1]);
  close(err_pipe[1]);

  ToolResult result;
  pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open_count = 2;
  while (open_count > 0) {
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
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
  int status = 0;
  waitpid(pid, &status, 0);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

std::vector<std::string> ToolLines(const std::string& err) {
  std::vector<std::string> lines;
  for (std::string& line : Lines(err))
    if (line.rfind("[", 0) != 0) lines.push_back(std::move(line));
  return lines;
}

}  // namespace x509auth_test
