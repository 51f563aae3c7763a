#include "files/CertificateFileCache.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <vector>

#include "files/CertificateFiles.h"

namespace quorvant::shared::x509 {

namespace {

constexpr long long k_ns_per_second = 1000000000LL;

long long Nanoseconds(const timespec& time) {
  return static_cast<long long>(time.tv_sec) * k_ns_per_second + time.tv_nsec;
}

X509Ptr AnotherReference(const X509Ptr& cert) {
  if (!cert) return X509Ptr();
  X509_up_ref(cert.get());
  return X509Ptr(cert.get());
}

}  // namespace

CertificateFileCache::CertificateFileCache(std::size_t capacity)
    : capacity_(std::max<std::size_t>(capacity, 2)) {}

CertificateFileCache::~CertificateFileCache() = default;

CertificateFileCache& CertificateFileCache::GetInstance() {
  static CertificateFileCache cache;
  return cache;
}

namespace {

// The record for a certificate just read. Its thumbprint is taken now, once;
// anything OpenSSL queues while taking it is dropped, and a thumbprint that
// cannot be taken is left for the lookup to try again as it always did.
std::shared_ptr<const CertificateFile> MakeRecord(X509Ptr cert, const std::string& cert_path,
                                                  const std::string& key_path) {
  auto file = std::make_shared<CertificateFile>();
  ERR_set_mark();
  file->has_thumbprint = GetThumbprintForX509Cert(cert.get(), &file->thumbprint);
  ERR_pop_to_mark();
  file->x509 = std::move(cert);
  file->cert_path = cert_path;
  file->key_path = key_path;
  return file;
}

timespec Timespec(const statx_timestamp& time) {
  timespec converted{};
  converted.tv_sec = static_cast<time_t>(time.tv_sec);
  converted.tv_nsec = static_cast<long>(time.tv_nsec);
  return converted;
}

// The file's status, links followed, as stat gives it, and the mount it is
// on where the kernel tells. Where statx itself is unavailable (an old
// kernel, a filter that refuses it) fstatat gives all but the mount.
bool TakeStatus(int directory, const char* name, CertificateFileCache::Facts* facts,
                FileIdentity* identity) {
  struct statx status {};
  if (statx(directory, name, AT_STATX_SYNC_AS_STAT, STATX_BASIC_STATS | STATX_MNT_ID, &status) ==
      0) {
    identity->device = makedev(status.stx_dev_major, status.stx_dev_minor);
    identity->inode = status.stx_ino;
    identity->size = static_cast<off_t>(status.stx_size);
    identity->modified = Timespec(status.stx_mtime);
    identity->changed = Timespec(status.stx_ctime);
    facts->links = status.stx_nlink;
    facts->mount_known = (status.stx_mask & STATX_MNT_ID) != 0;
    facts->mount_id = status.stx_mnt_id;
    return true;
  }
  if (errno != ENOSYS && errno != EPERM) return false;
  struct stat fallback {};
  if (fstatat(directory, name, &fallback, 0) != 0) return false;
  *identity = FileIdentity::Of(fallback);
  facts->links = fallback.st_nlink;
  return true;
}

}  // namespace

std::shared_ptr<const CertificateFile> CertificateFileCache::Read(int directory, const char* name,
                                                                  const std::string& cert_path,
                                                                  const std::string& key_path,
                                                                  Facts* facts) {
  Facts ignored;
  if (facts == nullptr) facts = &ignored;
  *facts = Facts();
  FileIdentity identity;
  // What cannot be identified is read as it is, and not kept. Relative to
  // the open directory the lookup costs less than walking the whole path.
  if (!TakeStatus(directory, name, facts, &identity)) {
    X509Ptr cert = ReadX509FromDerOrPemFile(cert_path, &facts->refusal, &facts->reason);
    if (!cert) return nullptr;
    return MakeRecord(std::move(cert), cert_path, key_path);
  }
  facts->identified = true;
  X509Ptr kept;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = entries_.find(cert_path);
    if (found != entries_.end()) {
      Entry& entry = found->second;
      if (entry.identity == identity) {
        // Only settled files are kept.
        facts->settled = true;
        entry.last_used = ++clock_;
        ++hits_;
        if (!entry.file || entry.file->key_path.native() == key_path) return entry.file;
        // The same file seen with another key path: its certificate is
        // still good, only the record is made again.
        kept = AnotherReference(entry.file->x509);
      } else {
        entries_.erase(found);
      }
    }
  }
  if (kept) return MakeRecord(std::move(kept), cert_path, key_path);
  // Read outside the lock; the identity taken before the read can only be
  // older than the contents, so a later change is still noticed.
  errno = 0;
  X509Ptr cert = ReadX509FromDerOrPemFile(cert_path, &facts->refusal, &facts->reason);
  // A file that could not be opened for want of descriptors or memory says
  // nothing about its contents: not kept, and the caller still sees errno.
  const int read_errno = errno;
  if (!cert && (read_errno == EMFILE || read_errno == ENFILE || read_errno == ENOMEM))
    return nullptr;
  // What was opened was not the file identified (a FIFO or a device renamed
  // in between), or is too large to read: nothing is known of its contents.
  using Refusal = x509auth_common::RegularFile::Refusal;
  if (facts->refusal == Refusal::k_not_regular || facts->refusal == Refusal::k_too_large) {
    errno = read_errno;
    return nullptr;
  }
  std::shared_ptr<const CertificateFile> file =
      cert ? MakeRecord(std::move(cert), cert_path, key_path) : nullptr;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const long long settled = Nanoseconds(now) - k_ns_per_second;
  if (Nanoseconds(identity.modified) < settled && Nanoseconds(identity.changed) < settled) {
    facts->settled = true;
    std::lock_guard<std::mutex> lock(mutex_);
    if (entries_.size() >= capacity_) EvictOldHalf();
    Entry& entry = entries_[cert_path];
    entry.identity = identity;
    entry.file = file;
    entry.last_used = ++clock_;
  }
  errno = read_errno;
  return file;
}

X509Ptr CertificateFileCache::Read(const std::filesystem::path& path) {
  const std::shared_ptr<const CertificateFile> file =
      Read(AT_FDCWD, path.c_str(), path.native(), std::string());
  if (!file) return X509Ptr();
  return AnotherReference(file->x509);
}

void CertificateFileCache::EvictOldHalf() {
  std::vector<std::uint64_t> uses;
  uses.reserve(entries_.size());
  for (const auto& [key, entry] : entries_) uses.push_back(entry.last_used);
  auto middle = uses.begin() + static_cast<std::ptrdiff_t>(uses.size() / 2);
  std::nth_element(uses.begin(), middle, uses.end());
  const std::uint64_t cutoff = *middle;
  for (auto it = entries_.begin(); it != entries_.end();) {
    if (it->second.last_used < cutoff)
      it = entries_.erase(it);
    else
      ++it;
  }
}

std::size_t CertificateFileCache::Size() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return entries_.size();
}

std::uint64_t CertificateFileCache::Hits() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return hits_;
}

void CertificateFileCache::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.clear();
}

}  // namespace quorvant::shared::x509
