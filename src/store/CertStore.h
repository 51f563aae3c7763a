#pragma once
#include <filesystem>
#include <memory>
#include <vector>

#include "base/OpenSslPtr.h"
#include "cert/ICertificateStore.h"
#include "files/CertificateFile.h"
#include "files/CertificateFileCache.h"
#include "smartcard/Libp11Context.h"
#include "store/PendingCertificates.h"

namespace quorvant::shared::x509 {

// Gathers token certificates, the default CA locations and the certificate
// files of the configured directories into one X509_STORE. The certificates
// go into the X509_STORE only when something first asks for it (chain
// building, adding a certificate): signing and decryption never do. Used by one
// thread at a time; certificates it hands out must not outlive it.
class CertStore : public ICertificateStore {
 public:
  // A certificate read from a "certs" directory and where its key should be
  // (x509, cert_path, key_path); shared with the certificate file cache and
  // never changed.
  using X509CertFromFileSystem = CertificateFile;

  CertStore() = default;
  ~CertStore() override;
  // A moved-from store is closed and empty and may be opened again.
  CertStore(CertStore&& other) noexcept;
  CertStore& operator=(CertStore&& other) noexcept;

  std::uint32_t Open(CertStoreType type) override;
  bool IsOpen() const override;
  std::uint32_t AddEncodedCertificate(const unsigned char* bytes, std::size_t size) override;
  std::uint32_t FindThumbprint(Thumbprint thumbprint,
                               std::unique_ptr<ICertificate>* out) const override;
  std::vector<std::unique_ptr<ICertificate>> Certificates() const override;
  X509_STORE* X509Store() const override;
  // Like FindThumbprint, but the certificate shares this store's parsed
  // object, as SharedCertificates() does.
  std::uint32_t FindThumbprintShared(Thumbprint thumbprint,
                                     std::unique_ptr<ICertificate>* out) const;
  // Like Certificates(), but each certificate shares this store's parsed
  // object (as token certificates always do) instead of a copy: for a caller
  // that only reads them. A copy costs a full encode and parse.
  std::vector<std::unique_ptr<ICertificate>> SharedCertificates() const;

  // What OpenFor found.
  enum class Lookup { k_found, k_absent, k_tokens_failed };
  // Opens only as much of a users' store as finding |thumbprint| needs: the
  // certificate files, then the tokens when no file holds it, so that a file
  // certificate never loads the PKCS#11 module. Found as Find finds it, and
  // shared as FindThumbprintShared shares it. No line is written when it is
  // absent; |*token_status| receives the token source's failure.
  Lookup OpenFor(const Thumbprint& thumbprint, std::unique_ptr<ICertificate>* out,
                 std::uint32_t* token_status);

  // A digest of every certificate gathered (files with their key paths,
  // tokens, added), in order: equal digests mean chains built against this
  // store may be kept, and a listing of it gives the same records.
  std::string ContentDigest() const;

  // Scans every configured base directory; always returns 0.
  std::uint32_t OpenFileStore();
  // Scans base/"certs" for certificate files.
  void LoadFileStoreCertsFromPath(const std::filesystem::path& base);
  // Adds every token certificate; returns the status of the token context.
  std::uint32_t OpenSmartCardStore();

 private:
  std::uint32_t Find(const Thumbprint& thumbprint, std::unique_ptr<ICertificate>* out,
                     bool shared) const;
  // Find without its line when nothing matches.
  bool FindQuietly(const Thumbprint& thumbprint, std::unique_ptr<ICertificate>* out,
                   bool shared) const;
  // A base directory's "certs" directory as a complete earlier scan found
  // it, when nothing in it can have changed since; false when it must be
  // read (nothing is added then).
  bool ReplaySnapshot(const std::filesystem::path& certs_directory, std::string& key_file,
                      std::size_t key_prefix);
  // Reads the "certs" directory entry by entry, and keeps what it found for
  // the next scan when the directory can be watched.
  void ScanDirectory(const std::filesystem::path& certs_directory, std::string& key_file,
                     std::size_t key_prefix);
  // One regular file: its record, queued for the X509_STORE and listed.
  // Returns the record, null when the file holds no certificate; throws the
  // file-system error when no descriptor was left to open it.
  std::shared_ptr<const X509CertFromFileSystem> TakeFile(int directory, const char* name,
                                                         const std::string& path,
                                                         const std::string& key_file,
                                                         CertificateFileCache::Facts* facts);
  // Puts the gathered certificates into the X509_STORE, in the order they
  // were gathered, as adding each at once would have.
  void Fill() const;
  // Queue a certificate for the X509_STORE when the store is open: one that
  // file_certs keeps alive as long as the store, or one that needs a
  // reference of its own.
  void DeferHeld(X509* cert);
  void DeferOwned(X509* cert);

  // Destroyed in reverse: added, file and token certificates, then the
  // context share (token certificates point into it), then the X509_STORE.
  X509StorePtr x509_store;
  // Gathered for the X509_STORE and not yet in it, oldest first.
  mutable PendingCertificates unfilled;
  std::shared_ptr<Libp11Context> libp11_context;
  // The slot listing the token entries point into.
  std::shared_ptr<TokenSlots> token_slots;
  std::vector<Libp11Context::Libp11CertAndSlot> smart_card_certs;
  std::vector<std::shared_ptr<const X509CertFromFileSystem>> file_certs;
  std::vector<X509Ptr> encoded_certs;
};

}  // namespace quorvant::shared::x509
