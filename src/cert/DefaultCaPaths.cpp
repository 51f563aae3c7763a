#include "cert/DefaultCaPaths.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "base/OpenSslPtr.h"
#include "base/SafeCallbacksWrapper.h"
#include "cert/CaDirectoryLookup.h"
#include "cert/X509StoreBatch.h"
#include "x509auth/RegularFile.h"

namespace quorvant::shared::x509 {

namespace {

using X509CrlPtr = std::unique_ptr<X509_CRL, OpenSslDeleter<X509_CRL, X509_CRL_free>>;

// What identifies one version of the CA file; a change of any part reloads.
struct FileIdentity {
  std::string path;
  bool exists = false;
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  long long modified_ns = 0;

  bool operator==(const FileIdentity& other) const {
    return std::tie(path, exists, device, inode, size, modified_ns) ==
           std::tie(other.path, other.exists, other.device, other.inode, other.size,
                    other.modified_ns);
  }
};

// The file OpenSSL's default file lookup reads: the environment's override,
// else the built-in default. Like OpenSSL's own lookup, a set-user-ID host
// takes no override from its caller.
FileIdentity CurrentCaFile() {
  FileIdentity identity;
  const char* from_environment = secure_getenv(X509_get_default_cert_file_env());
  identity.path = from_environment != nullptr ? from_environment : X509_get_default_cert_file();
  struct stat status {};
  if (stat(identity.path.c_str(), &status) == 0) {
    identity.exists = true;
    identity.device = status.st_dev;
    identity.inode = status.st_ino;
    identity.size = status.st_size;
    identity.modified_ns =
        static_cast<long long>(status.st_mtim.tv_sec) * 1000000000LL + status.st_mtim.tv_nsec;
  }
  return identity;
}

struct CaFileCache {
  std::mutex mutex;
  bool loaded = false;
  FileIdentity identity;
  std::vector<X509Ptr> certs;
  std::vector<X509CrlPtr> crls;
};

CaFileCache& Cache() {
  static CaFileCache cache;
  return cache;
}

void FreeInfos(STACK_OF(X509_INFO) * infos) { sk_X509_INFO_pop_free(infos, X509_INFO_free); }
using X509InfosPtr =
    std::unique_ptr<STACK_OF(X509_INFO), OpenSslDeleter<STACK_OF(X509_INFO), FreeInfos>>;

// Parses the CA file as OpenSSL's default file lookup does (every PEM
// certificate and CRL in it, no password), into a scratch store that drops
// duplicates, and keeps a reference to everything it loaded. The file is
// opened without blocking and checked on the descriptor first: a FIFO or a
// device named by SSL_CERT_FILE adds nothing, and a file too large is named.
void Reload(CaFileCache& cache, const FileIdentity& identity) {
  cache.certs.clear();
  cache.crls.clear();
  cache.identity = identity;
  cache.loaded = true;
  x509auth_common::RegularFile file = x509auth_common::RegularFile::Open(identity.path);
  std::vector<unsigned char> bytes;
  if (!file.IsOpen() || !file.ReadAll(bytes) || bytes.empty()) {
    if (file.WhyRefused() == x509auth_common::RegularFile::Refusal::k_too_large)
      SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Warning, "Skipping CA file [%s]: %s",
                                identity.path.c_str(), file.Reason().c_str());
    return;
  }
  X509StorePtr scratch(X509_STORE_new());
  BioPtr bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
  if (!scratch || !bio) return;
  const X509InfosPtr infos(
      PEM_X509_INFO_read_bio(bio.get(), nullptr, nullptr, const_cast<char*>("")));
  if (!infos) return;
  for (int i = 0; i < sk_X509_INFO_num(infos.get()); ++i) {
    const X509_INFO* info = sk_X509_INFO_value(infos.get(), i);
    if (info->x509 != nullptr) X509_STORE_add_cert(scratch.get(), info->x509);
    if (info->crl != nullptr) X509_STORE_add_crl(scratch.get(), info->crl);
  }
  const STACK_OF(X509_OBJECT)* objects = X509_STORE_get0_objects(scratch.get());
  for (int i = 0; i < sk_X509_OBJECT_num(objects); ++i) {
    X509_OBJECT* object = sk_X509_OBJECT_value(objects, i);
    if (X509* cert = X509_OBJECT_get0_X509(object)) {
      X509_up_ref(cert);
      cache.certs.emplace_back(cert);
    } else if (X509_CRL* crl = X509_OBJECT_get0_X509_CRL(object)) {
      X509_CRL_up_ref(crl);
      cache.crls.emplace_back(crl);
    }
  }
}

}  // namespace

void DefaultCaPaths::AddCaFile(X509_STORE* store) {
  CaFileCache& cache = Cache();
  std::lock_guard<std::mutex> lock(cache.mutex);
  const FileIdentity identity = CurrentCaFile();
  if (!cache.loaded || !(cache.identity == identity)) Reload(cache, identity);
  {
    X509StoreBatch batch(store);
    for (const X509Ptr& cert : cache.certs) batch.Add(cert.get());
  }
  for (const X509CrlPtr& crl : cache.crls) X509_STORE_add_crl(store, crl.get());
  // OpenSSL's file lookup clears what its load queued; so do we.
  ERR_clear_error();
}

namespace {

void AppendIdentity(const std::string& path, std::string& text) {
  text += path;
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    text += "|-|";
    return;
  }
  for (const long long value :
       {static_cast<long long>(status.st_dev), static_cast<long long>(status.st_ino),
        static_cast<long long>(status.st_size), static_cast<long long>(status.st_mtim.tv_sec),
        static_cast<long long>(status.st_mtim.tv_nsec),
        static_cast<long long>(status.st_ctim.tv_sec),
        static_cast<long long>(status.st_ctim.tv_nsec)}) {
    text += '|';
    text += std::to_string(value);
  }
  text += '|';
}

}  // namespace

std::string DefaultCaPaths::Fingerprint() {
  std::string text;
  const char* file = secure_getenv(X509_get_default_cert_file_env());
  AppendIdentity(file != nullptr ? file : X509_get_default_cert_file(), text);
  const char* directory = secure_getenv(X509_get_default_cert_dir_env());
  AppendIdentity(directory != nullptr ? directory : X509_get_default_cert_dir(), text);
  return text;
}

int DefaultCaPaths::SetOn(X509_STORE* store) {
  // The lookups of X509_STORE_set_default_paths after its file lookup, in
  // the same order; the file's contents come with AddCaFile.
  X509_LOOKUP* directory = X509_STORE_add_lookup(store, X509_LOOKUP_hash_dir());
  if (directory == nullptr) return 0;
  X509_LOOKUP_add_dir(directory, nullptr, X509_FILETYPE_DEFAULT);
  // The default store URI is the CA directory again: served from a listing
  // kept for the process instead of OpenSSL's, which lists the directory at
  // every lookup. Anything else (a list, a file) goes to OpenSSL's lookup.
  const char* from_environment = secure_getenv(X509_get_default_cert_dir_env());
  const std::string uri_path =
      from_environment != nullptr ? from_environment : X509_get_default_cert_dir();
  struct stat status {};
  if (::stat(uri_path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
    if (!CaDirectoryLookup::AddTo(store, uri_path)) return 0;
  } else {
    X509_LOOKUP* uri = X509_STORE_add_lookup(store, X509_LOOKUP_store());
    if (uri == nullptr) return 0;
    X509_LOOKUP_add_store(uri, nullptr);
  }
  // OpenSSL clears what the loads queued; so do we.
  ERR_clear_error();
  return 1;
}

}  // namespace quorvant::shared::x509
