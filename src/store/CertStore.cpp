#include "store/CertStore.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <system_error>

#include "base/SafeCallbacksWrapper.h"
#include "base/X509Settings.h"
#include "cert/Cert.h"
#include "cert/DefaultCaPaths.h"
#include "cert/X509StoreBatch.h"
#include "files/CertificateFileCache.h"
#include "files/CertificateFiles.h"
#include "files/DirectoryEntries.h"
#include "files/DirectorySnapshots.h"

namespace quorvant::shared::x509 {

namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t k_status_failed = 0xFFFFFFFF;

// The thumbprint as one run of unpadded decimal bytes: the form the log
// readers of this library have always searched for.
std::string DecimalThumbprintText(const Thumbprint& thumbprint) {
  std::string text;
  for (const unsigned char byte : thumbprint) text += std::to_string(static_cast<unsigned>(byte));
  return text;
}

bool ThumbprintMatches(const X509* cert, const Thumbprint& wanted) {
  Thumbprint thumbprint{};
  return GetThumbprintForX509Cert(cert, &thumbprint) && thumbprint == wanted;
}

}  // namespace

CertStore::~CertStore() = default;

CertStore::CertStore(CertStore&& other) noexcept
    : ICertificateStore(std::move(other)),
      x509_store(std::move(other.x509_store)),
      unfilled(std::move(other.unfilled)),
      libp11_context(std::move(other.libp11_context)),
      token_slots(std::move(other.token_slots)),
      smart_card_certs(std::move(other.smart_card_certs)),
      file_certs(std::move(other.file_certs)),
      encoded_certs(std::move(other.encoded_certs)) {
  // Leave the source closed and empty whatever the containers' moves do.
  other.unfilled.Clear();
  other.token_slots.reset();
  other.smart_card_certs.clear();
  other.file_certs.clear();
  other.encoded_certs.clear();
}

CertStore& CertStore::operator=(CertStore&& other) noexcept {
  if (this == &other) return *this;
  // Field order: the old X509_STORE goes before the old context share, and
  // the old token entries (plain pointers) after it, which is safe because
  // nothing dereferences them on the way out.
  // The old store's unfilled certificates go before the store they were
  // meant for; the file records that hold some of them go after it.
  unfilled = std::move(other.unfilled);
  x509_store = std::move(other.x509_store);
  libp11_context = std::move(other.libp11_context);
  token_slots = std::move(other.token_slots);
  smart_card_certs = std::move(other.smart_card_certs);
  file_certs = std::move(other.file_certs);
  encoded_certs = std::move(other.encoded_certs);
  other.unfilled.Clear();
  other.token_slots.reset();
  other.smart_card_certs.clear();
  other.file_certs.clear();
  other.encoded_certs.clear();
  return *this;
}

bool CertStore::IsOpen() const { return x509_store != nullptr; }

X509_STORE* CertStore::X509Store() const {
  Fill();
  return x509_store.get();
}

void CertStore::Fill() const {
  if (unfilled.Empty()) return;
  X509StoreBatch batch(x509_store.get());
  for (X509* cert : unfilled.InOrder()) batch.Add(cert);
  unfilled.Clear();
}

void CertStore::DeferHeld(X509* cert) {
  if (!x509_store || cert == nullptr) return;
  unfilled.AddHeld(cert);
}

void CertStore::DeferOwned(X509* cert) {
  if (!x509_store || cert == nullptr) return;
  X509_up_ref(cert);
  unfilled.AddOwned(X509Ptr(cert));
}

std::uint32_t CertStore::Open(CertStoreType type) {
  SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Warning, "CertStore::Open");
  if (x509_store) return k_status_failed;

  x509_store.reset(X509_STORE_new());
  if (!x509_store) {
    LogWithOpenSslErrors(X509_Auth_LogPriority_Warning, "Failed to create X509 store");
    return 1;
  }
  if (type != k_users_cert_store) {
    SafeCallbacksWrapper::Log(
        X509_Auth_LogPriority_Warning,
        "CertStore::Open ::  NOT ICertificateStore::CertStoreType::k_users_cert_store");
    return 0;
  }
  SafeCallbacksWrapper::Log(
      X509_Auth_LogPriority_Warning,
      "CertStore::Open :: ICertificateStore::CertStoreType::k_users_cert_store");

  // Tokens come first, and a token source that fails ends the opening: the
  // system CAs and the files are then not loaded, although the store is open.
  if (const std::uint32_t status = OpenSmartCardStore(); status != 0) {
    LogWithOpenSslErrors(X509_Auth_LogPriority_Warning,
                         "Failed to open smart card certificate store");
    return status;
  }
  // The CA file's certificates join the store when a chain first needs one.
  if (DefaultCaPaths::SetOn(x509_store.get()) != 1) {
    LogWithOpenSslErrors(X509_Auth_LogPriority_Warning, "Failed to set CA paths");
    return k_status_failed;
  }
  if (const std::uint32_t status = OpenFileStore(); status != 0) {
    // OpenFileStore reports success always; kept as a guard.
    LogWithOpenSslErrors(X509_Auth_LogPriority_Warning, "Failed to open local certificate store");
    return status;
  }
  return 0;
}

