#pragma once
// The viewer's folder and file live in a directory every user can write to,
// so both are checked before a certificate is written there: nothing is
// written through a link the library did not make or into another user's
// folder or file.
#include <cstdio>
#include <filesystem>

namespace quorvant::shared::x509 {

class ViewerFile {
 public:
  // Throws std::filesystem::filesystem_error when |folder| is a symbolic
  // link or belongs to another user than the process's effective one.
  static void CheckFolder(const std::filesystem::path& folder);

  // Opens |path| for writing like fopen's "w", but refuses (null, errno set)
  // a symbolic link, anything that is not a regular file and a file of
  // another user, before truncating anything.
  static std::FILE* OpenForWriting(const std::filesystem::path& path);
};

}  // namespace quorvant::shared::x509
