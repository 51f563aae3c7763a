#include "files/PlainKeyCache.h"

#include <openssl/evp.h>

#include <algorithm>
#include <vector>

#include "base/NeverDestroyed.h"
#include "base/WipeOnExit.h"
#include "files/PrivateKeyFiles.h"
#include "x509auth/RegularFile.h"

namespace quorvant::shared::x509 {

namespace {

// The file's identity and SHA-256 of its bytes, as it is now; false when it
// cannot be read.
bool Look(const std::filesystem::path& path, FileIdentity& identity,
          std::array<unsigned char, 32>& digest) {
  x509auth_common::RegularFile file = x509auth_common::RegularFile::Open(path.native());
  std::vector<unsigned char> bytes;
  const WipeOnExit wipe(bytes);
  if (!file.IsOpen() || !file.ReadAll(bytes)) return false;
  identity = FileIdentity::Of(file.Status());
  return EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, EVP_sha256(), nullptr) == 1;
}

EvpPkeyPtr Share(EVP_PKEY* key) {
  EVP_PKEY_up_ref(key);
  return EvpPkeyPtr(key);
}

}  // namespace

PlainKeyCache& PlainKeyCache::GetInstance() {
  static NeverDestroyed<PlainKeyCache> instance;
  return instance.get();
}

EvpPkeyPtr PlainKeyCache::Get(X509* cert, const std::filesystem::path& cert_path,
                              const std::filesystem::path& key_path) {
  struct stat status {};
  const bool exists = ::stat(key_path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = kept_.find(key_path.native());
    if (found != kept_.end()) {
      Kept& kept = found->second;
      const FileIdentity now = FileIdentity::Of(status);
      bool same = exists && now == kept.identity && X509_cmp(cert, kept.cert.get()) == 0;
      if (same && !now.Settled()) {
        FileIdentity looked;
        std::array<unsigned char, 32> digest{};
        same = Look(key_path, looked, digest) && looked == kept.identity && digest == kept.digest;
      }
      if (same) {
        kept.last_use = ++uses_;
        return Share(kept.key.get());
      }
      kept_.erase(found);
    }
  }
  // Read as every request reads it, with its lines; kept only when it asked
  // for no password and the file was the same before and after the read.
  FileIdentity before;
  std::array<unsigned char, 32> digest{};
  const bool looked = exists && Look(key_path, before, digest);
  const std::uint64_t passwords = PasswordCallbacksSoFar();
  EvpPkeyPtr key = GetPrivateKeyForX509Cert(cert, cert_path, key_path);
  if (!key || !looked || PasswordCallbacksSoFar() != passwords) return key;
  FileIdentity after;
  std::array<unsigned char, 32> digest_after{};
  if (!Look(key_path, after, digest_after) || after != before || digest_after != digest) return key;
  std::lock_guard<std::mutex> lock(mutex_);
  if (kept_.size() >= k_max_keys) {
    const auto oldest = std::min_element(
        kept_.begin(), kept_.end(),
        [](const auto& a, const auto& b) { return a.second.last_use < b.second.last_use; });
    kept_.erase(oldest);
  }
  Kept& kept = kept_[key_path.native()];
  kept.identity = before;
  kept.digest = digest;
  X509_up_ref(cert);
  kept.cert.reset(cert);
  kept.key = Share(key.get());
  kept.last_use = ++uses_;
  return key;
}

void PlainKeyCache::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::map<std::string, Kept>().swap(kept_);
}

std::size_t PlainKeyCache::Size() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return kept_.size();
}

}  // namespace quorvant::shared::x509