std::uint32_t CertStore::OpenFileStore() {
  SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Warning, "CertStore::OpenFileStore");
  const X509Settings& settings = X509Settings::GetInstance();
  for (const fs::path& base : settings.CertificateDirectories()) LoadFileStoreCertsFromPath(base);

  // A set-user-ID host takes no directory from its caller's environment.
  const char* home = secure_getenv("HOME");
  if (home == nullptr) {
    // Not a failure: the directories loaded so far stay.
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                              "Unable to read HOME environment variable");
    return 0;
  }
  for (const fs::path& relative : settings.HomeCertificateDirectories())
    LoadFileStoreCertsFromPath(fs::path(home) / relative);
  return 0;
}

void CertStore::LoadFileStoreCertsFromPath(const fs::path& base) {
  const fs::path certs_directory = base / "certs";
  // Key paths are built in one string: composing paths per file cost more
  // than the rest of the scan of an unchanged file.
  std::string key_file = (base / "keys").native();
  key_file += '/';
  const std::size_t key_prefix = key_file.size();
  try {
    if (!fs::is_directory(fs::status(certs_directory))) {
      SafeCallbacksWrapper::Log(
          X509_Auth_LogPriority_Warning,
          "Certificates directory [%s] does not exist so no certificates can be loaded from it",
          certs_directory.c_str());
      return;
    }
    // An unchanged directory is taken as it was found; otherwise it is read
    // like the standard directory iterator with no options would: an
    // unreadable directory raises, and ends this base only.
    if (!ReplaySnapshot(certs_directory, key_file, key_prefix))
      ScanDirectory(certs_directory, key_file, key_prefix);
  } catch (const fs::filesystem_error& error) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error, "%s", error.what());
  }
}

namespace {

// Owns a descriptor for the length of a scope.
class Descriptor {
 public:
  explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
  ~Descriptor() {
    if (descriptor_ >= 0) ::close(descriptor_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return descriptor_; }

 private:
  int descriptor_;
};

// The directory's own mount, which its files must share for their changes to
// be reported to it.
bool MountOf(int directory, std::uint64_t* mount) {
  struct statx status {};
  if (statx(directory, "", AT_EMPTY_PATH | AT_STATX_SYNC_AS_STAT, STATX_MNT_ID, &status) != 0 ||
      (status.stx_mask & STATX_MNT_ID) == 0)
    return false;
  *mount = status.stx_mnt_id;
  return true;
}

}  // namespace

std::shared_ptr<const CertStore::X509CertFromFileSystem> CertStore::TakeFile(
    int directory, const char* name, const std::string& path, const std::string& key_file,
    CertificateFileCache::Facts* facts) {
  CertificateFileCache::Facts ignored;
  if (facts == nullptr) facts = &ignored;
  // Unchanged files come from the cache, record and all.
  errno = 0;
  std::shared_ptr<const X509CertFromFileSystem> file =
      CertificateFileCache::GetInstance().Read(directory, name, path, key_file, facts);
  const int read_errno = errno;
  // A file too large to be a certificate is named, once per listing; one
  // that turned out no regular file once opened is skipped as the scan
  // skips every such entry.
  if (facts->refusal == x509auth_common::RegularFile::Refusal::k_too_large)
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Warning, "Skipping certificate file [%s]: %s",
                              path.c_str(), facts->reason.c_str());
  // Out of descriptors every later file fails too: that ends this base
  // directory like any other file-system error, instead of silently.
  if (!file && (read_errno == EMFILE || read_errno == ENFILE))
    throw fs::filesystem_error("cannot open certificate file", fs::path(path),
                               std::error_code(read_errno, std::generic_category()));
  if (!file) return file;
  // A certificate already in the store is no failure, so ignore the result.
  DeferHeld(file->x509.get());
  file_certs.push_back(file);
  return file;
}

