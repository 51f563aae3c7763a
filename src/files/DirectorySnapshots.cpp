#include "files/DirectorySnapshots.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "base/NeverDestroyed.h"

namespace quorvant::shared::x509 {

namespace {

// Every change to the directory's entries, to the files through them, and
// to the directory itself.
constexpr std::uint32_t k_watched = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                    IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_DELETE_SELF |
                                    IN_MOVE_SELF | IN_ONLYDIR;

// Local file systems, whose every change passes through this kernel and so
// is reported. Network, FUSE and layered file systems can change beneath it.
bool IsLocalFileSystem(int directory) {
  struct statfs status {};
  if (fstatfs(directory, &status) != 0) return false;
  switch (static_cast<unsigned long>(status.f_type)) {
    case EXT4_SUPER_MAGIC:  // ext2, ext3 and ext4 alike
    case XFS_SUPER_MAGIC:
    case BTRFS_SUPER_MAGIC:
    case TMPFS_MAGIC:
    case F2FS_SUPER_MAGIC: return true;
    default: return false;
  }
}

bool Identity(int directory, dev_t* device, ino_t* inode) {
  struct stat status {};
  if (fstat(directory, &status) != 0) return false;
  *device = status.st_dev;
  *inode = status.st_ino;
  return true;
}

std::string KeyOf(const std::string& path, const std::string& key_prefix) {
  std::string key = path;
  key += '\0';
  key += key_prefix;
  return key;
}

}  // namespace

DirectorySnapshots& DirectorySnapshots::GetInstance() {
  static NeverDestroyed<DirectorySnapshots> snapshots;
  return snapshots.get();
}

DirectorySnapshots::DirectorySnapshots() = default;

DirectorySnapshots::~DirectorySnapshots() { Clear(); }

bool DirectorySnapshots::Ready() {
  const pid_t pid = getpid();
  if (notify_ >= 0 && owner_ != pid) {
    // A forked child shares its parent's instance: reading it here would
    // take reports the parent needs, so the child makes its own.
    CloseLocked();
  }
  if (notify_ < 0) {
    notify_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    owner_ = pid;
  }
  return notify_ >= 0;
}

void DirectorySnapshots::Drain() {
  if (notify_ < 0) return;
  alignas(inotify_event) char buffer[8192];
  for (;;) {
    const ssize_t length = read(notify_, buffer, sizeof buffer);
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) {
      // Nothing pending. Any other failure may have lost reports: nothing
      // kept can be trusted then.
      if (length < 0 && errno != EAGAIN) {
        kept_.clear();
        for (auto& [watch, reports] : reports_) reports = ++counter_;
      }
      return;
    }
    for (ssize_t offset = 0; offset < length;) {
      inotify_event event{};
      std::memcpy(&event, buffer + offset, sizeof event);
      offset += static_cast<ssize_t>(sizeof(inotify_event) + event.len);
      if ((event.mask & IN_Q_OVERFLOW) != 0) {
        kept_.clear();
        for (auto& [watch, reports] : reports_) reports = ++counter_;
        continue;
      }
      // Removed watches (IN_IGNORED) count as changed too; a number the
      // kernel hands out again later starts from a new count.
      reports_[event.wd] = ++counter_;
    }
  }
}

void DirectorySnapshots::CloseLocked() {
  if (notify_ >= 0) close(notify_);
  notify_ = -1;
  // Emptied to the last byte, bucket arrays included: this object is never
  // destroyed, and a provider or PKCS#11 module carrying the library may be
  // unloaded once it has ended it, losing whatever the maps still held.
  std::unordered_map<int, std::uint64_t>().swap(reports_);
  std::unordered_map<std::string, Kept>().swap(kept_);
  std::unordered_map<std::string, unsigned>().swap(unwatched_);
}

std::shared_ptr<const DirectorySnapshots::Snapshot> DirectorySnapshots::Find(
    int directory, const std::string& path, const std::string& key_prefix) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (notify_ < 0 || owner_ != getpid()) return nullptr;
  Drain();
  const auto found = kept_.find(KeyOf(path, key_prefix));
  if (found == kept_.end()) return nullptr;
  const Kept& kept = found->second;
  dev_t device = 0;
  ino_t inode = 0;
  const auto reports = reports_.find(kept.watch);
  // The path may lead to another directory now, or the one watched changed.
  if (!Identity(directory, &device, &inode) || device != kept.device || inode != kept.inode ||
      reports == reports_.end() || reports->second != kept.reports) {
    kept_.erase(found);
    return nullptr;
  }
  return kept.snapshot;
}

DirectorySnapshots::Ticket DirectorySnapshots::Begin(int directory, const std::string& path,
                                                     const std::string& key_prefix) {
  std::lock_guard<std::mutex> lock(mutex_);
  Ticket ticket;
  unsigned& unwatched = unwatched_[KeyOf(path, key_prefix)];
  if (unwatched < k_unwatched_scans) {
    ++unwatched;
    return ticket;
  }
  if (!Ready() || !IsLocalFileSystem(directory)) return ticket;
  // The directory that was opened, whatever its path leads to by now.
  const std::string opened = "/proc/self/fd/" + std::to_string(directory);
  const int watch = inotify_add_watch(notify_, opened.c_str(), k_watched);
  if (watch < 0) return ticket;
  Drain();
  auto [reports, added] = reports_.try_emplace(watch, 0);
  if (added) reports->second = ++counter_;
  ticket.valid = true;
  ticket.watch = watch;
  ticket.reports = reports->second;
  return ticket;
}

void DirectorySnapshots::Keep(const Ticket& ticket, int directory, const std::string& path,
                              const std::string& key_prefix,
                              std::shared_ptr<const Snapshot> snapshot) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!ticket.valid || notify_ < 0 || owner_ != getpid()) return;
  Drain();
  const std::string key = KeyOf(path, key_prefix);
  const auto reports = reports_.find(ticket.watch);
  Kept kept;
  if (reports == reports_.end() || reports->second != ticket.reports ||
      !Identity(directory, &kept.device, &kept.inode)) {
    // Changed while it was being read: the next scan reads it again.
    kept_.erase(key);
    return;
  }
  kept.watch = ticket.watch;
  kept.reports = ticket.reports;
  kept.snapshot = std::move(snapshot);
  kept_[key] = std::move(kept);
}

void DirectorySnapshots::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  // Safe in a forked child too: it closes the child's copy of the
  // descriptor, and the parent's instance goes on.
  CloseLocked();
}

std::size_t DirectorySnapshots::Size() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return kept_.size();
}

}  // namespace quorvant::shared::x509
