#pragma once
#include <dirent.h>

#include <filesystem>
#include <functional>
#include <string>

namespace quorvant::shared::x509 {

// The entries of one directory in the order readdir yields them, "." and ".."
// left out, exactly as std::filesystem::directory_iterator walks them, but
// without building a path object for every entry: for a directory of many
// files that was most of the cost of a scan. Failures throw the very
// filesystem_error objects the iterator throws, so what a caller logs from
// them reads the same. Not copyable; one user at a time.
class DirectoryEntries {
 public:
  // Opens the directory; throws filesystem_error "directory iterator cannot
  // open directory" for |directory| when it cannot be opened or its first
  // entry cannot be read. |opened|, when given, is called with the open
  // directory before anything is read from it.
  explicit DirectoryEntries(const std::filesystem::path& directory,
                            const std::function<void(int)>& opened = {});
  ~DirectoryEntries();
  DirectoryEntries(const DirectoryEntries&) = delete;
  DirectoryEntries& operator=(const DirectoryEntries&) = delete;

  // Moves to the next entry; false at the end. Throws filesystem_error
  // "directory iterator cannot advance" when the directory cannot be read.
  bool Next();

  // The current entry's file name and its full path (directory / name).
  const char* Name() const { return name_; }
  const std::string& Path() const { return path_; }
  // Whether the current entry is a regular file, links followed, as
  // std::filesystem::directory_entry::is_regular_file() decides it: the type
  // the directory reported, or the target's status for links and unknown
  // types. Throws filesystem_error "status" where that function throws.
  bool IsRegularFile() const;
  // What entry paths of |directory| start with: its path and, unless it
  // ends in one already, a separator (the rule of path::operator/=).
  static std::string PathPrefix(const std::filesystem::path& directory);
  // The type the directory reported for the current entry (DT_*).
  unsigned char Type() const { return type_; }
  // Whether that type settles IsRegularFile() without a status, as it does
  // for every type but links, unknown and unexpected ones.
  static bool TypeIsFinal(unsigned char type);
  // The open directory, for lookups relative to it.
  int Descriptor() const;

 private:
  // One readdir step past "." and ".."; null at the end or on an error,
  // which is left in |error|.
  const dirent* Advance(int* error);
  void Take(const dirent* entry);

  DIR* dir_ = nullptr;
  std::string path_;
  std::size_t prefix_length_ = 0;
  const char* name_ = nullptr;
  unsigned char type_ = DT_UNKNOWN;
  bool started_ = false;
};

}  // namespace quorvant::shared::x509
