#include "ObjectCatalog.h"

#include <cstring>
#include <set>

#include "CertificateObjects.h"
#include "Log.h"
#include "x509_auth.h"
#include "x509auth/LibraryOwned.h"

namespace x509auth_pkcs11 {
namespace {

using x509auth_common::LibraryOwned;
using x509auth_common::Receive;

Thumbprint ThumbprintOf(const X509_Auth_Certificate& record) {
  Thumbprint thumbprint{};
  std::memcpy(thumbprint.data(), record.thumbprint, thumbprint.size());
  return thumbprint;
}

bool HasKeyPath(const X509_Auth_Certificate& record) {
  return record.key_path != nullptr && *record.key_path != '\0';
}

// The record with the certificate itself taken off the front of its chain:
// the CA store does not hold it, and asking for it would only log a failed
// lookup.
X509_Auth_Certificate ChainOnly(const X509_Auth_Certificate& record) {
  X509_Auth_Certificate chain_only = record;
  if (chain_only.ca_chain_count > 0 && chain_only.ca_chain != nullptr &&
      std::memcmp(chain_only.ca_chain[0], record.thumbprint, X509_AUTH_THUMBPRINT_LENGTH) == 0) {
    ++chain_only.ca_chain;
    --chain_only.ca_chain_count;
  }
  return chain_only;
}

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
  LibraryOwned<X509_Auth_Certificate> certificates;
  bool listed = false;
  {
    const x509auth_common::LeftOutCertificates::Watch watch(left_out_);
    listed = X509_Auth_LoadClientCertificates(&count, Receive(certificates));
  }
  if (!listed) {
    LogLine(LogLevel::k_error, "the library could not list the certificates");
    return false;
  }
  Listing listing = Sort(certificates.get(), count, token_certificates);
  for (const std::string& line : left_out_.Report(listing.key_paths))
    LogLine(LogLevel::k_error, "%s", line.c_str());
  Build(listing);
  listed_version_ = versioned ? version : 0;
  listed_tokens_ = token_certificates;
  LogLine(LogLevel::k_debug, "listing: %zu certificate(s), %zu object(s)", listing.offered.size(),
          current_.size());
  return true;
}

ObjectCatalog::Listing ObjectCatalog::Sort(const X509_Auth_Certificate* certificates,
                                           uint64_t count, bool token_certificates) {
  Listing listing;
  for (uint64_t i = 0; i < count; ++i) {
    const X509_Auth_Certificate& record = certificates[i];
    if (HasKeyPath(record)) listing.key_paths.push_back(record.key_path);
    if (record.thumbprint == nullptr || record.encoded == nullptr) continue;
    if (record.smart_card != 0 && !token_certificates) continue;
    listing.offered.push_back(&record);
    if (record.smart_card != 0) {
      listing.needs_login = true;
      listing.tokens_asking.push_back(ThumbprintOf(record));
    } else if (record.cert_type == X509_Auth_CertificateType_FileBased && HasKeyPath(record)) {
      const bool encrypted = probe_.IsEncrypted(record.key_path);
      listing.probed.emplace_back(record.key_path, encrypted);
      if (encrypted) {
        listing.needs_login = true;
        listing.files_asking.push_back(ThumbprintOf(record));
      }
    }
  }
  return listing;
}

void ObjectCatalog::Build(Listing& listing) {
  Objects current;
  std::set<Thumbprint> seen;
  std::vector<std::pair<Thumbprint, Bytes>> authorities;
  for (const X509_Auth_Certificate* record : listing.offered) {
    const Thumbprint thumbprint = ThumbprintOf(*record);
    if (!seen.insert(thumbprint).second) continue;
    AddClient(*record, listing.needs_login, current);
    AddChain(*record, authorities);
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
  needs_login_ = listing.needs_login;
  files_asking_ = std::move(listing.files_asking);
  tokens_asking_ = std::move(listing.tokens_asking);
  probed_ = std::move(listing.probed);
}

void ObjectCatalog::AddClient(const X509_Auth_Certificate& record, bool keys_private,
                              Objects& current) {
  const Thumbprint thumbprint = ThumbprintOf(record);
  Built& built = built_[thumbprint];
  if (built.objects.empty() || built.keys_private != keys_private) {
    const Bytes der(record.encoded, record.encoded + record.encoded_length);
    built.objects = CertificateObjects::Client(thumbprint, der, keys_private);
    built.keys_private = keys_private;
  }
  for (const auto& object : built.objects) current[HandleFor(thumbprint, object->Kind())] = object;
}

void ObjectCatalog::AddChain(const X509_Auth_Certificate& record,
                             std::vector<std::pair<Thumbprint, Bytes>>& authorities) const {
  X509_Auth_Certificate chain_only = ChainOnly(record);
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
  if (all_known) return;
  uint64_t ca_count = 0;
  LibraryOwned<X509_Auth_ASN_1> cas;
  if (X509_Auth_GetChainedCAsForCertificate(&chain_only, &ca_count, Receive(cas)) != 0) return;
  for (uint64_t j = 0; j < ca_count; ++j) {
    const X509_Auth_ASN_1& ca = cas.get()[j];
    if (ca.data != nullptr)
      authorities.emplace_back(Thumbprint{}, Bytes(ca.data, ca.data + ca.length));
  }
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
