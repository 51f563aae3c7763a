#include "files/DirectoryEntries.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace quorvant::shared::x509 {

namespace fs = std::filesystem;

namespace {

bool IsDotOrDotDot(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

}  // namespace

DirectoryEntries::DirectoryEntries(const fs::path& directory,
                                   const std::function<void(int)>& opened) {
  // The same opening as the standard iterator's, so that the same errors
  // come from the same calls.
  int error = 0;
  const int descriptor = ::openat(AT_FDCWD, directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) {
    error = errno;
  } else {
    dir_ = ::fdopendir(descriptor);
    if (dir_ == nullptr) {
      error = errno;
      ::close(descriptor);
    }
  }
  path_ = PathPrefix(directory);
  prefix_length_ = path_.size();
  if (dir_ != nullptr) {
    if (opened) opened(::dirfd(dir_));
    if (const dirent* first = Advance(&error)) Take(first);
  }
  if (error != 0) {
    if (dir_ != nullptr) ::closedir(dir_);
    dir_ = nullptr;
    throw fs::filesystem_error("directory iterator cannot open directory", directory,
                               std::error_code(error, std::generic_category()));
  }
}

std::string DirectoryEntries::PathPrefix(const fs::path& directory) {
  std::string prefix = directory.native();
  if (!prefix.empty() && prefix.back() != '/') prefix += '/';
  return prefix;
}

DirectoryEntries::~DirectoryEntries() {
  if (dir_ != nullptr) ::closedir(dir_);
}

const dirent* DirectoryEntries::Advance(int* error) {
  // The caller's errno survives, as with the standard iterator.
  const int saved = errno;
  const dirent* entry = nullptr;
  do {
    errno = 0;
    entry = ::readdir(dir_);
  } while (entry != nullptr && IsDotOrDotDot(entry->d_name));
  *error = entry == nullptr ? errno : 0;
  errno = saved;
  return entry;
}

void DirectoryEntries::Take(const dirent* entry) {
  path_.resize(prefix_length_);
  path_ += entry->d_name;
  name_ = path_.c_str() + prefix_length_;
  type_ = entry->d_type;
}

bool DirectoryEntries::Next() {
  if (!started_) {
    // The constructor already read the first entry, as the iterator does.
    started_ = true;
    return name_ != nullptr;
  }
  if (dir_ == nullptr || name_ == nullptr) return false;
  int error = 0;
  if (const dirent* entry = Advance(&error)) {
    Take(entry);
    return true;
  }
  name_ = nullptr;
  if (error != 0)
    throw fs::filesystem_error("directory iterator cannot advance",
                               std::error_code(error, std::generic_category()));
  return false;
}

bool DirectoryEntries::TypeIsFinal(unsigned char type) {
  switch (type) {
    case DT_REG:
    case DT_BLK:
    case DT_CHR:
    case DT_DIR:
    case DT_FIFO:
    case DT_SOCK: return true;
    default: return false;
  }
}

bool DirectoryEntries::IsRegularFile() const {
  // The types the iterator takes from the directory as they are; links,
  // unknown and unexpected types are resolved through the target's status,
  // whose failures (other than a missing target) throw as they do there.
  if (TypeIsFinal(type_)) return type_ == DT_REG;
  return fs::status(fs::path(path_)).type() == fs::file_type::regular;
}

int DirectoryEntries::Descriptor() const { return dir_ == nullptr ? -1 : ::dirfd(dir_); }

}  // namespace quorvant::shared::x509
