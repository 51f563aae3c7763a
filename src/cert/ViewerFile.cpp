#include "cert/ViewerFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace quorvant::shared::x509 {

void ViewerFile::CheckFolder(const std::filesystem::path& folder) {
  struct stat status {};
  if (lstat(folder.c_str(), &status) != 0)
    throw std::filesystem::filesystem_error("viewer folder", folder,
                                            std::error_code(errno, std::generic_category()));
  if (S_ISLNK(status.st_mode))
    throw std::filesystem::filesystem_error(
        "viewer folder is a symbolic link", folder,
        std::make_error_code(std::errc::too_many_symbolic_link_levels));
  if (status.st_uid != geteuid())
    throw std::filesystem::filesystem_error("viewer folder belongs to another user", folder,
                                            std::make_error_code(std::errc::permission_denied));
}

std::FILE* ViewerFile::OpenForWriting(const std::filesystem::path& path) {
  // O_NONBLOCK keeps a planted FIFO from blocking the open; O_TRUNC waits
  // until the file is known to be ours.
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666);
  if (fd < 0) return nullptr;
  struct stat status {};
  int error = 0;
  if (fstat(fd, &status) != 0)
    error = errno;
  else if (!S_ISREG(status.st_mode))
    error = EINVAL;
  else if (status.st_uid != geteuid())
    error = EPERM;
  else if (ftruncate(fd, 0) != 0 || fcntl(fd, F_SETFL, 0) != 0)
    error = errno;
  std::FILE* file = error == 0 ? fdopen(fd, "w") : nullptr;
  if (file == nullptr) {
    if (error == 0) error = errno;
    close(fd);
    errno = error;
  }
  return file;
}

}  // namespace quorvant::shared::x509
