#pragma once
// The token's objects as the library offers them now. Every
// C_FindObjectsInit asks the library whether a listing would differ from the
// latest (X509_Auth_GetListingVersion) and lists again when it would, or
// when a key file's encryption changed, so a certificate added, removed or
// changed on disk appears or goes at the next search. Handles are given per
// (thumbprint, kind) and only ever grow: one handle always names the same
// object, and a handle whose certificate went is never given to another.
// Objects built from a certificate are kept by thumbprint (same thumbprint,
// same bytes), so a listing of unchanged certificates builds nothing.
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "KeyFileProbe.h"
#include "TokenObject.h"
#include "x509_auth.h"
#include "x509auth/LeftOutCertificates.h"

namespace x509auth_pkcs11 {

class ObjectCatalog {
 public:
  // Lists the library's certificates (token certificates only when
  // |token_certificates|). False, with the previous objects kept, when the
  // library could not list.
  bool Refresh(bool token_certificates);
  // Current objects matching the template, in handle order; private
  // objects only when |show_private|.
  std::vector<CK_OBJECT_HANDLE> Find(const CK_ATTRIBUTE* templ, CK_ULONG count,
                                     bool show_private) const;
  // The object a handle names in the latest listing; null when it is gone
  // or was never given.
  std::shared_ptr<const TokenObject> Get(CK_OBJECT_HANDLE handle) const;
  // Whether some listed key asks for a PIN or password: an encrypted key
  // file, or a token key.
  bool NeedsLogin() const { return needs_login_; }
  // Thumbprints of the certificates whose keys ask, in listing order: key
  // files (a password) and token keys (the card's PIN) apart, since a
  // secret meant for one must not be tried on the other.
  const std::vector<Thumbprint>& KeyFilesAsking() const { return files_asking_; }
  const std::vector<Thumbprint>& TokenKeysAsking() const { return tokens_asking_; }
  std::size_t Size() const { return current_.size(); }
  // Where the library reads certificate files, to name those it leaves out.
  void SetCertificateDirs(std::vector<std::string> dirs) {
    left_out_.SetCertificateDirs(std::move(dirs));
  }
  void Clear();

 private:
  using Objects = std::map<CK_OBJECT_HANDLE, std::shared_ptr<const TokenObject>>;
  // What one listing offers, before any object is made from it.
  struct Listing {
    std::vector<const X509_Auth_Certificate*> offered;
    bool needs_login = false;
    std::vector<Thumbprint> files_asking, tokens_asking;
    // Every key path the listing names, offered or not, to name the
    // certificates it leaves out.
    std::vector<std::string> key_paths;
    std::vector<std::pair<std::string, bool>> probed;
  };

  // The steps of Refresh: which records are offered and whose keys ask
  // (probing key files), then the objects made or taken from what is kept.
  Listing Sort(const X509_Auth_Certificate* certificates, uint64_t count, bool token_certificates);
  void Build(Listing& listing);
  // A client certificate's objects (certificate, public and private key),
  // made once per thumbprint and per privacy of its keys.
  void AddClient(const X509_Auth_Certificate& record, bool keys_private, Objects& current);
  // The CA certificates of the record's chain, appended to |authorities|:
  // thumbprints alone for those already made, encodings for the others.
  void AddChain(const X509_Auth_Certificate& record,
                std::vector<std::pair<Thumbprint, Bytes>>& authorities) const;
  CK_OBJECT_HANDLE HandleFor(const Thumbprint& thumbprint, ObjectKind kind);
  // Whether every key file the latest listing probed is still as encrypted
  // (or not) as it was then.
  bool KeyFilesUnchanged();

  struct Built {
    bool keys_private = false;
    std::vector<std::shared_ptr<const TokenObject>> objects;
  };
  std::map<Thumbprint, Built> built_;
  std::map<Thumbprint, std::shared_ptr<const TokenObject>> authorities_;
  std::map<std::pair<Thumbprint, int>, CK_OBJECT_HANDLE> handles_;
  CK_OBJECT_HANDLE next_handle_ = 1;
  Objects current_;
  // The handles of current_ by their CKA_ID, each list in handle order.
  std::map<Bytes, std::vector<CK_OBJECT_HANDLE>> by_id_;
  KeyFileProbe probe_;
  x509auth_common::LeftOutCertificates left_out_;
  bool needs_login_ = false;
  std::vector<Thumbprint> files_asking_;
  std::vector<Thumbprint> tokens_asking_;
  // The key files the latest listing probed, with their answers.
  std::vector<std::pair<std::string, bool>> probed_;
  // The library's listing version the objects were built from; 0: none.
  uint64_t listed_version_ = 0;
  bool listed_tokens_ = false;
};

}  // namespace x509auth_pkcs11