bool CertStore::ReplaySnapshot(const fs::path& certs_directory, std::string& key_file,
                               std::size_t key_prefix) {
  // Opened as a scan would open it, so that whatever keeps a scan from
  // opening it (descriptors, permissions) still ends in the scan's error.
  const Descriptor directory(
      ::openat(AT_FDCWD, certs_directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory.get() < 0) return false;
  key_file.resize(key_prefix);
  const std::shared_ptr<const DirectorySnapshots::Snapshot> snapshot =
      DirectorySnapshots::GetInstance().Find(directory.get(), certs_directory.native(), key_file);
  if (!snapshot) return false;
  std::string path = DirectoryEntries::PathPrefix(certs_directory);
  const std::size_t path_prefix = path.size();
  for (const DirectorySnapshots::Entry& entry : *snapshot) {
    if (!entry.is_volatile) {
      if (entry.file) {
        DeferHeld(entry.file->x509.get());
        file_certs.push_back(entry.file);
      }
      continue;
    }
    // Looked at again, exactly as the scan looks at an entry.
    path.resize(path_prefix);
    path += entry.name;
    const bool regular = DirectoryEntries::TypeIsFinal(entry.type)
                             ? entry.type == DT_REG
                             : fs::status(fs::path(path)).type() == fs::file_type::regular;
    if (!regular) continue;
    key_file.resize(key_prefix);
    key_file += entry.name;
    key_file += ".key";
    TakeFile(directory.get(), entry.name.c_str(), path, key_file, nullptr);
  }
  return true;
}

void CertStore::ScanDirectory(const fs::path& certs_directory, std::string& key_file,
                              std::size_t key_prefix) {
  DirectorySnapshots& snapshots = DirectorySnapshots::GetInstance();
  DirectorySnapshots::Ticket ticket;
  // Watched from before its first entry is read, so that any change made
  // while it is read is reported.
  key_file.resize(key_prefix);
  DirectoryEntries entries(certs_directory, [&](int opened) {
    ticket = snapshots.Begin(opened, certs_directory.native(), key_file);
  });
  std::uint64_t mount = 0;
  bool keep = ticket.valid && MountOf(entries.Descriptor(), &mount);
  auto snapshot = std::make_shared<DirectorySnapshots::Snapshot>();
  while (entries.Next()) {
    const bool final_type = DirectoryEntries::TypeIsFinal(entries.Type());
    // The entry's reported type, or the link target's status for links.
    if (!entries.IsRegularFile()) {
      // A link may lead to a file later; other entries never count.
      if (keep && !final_type)
        snapshot->push_back(
            DirectorySnapshots::Entry{entries.Name(), entries.Type(), true, nullptr});
      continue;
    }
    // The whole file name, extension included: alice.pem -> alice.pem.key.
    key_file.resize(key_prefix);
    key_file += entries.Name();
    key_file += ".key";
    CertificateFileCache::Facts facts;
    std::shared_ptr<const X509CertFromFileSystem> file =
        TakeFile(entries.Descriptor(), entries.Name(), entries.Path(), key_file, &facts);
    if (!keep) continue;
    // Only what a report from the directory would announce a change of is
    // taken as it is next time.
    const bool reported = final_type && facts.identified && facts.settled && facts.links == 1 &&
                          facts.mount_known && facts.mount_id == mount;
    snapshot->push_back(DirectorySnapshots::Entry{entries.Name(), entries.Type(), !reported,
                                                  reported ? std::move(file) : nullptr});
    if (snapshot->size() > DirectorySnapshots::k_max_entries) {
      keep = false;
      snapshot.reset();
    }
  }
  key_file.resize(key_prefix);
  if (keep)
    snapshots.Keep(ticket, entries.Descriptor(), certs_directory.native(), key_file, snapshot);
}

std::uint32_t CertStore::OpenSmartCardStore() {
  libp11_context = Libp11Context::GetInstance();
  SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Warning, "CertStore::OpenSmartCardStore");
  // The instance can die between its check and its share being taken; there
  // is then nothing to ask for certificates.
  if (!libp11_context) return k_status_failed;

  const int status = libp11_context->GetCerts(smart_card_certs, &token_slots);
  // libp11 frees a token's certificates when a later enumeration of it
  // fails, which another store may do while this one lives.
  for (const Libp11Context::Libp11CertAndSlot& entry : smart_card_certs)
    DeferOwned(entry.cert->x509);
  SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Warning,
                            "CertStore::OpenSmartCardStore x509 certs that we added =%d",
                            static_cast<int>(smart_card_certs.size()));
  return static_cast<std::uint32_t>(status);
}

