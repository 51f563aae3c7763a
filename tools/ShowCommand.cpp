#include "ShowCommand.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "LibrarySession.h"
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

}  // namespace

int RunShow(const GlobalOptions& global, const ShowOptions& options) {
  if (!ViewerOnPath())
    return Fail(std::string("the certificate viewer ") + k_viewer +
                " is not installed or not on PATH (Debian package gcr)");
  LibrarySession session(global);
  if (!session.Start()) return k_exit_failed;
  const X509_Auth_Certificate* record = session.Find(options.thumbprint);
  if (record == nullptr) return k_exit_failed;
  // Nothing buffered may be inherited by the library's child.
  std::fflush(stdout);
  std::fflush(stderr);
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

}  // namespace x509auth_tool
