#include "ShowCommand.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>

#include "CommandLibrarySession.h"
#include "Evidence.h"
#include "OptionChecks.h"
#include "Report.h"

namespace x509auth_tool {
namespace {

constexpr const char* k_viewer = "gcr-viewer";

// The library starts the viewer in a child without waiting, so a missing
// viewer would only show in that child: look for it first.
bool ViewerOnPath() {
  const char* path = std::getenv("PATH");
  std::istringstream dirs(path != nullptr ? path : "");
  std::string dir;
  while (std::getline(dirs, dir, ':')) {
    const std::string candidate = (dir.empty() ? "." : dir) + "/" + k_viewer;
    if (access(candidate.c_str(), X_OK) == 0) return true;
  }
  return false;
}

// The viewer is a window: without a display it starts, fails and is gone
// after the tool has said it opened.
bool HasDisplay() {
  for (const char* variable : {"DISPLAY", "WAYLAND_DISPLAY"}) {
    const char* value = std::getenv(variable);
    if (value != nullptr && *value != '\0') return true;
  }
  return false;
}

}  // namespace

int RunShow(const GlobalOptions& global, const ShowOptions& options) {
  if (!HasDisplay())
    return FailPlain(
        "there is no display to show a window on (neither DISPLAY nor WAYLAND_DISPLAY "
        "is set); 'x509-auth chain THUMBPRINT --pem | openssl x509 -text' shows it as text");
  if (!ViewerOnPath())
    return FailPlain(std::string("the certificate viewer ") + k_viewer +
                     " is not installed or not on PATH (Debian package gcr)");
  CommandLibrarySession session(global);
  if (!session.Start()) return k_exit_failed;
  const X509_Auth_Certificate* record = session.Find(options.thumbprint);
  if (record == nullptr) return k_exit_failed;
  // Nothing buffered may be inherited by the library's child.
  std::fflush(stdout);
  std::fflush(stderr);
  Evidence::BeginStep();
  const pid_t parent = getpid();
  const bool started = X509_Auth_ShowCertificateDialog(record, nullptr);
  if (getpid() != parent) {
    // The library's child, whose exec of the viewer failed, returns here:
    // it must not clean up what belongs to the parent.
    static const char message[] = "x509-auth: cannot run gcr-viewer\n";
    (void)!write(STDERR_FILENO, message, sizeof message - 1);
    _exit(k_exit_failed);
  }
  if (!started) return Fail(std::string("the certificate viewer could not be started"));
  Note("opened " + std::string(record->name) + " in " + k_viewer);
  return k_exit_ok;
}

Command AddShowCommand(CLI::App& app, const GlobalOptions& global) {
  auto options = std::make_shared<ShowOptions>();
  CLI::App* command =
      app.add_subcommand("show", "Open a certificate in the desktop's certificate viewer");
  AddThumbprintArgument(*command, options->thumbprint);
  return {command, [&global, options] { return RunShow(global, *options); }, nullptr};
}

}  // namespace x509auth_tool