std::uint32_t CertStore::AddEncodedCertificate(const unsigned char* bytes, std::size_t size) {
  const unsigned char* cursor = bytes;
  // OpenSSL takes an int length: larger sizes are cut to their low 32 bits.
  X509Ptr cert(d2i_X509(nullptr, &cursor, static_cast<int>(static_cast<std::uint32_t>(size))));
  if (!cert) return 1;
  // Whether it is a duplicate depends on everything gathered before it.
  Fill();
  const bool not_added = !x509_store || X509_STORE_add_cert(x509_store.get(), cert.get()) == 0;
  // Kept even when the X509_STORE refused it.
  encoded_certs.push_back(std::move(cert));
  return not_added ? 1 : 0;
}

namespace {

std::unique_ptr<ICertificate> MakeCert(const ICertificateStore* store,
                                       const CertStore::X509CertFromFileSystem& entry) {
  return std::make_unique<Cert>(CertContext(std::make_unique<CertFileContext>(CertFileContext{
      store, X509Ptr(X509_dup(entry.x509.get())), entry.cert_path, entry.key_path})));
}

bool Matches(const CertStore::X509CertFromFileSystem& entry, const Thumbprint& wanted) {
  if (entry.has_thumbprint) return entry.thumbprint == wanted;
  return ThumbprintMatches(entry.x509.get(), wanted);
}

// The certificate and slot are libp11's; the new share of the context keeps
// them alive for as long as the certificate object lives.
std::unique_ptr<ICertificate> MakeCert(const ICertificateStore* store,
                                       const std::shared_ptr<Libp11Context>& context,
                                       const std::shared_ptr<TokenSlots>& listing,
                                       const Libp11Context::Libp11CertAndSlot& entry) {
  return std::make_unique<Cert>(CertContext(std::make_unique<Libp11CertContext>(
      Libp11CertContext{store, context, entry.cert, entry.slot, listing})));
}

std::unique_ptr<ICertificate> MakeCert(const ICertificateStore* store, const X509Ptr& x509) {
  return std::make_unique<Cert>(CertContext(std::make_unique<EncodedCertContext>(
      EncodedCertContext{store, X509Ptr(X509_dup(x509.get()))})));
}

// Another reference to the same parsed certificate.
X509Ptr Shared(const X509Ptr& x509) {
  X509_up_ref(x509.get());
  return X509Ptr(x509.get());
}

}  // namespace

std::vector<std::unique_ptr<ICertificate>> CertStore::SharedCertificates() const {
  std::vector<std::unique_ptr<ICertificate>> certificates;
  certificates.reserve(file_certs.size() + smart_card_certs.size() + encoded_certs.size());
  for (const auto& entry : file_certs) {
    certificates.push_back(std::make_unique<Cert>(CertContext(std::make_unique<CertFileContext>(
        CertFileContext{this, Shared(entry->x509), entry->cert_path, entry->key_path}))));
  }
  for (const Libp11Context::Libp11CertAndSlot& entry : smart_card_certs)
    certificates.push_back(MakeCert(this, libp11_context, token_slots, entry));
  for (const X509Ptr& x509 : encoded_certs) {
    certificates.push_back(std::make_unique<Cert>(
        CertContext(std::make_unique<EncodedCertContext>(EncodedCertContext{this, Shared(x509)}))));
  }
  return certificates;
}

std::vector<std::unique_ptr<ICertificate>> CertStore::Certificates() const {
  std::vector<std::unique_ptr<ICertificate>> certificates;
  // Added certificates are not counted here; the array grows for them.
  certificates.reserve(file_certs.size() + smart_card_certs.size());
  for (const auto& entry : file_certs) certificates.push_back(MakeCert(this, *entry));
  for (const Libp11Context::Libp11CertAndSlot& entry : smart_card_certs)
    certificates.push_back(MakeCert(this, libp11_context, token_slots, entry));
  for (const X509Ptr& x509 : encoded_certs) certificates.push_back(MakeCert(this, x509));
  return certificates;
}

