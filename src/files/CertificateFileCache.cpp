#include "files/CertificateFileCache.h"

#include <sys/stat.h>

#include <cerrno>

#include <algorithm>
#include <ctime>
#include <tuple>
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

bool CertificateFileCache::Identity::operator==(const Identity& other) const {
  return std::tie(device, inode, size, modified_ns, changed_ns) ==
         std::tie(other.device, other.inode, other.size, other.modified_ns, other.changed_ns);
}

CertificateFileCache::CertificateFileCache(std::size_t capacity)
    : capacity_(std::max<std::size_t>(capacity, 2)) {}

CertificateFileCache::~CertificateFileCache() = default;

CertificateFileCache& CertificateFileCache::Instance() {
  static CertificateFileCache cache;
  return cache;
}

X509Ptr CertificateFileCache::Read(const std::filesystem::path& path) {
  struct stat status {};
  // What cannot be identified is read as it is, and not kept.
  if (stat(path.c_str(), &status) != 0) return ReadX509FromDerOrPemFile(path);
  Identity identity;
  identity.device = status.st_dev;
  identity.inode = status.st_ino;
  identity.size = status.st_size;
  identity.modified_ns = Nanoseconds(status.st_mtim);
  identity.changed_ns = Nanoseconds(status.st_ctim);
  const std::string key = path.string();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = entries_.find(key);
    if (found != entries_.end()) {
      if (found->second.identity == identity) {
        found->second.last_used = ++clock_;
        ++hits_;
        return AnotherReference(found->second.cert);
      }
      entries_.erase(found);
    }
  }
  // Read outside the lock; the identity taken before the read can only be
  // older than the contents, so a later change is still noticed.
  errno = 0;
  X509Ptr cert = ReadX509FromDerOrPemFile(path);
  // A file that could not be opened for want of descriptors or memory says
  // nothing about its contents: not kept, and the caller still sees errno.
  const int read_errno = errno;
  if (!cert && (read_errno == EMFILE || read_errno == ENFILE || read_errno == ENOMEM)) return cert;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const long long settled = Nanoseconds(now) - k_ns_per_second;
  if (identity.modified_ns >= settled || identity.changed_ns >= settled) return cert;

  std::lock_guard<std::mutex> lock(mutex_);
  if (entries_.size() >= capacity_) EvictOldHalf();
  Entry& entry = entries_[key];
  entry.identity = identity;
  entry.cert = AnotherReference(cert);
  entry.last_used = ++clock_;
  errno = read_errno;
  return cert;
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
