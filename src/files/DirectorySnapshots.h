#pragma once
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "files/CertificateFile.h"

namespace quorvant::shared::x509 {

// What a complete scan of a "certs" directory found, kept so that the next
// scan of the unchanged directory need not list it and take every file's
// status again. The kernel reports every change made in the directory
// (inotify): an entry created, removed, renamed, written, truncated or given
// other attributes, and the directory's own attributes, removal or move; one
// such report, or a lost report, drops what was kept. What such reports
// cannot vouch for is kept as volatile, to be looked at again on every scan:
// links (their targets live elsewhere), files with more than one hard link
// (written through another name, they report to another directory), files on
// another mount than the directory, files changed within the last second, and
// entries whose type the directory did not tell. Only directories on local
// file systems whose every change passes through this kernel are kept; the
// rest are scanned in full each time, as they are when the kernel refuses a
// watch. Thread-safe; a process that forks starts afresh in the child.
class DirectorySnapshots {
 public:
  struct Entry {
    std::string name;
    unsigned char type = 0;  // the type the directory reported (DT_*)
    // Looked at again on every scan, as a full scan would.
    bool is_volatile = false;
    // For settled entries: the record, or null when the file holds no
    // certificate.
    std::shared_ptr<const CertificateFile> file;
  };
  using Snapshot = std::vector<Entry>;

  // A scan's standing: the watch it was started under and the count of
  // reports for that watch at its start.
  struct Ticket {
    bool valid = false;
    int watch = -1;
    std::uint64_t reports = 0;
  };

  // Larger directories are not kept: the certificate cache is bounded at
  // this many files, and a snapshot would hold them all.
  static constexpr std::size_t k_max_entries = 4096;

  static DirectorySnapshots& GetInstance();

  DirectorySnapshots();
  ~DirectorySnapshots();
  DirectorySnapshots(const DirectorySnapshots&) = delete;
  DirectorySnapshots& operator=(const DirectorySnapshots&) = delete;

  // The snapshot of the directory open as |directory|, reached as |path| with
  // keys expected below |key_prefix|, when nothing can have changed in it
  // since it was taken; null otherwise.
  std::shared_ptr<const Snapshot> Find(int directory, const std::string& path,
                                       const std::string& key_prefix);
  // Starts watching the directory open as |directory|, reached as |path|
  // with keys below |key_prefix|, before a scan reads it; an invalid ticket
  // when it cannot be watched, and for the first k_unwatched_scans scans of
  // it. Closing an inotify descriptor that holds watches waits in the
  // kernel for every mark's release (5 to 20 ms, at the latest when the
  // process exits): a program that looks a few times (a one-shot openssl
  // s_client through the provider looks up -cert, -key and the key's
  // certificate when it opens the key) would wait longer for its exit than
  // it works with the library.
  Ticket Begin(int directory, const std::string& path, const std::string& key_prefix);
  static constexpr unsigned k_unwatched_scans = 3;
  // Keeps the snapshot of a complete scan started with |ticket|, unless a
  // change was reported since.
  void Keep(const Ticket& ticket, int directory, const std::string& path,
            const std::string& key_prefix, std::shared_ptr<const Snapshot> snapshot);
  // Forgets everything and stops watching (the library's end).
  void Clear();

  // For tests: how many snapshots are kept, and whether watching works here.
  std::size_t Size() const;

 private:
  struct Kept {
    int watch = -1;
    std::uint64_t reports = 0;
    dev_t device = 0;
    ino_t inode = 0;
    std::shared_ptr<const Snapshot> snapshot;
  };

  // Under the lock: the instance of this process, made when missing.
  bool Ready();
  // Under the lock: takes every pending report.
  void Drain();
  void CloseLocked();

  mutable std::mutex mutex_;
  int notify_ = -1;
  pid_t owner_ = 0;
  std::uint64_t counter_ = 0;
  // Per watch, the counter's value at its last report (or its start).
  std::unordered_map<int, std::uint64_t> reports_;
  // Per directory path and key prefix.
  std::unordered_map<std::string, Kept> kept_;
  // Per directory path and key prefix, the scans made without a watch.
  std::unordered_map<std::string, unsigned> unwatched_;
};

}  // namespace quorvant::shared::x509