std::string CertStore::ContentDigest() const {
  const EvpMdCtxPtr context(EVP_MD_CTX_new());
  if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) return {};
  Thumbprint thumbprint{};
  const auto add = [&](const Thumbprint& member) {
    EVP_DigestUpdate(context.get(), member.data(), member.size());
  };
  // A certificate whose thumbprint cannot be taken makes every digest
  // differ: nothing is kept against it.
  const auto add_x509 = [&](const X509* cert) {
    if (!GetThumbprintForX509Cert(cert, &thumbprint)) return false;
    add(thumbprint);
    return true;
  };
  for (const auto& entry : file_certs) {
    if (entry->has_thumbprint) {
      add(entry->thumbprint);
    } else if (!add_x509(entry->x509.get())) {
      return {};
    }
    // A renamed file keeps its certificate and changes its record's key.
    const std::string& key_path = entry->key_path.native();
    EVP_DigestUpdate(context.get(), key_path.c_str(), key_path.size() + 1);
  }
  const unsigned char separator = 0;
  EVP_DigestUpdate(context.get(), &separator, 1);
  for (const Libp11Context::Libp11CertAndSlot& entry : smart_card_certs)
    if (!add_x509(entry.cert->x509)) return {};
  EVP_DigestUpdate(context.get(), &separator, 1);
  for (const X509Ptr& x509 : encoded_certs)
    if (!add_x509(x509.get())) return {};
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(context.get(), digest, &length) != 1) return {};
  return std::string(reinterpret_cast<const char*>(digest), length);
}

std::uint32_t CertStore::FindThumbprint(Thumbprint thumbprint,
                                        std::unique_ptr<ICertificate>* out) const {
  return Find(thumbprint, out, false);
}

std::uint32_t CertStore::FindThumbprintShared(Thumbprint thumbprint,
                                              std::unique_ptr<ICertificate>* out) const {
  return Find(thumbprint, out, true);
}

std::uint32_t CertStore::Find(const Thumbprint& thumbprint, std::unique_ptr<ICertificate>* out,
                              bool shared) const {
  if (FindQuietly(thumbprint, out, shared)) return 0;
  SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Warning,
                            "Failed to find certificate with thumprint: [%s]",
                            DecimalThumbprintText(thumbprint).c_str());
  return 1;
}

CertStore::Lookup CertStore::OpenFor(const Thumbprint& thumbprint,
                                     std::unique_ptr<ICertificate>* out,
                                     std::uint32_t* token_status) {
  *token_status = 0;
  if (x509_store) {
    *token_status = k_status_failed;
    return Lookup::k_tokens_failed;
  }
  x509_store.reset(X509_STORE_new());
  if (!x509_store) {
    LogWithOpenSslErrors(X509_Auth_LogPriority_Warning, "Failed to create X509 store");
    *token_status = 1;
    return Lookup::k_tokens_failed;
  }
  // No default CA paths here: a chain builder adds its own, and signing
  // needs none.
  OpenFileStore();
  if (FindQuietly(thumbprint, out, true)) return Lookup::k_found;
  if (const std::uint32_t status = OpenSmartCardStore(); status != 0) {
    LogWithOpenSslErrors(X509_Auth_LogPriority_Warning,
                         "Failed to open smart card certificate store");
    *token_status = status;
    return Lookup::k_tokens_failed;
  }
  return FindQuietly(thumbprint, out, true) ? Lookup::k_found : Lookup::k_absent;
}

bool CertStore::FindQuietly(const Thumbprint& thumbprint, std::unique_ptr<ICertificate>* out,
                            bool shared) const {
  // Sources are searched in listing order and never merged, so a certificate
  // that is also a file is found as the file, with its key path.
  for (const auto& entry : file_certs) {
    if (Matches(*entry, thumbprint)) {
      *out =
          shared
              ? std::make_unique<Cert>(CertContext(std::make_unique<CertFileContext>(
                    CertFileContext{this, Shared(entry->x509), entry->cert_path, entry->key_path})))
              : MakeCert(this, *entry);
      return true;
    }
  }
  for (const Libp11Context::Libp11CertAndSlot& entry : smart_card_certs) {
    if (ThumbprintMatches(entry.cert->x509, thumbprint)) {
      *out = MakeCert(this, libp11_context, token_slots, entry);
      return true;
    }
  }
  for (const X509Ptr& x509 : encoded_certs) {
    if (ThumbprintMatches(x509.get(), thumbprint)) {
      *out = shared ? std::make_unique<Cert>(CertContext(std::make_unique<EncodedCertContext>(
                          EncodedCertContext{this, Shared(x509)})))
                    : MakeCert(this, x509);
      return true;
    }
  }
  return false;
}

}  // namespace quorvant::shared::x509
