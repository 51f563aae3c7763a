#include "ForkedChild.h"

#include <sys/wait.h>
#include <unistd.h>

namespace x509auth_test {

std::string RunInChild(const std::function<std::string()>& body, ChildOptions options) {
  int pipe_ends[2];
  if (pipe(pipe_ends) != 0) return "child pipe failed";
  const pid_t child = fork();
  if (child < 0) return "child fork failed";
  if (child == 0) {
    close(pipe_ends[0]);
    alarm(options.alarm_seconds);
    std::string report;
    if (options.as_nobody && (setresgid(k_nobody, k_nobody, k_nobody) != 0 ||
                              setresuid(k_nobody, k_nobody, k_nobody) != 0))
      report = "could not drop privileges";
    else
      report = body();
    std::size_t done = 0;
    while (done < report.size()) {
      const ssize_t written = write(pipe_ends[1], report.data() + done, report.size() - done);
      if (written <= 0) break;
      done += static_cast<std::size_t>(written);
    }
    _exit(0);
  }
  close(pipe_ends[1]);
  std::string report;
  char buffer[4096];
  ssize_t length;
  while ((length = read(pipe_ends[0], buffer, sizeof buffer)) > 0) report.append(buffer, length);
  close(pipe_ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    return "child ended abnormally (status " + std::to_string(status) + "): " + report;
  return report;
}

}  // namespace x509auth_test
