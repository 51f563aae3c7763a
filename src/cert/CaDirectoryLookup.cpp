#include "cert/CaDirectoryLookup.h"

#include <dirent.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <cctype>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/NeverDestroyed.h"
#include "base/OpenSslPtr.h"
#include "files/FileIdentity.h"
#include "x509auth/RegularFile.h"

namespace quorvant::shared::x509 {

namespace {

// A file or directory as it was; one changed too recently for its times
// to vouch for it is never taken as unchanged.
struct Identity {
  FileIdentity file;
  bool settled = false;

  static Identity Of(const struct stat& status) {
    const FileIdentity file = FileIdentity::Of(status);
    return Identity{file, file.Settled()};
  }
  bool operator==(const Identity& other) const {
    return settled && other.settled && file == other.file;
  }
};

// One hashed file's certificates and CRLs, as it was when parsed.
struct ParsedFile {
  Identity identity;
  std::vector<X509Ptr> certs;
  std::vector<X509CrlPtr> crls;
};

// One directory: its hashed entries by lower-case subject hash, and the
// files parsed so far by name.
struct Directory {
  bool listed = false;
  Identity identity;
  std::map<std::string, std::vector<std::string>> names_by_hash;
  std::map<std::string, std::shared_ptr<const ParsedFile>> parsed;
};

struct Cache {
  std::mutex mutex;
  std::map<std::string, Directory> directories;
};

Cache& TheCache() {
  static NeverDestroyed<Cache> cache;
  return cache.get();
}

// "<8 hex digits>.<digits>" or "<8 hex digits>.r<digits>": the names
// OpenSSL's store lookup reads. Gives the lower-case hash, or "".
std::string HashOfName(const std::string& name) {
  if (name.size() < 10 || name[8] != '.') return "";
  std::string hash;
  for (std::size_t i = 0; i < 8; ++i) {
    const unsigned char c = static_cast<unsigned char>(name[i]);
    if (!std::isxdigit(c)) return "";
    hash += static_cast<char>(std::tolower(c));
  }
  std::size_t at = 9;
  if (name[at] == 'r') ++at;
  if (at >= name.size()) return "";
  for (; at < name.size(); ++at)
    if (!std::isdigit(static_cast<unsigned char>(name[at]))) return "";
  return hash;
}

void List(Directory& directory, const std::string& path, const Identity& identity) {
  directory.names_by_hash.clear();
  directory.parsed.clear();
  directory.identity = identity;
  directory.listed = true;
  DIR* stream = ::opendir(path.c_str());
  if (stream == nullptr) return;
  while (const dirent* entry = ::readdir(stream)) {
    const std::string name = entry->d_name;
    const std::string hash = HashOfName(name);
    if (!hash.empty()) directory.names_by_hash[hash].push_back(name);
  }
  ::closedir(stream);
}

void FreeInfos(STACK_OF(X509_INFO) * infos) { sk_X509_INFO_pop_free(infos, X509_INFO_free); }
using X509InfosPtr =
    std::unique_ptr<STACK_OF(X509_INFO), OpenSslDeleter<STACK_OF(X509_INFO), FreeInfos>>;

// Every PEM certificate and CRL of the file, else one DER certificate or
// CRL, as OpenSSL's file loader decodes them.
std::shared_ptr<const ParsedFile> Parse(const std::string& path, const Identity& identity) {
  auto parsed = std::make_shared<ParsedFile>();
  parsed->identity = identity;
  std::vector<unsigned char> bytes;
  std::string reason;
  if (!x509auth_common::RegularFile::ReadFile(path, bytes, reason) || bytes.empty()) return parsed;
  BioPtr bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
  const X509InfosPtr infos(
      bio ? PEM_X509_INFO_read_bio(bio.get(), nullptr, nullptr, const_cast<char*>("")) : nullptr);
  for (int i = 0; infos && i < sk_X509_INFO_num(infos.get()); ++i) {
    const X509_INFO* info = sk_X509_INFO_value(infos.get(), i);
    if (info->x509 != nullptr) {
      X509_up_ref(info->x509);
      parsed->certs.emplace_back(info->x509);
    }
    if (info->crl != nullptr) {
      X509_CRL_up_ref(info->crl);
      parsed->crls.emplace_back(info->crl);
    }
  }
  if (parsed->certs.empty() && parsed->crls.empty()) {
    const unsigned char* cursor = bytes.data();
    if (X509* cert = d2i_X509(nullptr, &cursor, static_cast<long>(bytes.size()))) {
      parsed->certs.emplace_back(cert);
    } else {
      cursor = bytes.data();
      if (X509_CRL* crl = d2i_X509_CRL(nullptr, &cursor, static_cast<long>(bytes.size())))
        parsed->crls.emplace_back(crl);
    }
  }
  ERR_clear_error();
  return parsed;
}

// The files of |hash| in |path| as they are now.
std::vector<std::shared_ptr<const ParsedFile>> FilesFor(const std::string& path,
                                                        const std::string& hash) {
  std::vector<std::shared_ptr<const ParsedFile>> files;
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return files;
  Cache& cache = TheCache();
  std::lock_guard<std::mutex> lock(cache.mutex);
  Directory& directory = cache.directories[path];
  const Identity identity = Identity::Of(status);
  if (!directory.listed || !(directory.identity == identity)) List(directory, path, identity);
  const auto found = directory.names_by_hash.find(hash);
  if (found == directory.names_by_hash.end()) return files;
  for (const std::string& name : found->second) {
    const std::string file_path = path + "/" + name;
    struct stat file_status {};
    if (::stat(file_path.c_str(), &file_status) != 0) continue;
    const Identity file_identity = Identity::Of(file_status);
    std::shared_ptr<const ParsedFile>& kept = directory.parsed[name];
    if (!kept || !(kept->identity == file_identity)) kept = Parse(file_path, file_identity);
    files.push_back(kept);
  }
  return files;
}

int GetBySubject(X509_LOOKUP* lookup, X509_LOOKUP_TYPE type, const X509_NAME* name,
                 X509_OBJECT* ret) {
  const auto* path = static_cast<const char*>(X509_LOOKUP_get_method_data(lookup));
  X509_STORE* store = X509_LOOKUP_get_store(lookup);
  if (path == nullptr || store == nullptr || (type != X509_LU_X509 && type != X509_LU_CRL))
    return 0;
  int ok = 0;
  const unsigned long hash_value = X509_NAME_hash_ex(name, nullptr, nullptr, &ok);
  if (ok != 1) return 0;
  char hash[16];
  std::snprintf(hash, sizeof hash, "%08lx", hash_value);
  bool added = false;
  for (const std::shared_ptr<const ParsedFile>& file : FilesFor(path, hash)) {
    for (const X509Ptr& cert : file->certs) added |= X509_STORE_add_cert(store, cert.get()) == 1;
    for (const X509CrlPtr& crl : file->crls) added |= X509_STORE_add_crl(store, crl.get()) == 1;
  }
  if (!added) return 0;
  // As OpenSSL's own lookups answer: the store's object, whose reference
  // the caller takes for itself.
  X509_OBJECT* found = X509_OBJECT_retrieve_by_subject(X509_STORE_get0_objects(store), type,
                                                       const_cast<X509_NAME*>(name));
  if (found == nullptr) return 0;
  if (type == X509_LU_X509) {
    X509* cert = X509_OBJECT_get0_X509(found);
    if (X509_OBJECT_set1_X509(ret, cert) != 1) return 0;
    X509_free(cert);
  } else {
    X509_CRL* crl = X509_OBJECT_get0_X509_CRL(found);
    if (X509_OBJECT_set1_X509_CRL(ret, crl) != 1) return 0;
    X509_CRL_free(crl);
  }
  return 1;
}

void FreeMethodData(X509_LOOKUP* lookup) {
  OPENSSL_free(X509_LOOKUP_get_method_data(lookup));
  X509_LOOKUP_set_method_data(lookup, nullptr);
}

// Made at the first use after the library starts and freed when it ends,
// after every store that could hold a lookup of it is gone (the key store
// goes first): a copy of the library inside a provider or module that is
// unloaded afterwards must leave nothing behind. Under the cache's lock.
X509_LOOKUP_METHOD*& MethodSlot() {
  static X509_LOOKUP_METHOD* method = nullptr;
  return method;
}

X509_LOOKUP_METHOD* Method() {
  std::lock_guard<std::mutex> lock(TheCache().mutex);
  X509_LOOKUP_METHOD*& method = MethodSlot();
  if (method != nullptr) return method;
  method = X509_LOOKUP_meth_new("x509auth CA directory");
  if (method != nullptr) {
    X509_LOOKUP_meth_set_get_by_subject(method, GetBySubject);
    X509_LOOKUP_meth_set_free(method, FreeMethodData);
  }
  return method;
}

}  // namespace

bool CaDirectoryLookup::AddTo(X509_STORE* store, const std::string& directory) {
  X509_LOOKUP_METHOD* method = Method();
  if (method == nullptr) return false;
  char* path = OPENSSL_strdup(directory.c_str());
  if (path == nullptr) return false;
  X509_LOOKUP* lookup = X509_STORE_add_lookup(store, method);
  if (lookup == nullptr) {
    OPENSSL_free(path);
    return false;
  }
  // A store given the lookup twice keeps the first one's directory.
  if (X509_LOOKUP_get_method_data(lookup) != nullptr) {
    OPENSSL_free(path);
    return true;
  }
  X509_LOOKUP_set_method_data(lookup, path);
  return true;
}

void CaDirectoryLookup::Clear() {
  Cache& cache = TheCache();
  std::lock_guard<std::mutex> lock(cache.mutex);
  std::map<std::string, Directory>().swap(cache.directories);
  X509_LOOKUP_meth_free(MethodSlot());
  MethodSlot() = nullptr;
}

}  // namespace quorvant::shared::x509
