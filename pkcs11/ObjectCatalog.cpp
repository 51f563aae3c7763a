#include "ObjectCatalog.h"

#include <cstring>
#include <set>

#include "CertificateObjects.h"
#include "Log.h"
#include "x509_auth.h"

namespace x509auth_pkcs11 {
namespace {

// Frees what the library handed out when the scope ends.
class LibraryFree {
 public:
  explicit LibraryFree(const void* p) : p_(p) {}
  ~LibraryFree() {
    if (p_ != nullptr) X509_Auth_Free(p_);
  }
  LibraryFree(const LibraryFree&) = delete;
  LibraryFree& operator=(const LibraryFree&) = delete;

 private:
  const void* p_;
};

}  // namespace

CK_OBJECT_HANDLE ObjectCatalog::HandleFor(const Thumbprint& thumbprint, ObjectKind kind) {
  const auto key = std::make_pair(thumbprint, static_cast<int>(kind));
  const auto found = handles_.find(key);
  if (found != handles_.end()) return found->second;
  const CK_OBJECT_HANDLE handle = next_handle_++;
  handles_.emplace(key, handle);
  return handle;
}

bool ObjectCatalog::KeyFilesUnchanged() {
  for (const auto& [path, encrypted] : probed_)
    if (probe_.IsEncrypted(path) != encrypted) return false;
  return true;
}

bool ObjectCatalog::Refresh(bool token_certificates) {
  // Nothing the latest listing gave can have changed: its objects stand.
  uint64_t version = 0;
  const bool versioned = X509_Auth_GetListingVersion(&version) == X509_Auth_ResultCode_Success;
  if (versioned && listed_version_ != 0 && version == listed_version_ &&
      token_certificates == listed_tokens_ && KeyFilesUnchanged()) {
    LogLine(LogLevel::k_debug, "listing unchanged: %zu object(s)", current_.size());
    return true;
  }
  listed_version_ = 0;
  uint64_t count = 0;
  const X509_Auth_Certificate* certificates = nullptr;
  bool listed = false;
  {
    const x509auth_common::LeftOutCertificates::Watch watch(left_out_);
    listed = X509_Auth_LoadClientCertificates(&count, &certificates);
  }
  if (!listed) {
    LogLine(LogLevel::k_error, "the library could not list the certificates");
    return false;
  }
  LibraryFree free_certificates(certificates);

  std::vector<const X509_Auth_Certificate*> offered;
  bool needs_login = false;
  std::vector<Thumbprint> files_asking, tokens_asking;
  std::vector<std::string> key_paths;
  std::vector<std::pair<std::string, bool>> probed;
  for (uint64_t i = 0; i < count; ++i) {
    const X509_Auth_Certificate& record = certificates[i];
    if (record.key_path != nullptr && *record.key_path != '\0')
      key_paths.push_back(record.key_path);
    if (record.thumbprint == nullptr || record.encoded == nullptr) continue;
    if (record.smart_card != 0 && !token_certificates) continue;
    offered.push_back(&record);
    Thumbprint thumbprint{};
    std::memcpy(thumbprint.data(), record.thumbprint, thumbprint.size());
    if (record.smart_card != 0) {
      needs_login = true;
      tokens_asking.push_back(thumbprint);
    } else if (record.cert_type == X509_Auth_CertificateType_FileBased &&
               record.key_path != nullptr && *record.key_path != '\0') {
      const bool encrypted = probe_.IsEncrypted(record.key_path);
      probed.emplace_back(record.key_path, encrypted);
      if (encrypted) {
        needs_login = true;
        files_asking.push_back(thumbprint);
      }
    }
  }

  for (const std::string& line : left_out_.Report(key_paths))
    LogLine(LogLevel::k_error, "%s", line.c_str());

  std::map<CK_OBJECT_HANDLE, std::shared_ptr<const TokenObject>> current;
  std::set<Thumbprint> seen;
  std::vector<std::pair<Thumbprint, Bytes>> authorities;
  for (const X509_Auth_Certificate* record : offered) {
    Thumbprint thumbprint{};
    std::memcpy(thumbprint.data(), record->thumbprint, thumbprint.size());
    if (!seen.insert(thumbprint).second) continue;
    Built& built = built_[thumbprint];
    if (built.objects.empty() || built.keys_private != needs_login) {
      const Bytes der(record->encoded, record->encoded + record->encoded_length);
      built.objects = CertificateObjects::Client(thumbprint, der, needs_login);
      built.keys_private = needs_login;
    }
    for (const auto& object : built.objects)
      current[HandleFor(thumbprint, object->Kind())] = object;

    // The chain starts with the certificate itself, which the CA store does
    // not hold: asking for it would only log a failed lookup.
    X509_Auth_Certificate chain_only = *record;
    if (chain_only.ca_chain_count > 0 && chain_only.ca_chain != nullptr &&
        std::memcmp(chain_only.ca_chain[0], record->thumbprint, thumbprint.size()) == 0) {
      ++chain_only.ca_chain;
      --chain_only.ca_chain_count;
    }
    // CA certificates already made are taken from what is kept (the store
    // the library builds chains with only grows until C_Finalize); the
    // library is asked only for a chain with one not made yet.
    bool all_known = chain_only.ca_chain != nullptr || chain_only.ca_chain_count == 0;
    for (uint64_t j = 0; all_known && j < chain_only.ca_chain_count; ++j) {
      Thumbprint ca{};
      std::memcpy(ca.data(), chain_only.ca_chain[j], ca.size());
      all_known = authorities_.count(ca) != 0;
      if (all_known) authorities.emplace_back(ca, Bytes());
    }
    if (all_known) continue;
    uint64_t ca_count = 0;
    X509_Auth_ASN_1* cas = nullptr;
    if (chain_only.ca_chain_count > 0 &&
        X509_Auth_GetChainedCAsForCertificate(&chain_only, &ca_count, &cas) == 0) {
      LibraryFree free_cas(cas);
      for (uint64_t j = 0; j < ca_count; ++j)
        if (cas[j].data != nullptr)
          authorities.emplace_back(Thumbprint{}, Bytes(cas[j].data, cas[j].data + cas[j].length));
    }
  }
  for (auto& [thumbprint, der] : authorities) {
    if (!der.empty()) thumbprint = CertificateObjects::ThumbprintOf(der);
    // A chain lists the certificate itself too; it is already a client object.
    if (!seen.insert(thumbprint).second) continue;
    auto& authority = authorities_[thumbprint];
    if (authority == nullptr) authority = CertificateObjects::Authority(thumbprint, der);
    if (authority != nullptr) current[HandleFor(thumbprint, ObjectKind::k_authority)] = authority;
  }
  // What is no longer offered is dropped from the kept objects, not from the
  // handles: those are never reused.
  for (auto it = built_.begin(); it != built_.end();)
    it = seen.count(it->first) != 0 ? std::next(it) : built_.erase(it);
  for (auto it = authorities_.begin(); it != authorities_.end();)
    it = seen.count(it->first) != 0 ? std::next(it) : authorities_.erase(it);

  current_ = std::move(current);
  by_id_.clear();
  for (const auto& [handle, object] : current_)
    if (const Bytes* id = object->Find(CKA_ID)) by_id_[*id].push_back(handle);
  needs_login_ = needs_login;
  files_asking_ = std::move(files_asking);
  tokens_asking_ = std::move(tokens_asking);
  probed_ = std::move(probed);
  listed_version_ = versioned ? version : 0;
  listed_tokens_ = token_certificates;
  LogLine(LogLevel::k_debug, "listing: %zu certificate(s), %zu object(s)", offered.size(),
          current_.size());
  return true;
}

std::vector<CK_OBJECT_HANDLE> ObjectCatalog::Find(const CK_ATTRIBUTE* templ, CK_ULONG count,
                                                  bool show_private) const {
  std::vector<CK_OBJECT_HANDLE> found;
  const auto consider = [&](CK_OBJECT_HANDLE handle, const TokenObject& object) {
    if (!show_private && object.BoolAttribute(CKA_PRIVATE)) return;
    if (object.Matches(templ, count)) found.push_back(handle);
  };
  // A search by CKA_ID (what a program does once it knows the certificate)
  // looks at the few objects with that id only, in handle order as well.
  for (CK_ULONG i = 0; i < count; ++i) {
    if (templ[i].type != CKA_ID || templ[i].pValue == nullptr) continue;
    const auto* bytes = static_cast<const unsigned char*>(templ[i].pValue);
    const auto same_id = by_id_.find(Bytes(bytes, bytes + templ[i].ulValueLen));
    if (same_id == by_id_.end()) return found;
    for (const CK_OBJECT_HANDLE handle : same_id->second) consider(handle, *current_.at(handle));
    return found;
  }
  for (const auto& [handle, object] : current_) consider(handle, *object);
  return found;
}

std::shared_ptr<const TokenObject> ObjectCatalog::Get(CK_OBJECT_HANDLE handle) const {
  const auto found = current_.find(handle);
  return found == current_.end() ? nullptr : found->second;
}

void ObjectCatalog::Clear() {
  built_.clear();
  authorities_.clear();
  current_.clear();
  by_id_.clear();
  needs_login_ = false;
  files_asking_.clear();
  tokens_asking_.clear();
  probed_.clear();
  listed_version_ = 0;
  left_out_ = x509auth_common::LeftOutCertificates();
}

}  // namespace x509auth_pkcs11
