#pragma once
#include <libp11.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/OpenSslPtr.h"
#include "smartcard/Libp11LoginHandler.h"
#include "smartcard/Pkcs11SessionProbe.h"
#include "smartcard/TokenFingerprint.h"
#include "smartcard/TokenSlots.h"

namespace quorvant::shared::x509 {

// The process-wide gateway to smart cards over libp11. At most one instance
// lives at a time; the class holds it only weakly, so the module, its slots
// and every login are torn down when the last owner lets go. Its operations
// take no lock: one thread at a time.
class Libp11Context {
 public:
  // A certificate on a token and the slot holding it. Both point into
  // libp11's arrays, valid only while the context that produced them lives:
  // whoever keeps one also keeps a share of the context.
  struct Libp11CertAndSlot {
    PKCS11_CERT* cert;
    PKCS11_SLOT* slot;
  };

  // The module file looked for in the working directory.
  static constexpr const char* k_module_file_name = "./opensc-pkcs11.so";

  // GetInstance returns the live instance, or a new uninitialised one when
  // none lives. It may return an empty pointer if the instance dies while
  // being taken.
  static std::shared_ptr<Libp11Context> GetInstance();

 private:
  // Only GetInstance makes instances; the key keeps the constructor usable
  // by std::make_shared.
  struct ConstructionKey {
    explicit ConstructionKey() = default;
  };

 public:
  explicit Libp11Context(ConstructionKey);
  ~Libp11Context();
  Libp11Context(const Libp11Context&) = delete;
  Libp11Context& operator=(const Libp11Context&) = delete;

  // Loads the module, installs the PIN UI method and enumerates the slots.
  void InitialiseContextAndSlots();
  // Appends every certificate of every token to |certs|. Returns 0, also
  // when there are no slots or tokens, and -1 when no libp11 context exists.
  // With the token watch on, the slots are first listed again when the
  // tokens changed since the last listing (or a retry asked for it).
  // |listing|, when given, receives a share of the listing the entries
  // point into.
  int GetCerts(std::vector<Libp11CertAndSlot>& certs,
               std::shared_ptr<TokenSlots>* listing = nullptr);
  // With the token watch on, lists the slots again now when the tokens
  // changed or a retry asked for it, as GetCerts does first; for a key held
  // open, which lists no certificates.
  void FollowTokens();
  // The listing in use; null before the first or after a failed one.
  std::shared_ptr<TokenSlots> CurrentSlots() const { return current_; }
  // Makes the next GetCerts list the slots again, changed or not.
  void ForceRefresh() { refresh_forced_ = true; }
  // Whether an operation met a token or session that went away since the
  // last call; the note is cleared.
  bool TakeTokenLoss() { return std::exchange(token_loss_seen_, false); }
  void NoteTokenLoss() const { token_loss_seen_ = true; }
  // Returns 0 when no login was needed or it succeeded, else the login
  // handler's code.
  int LogInToSlotIfRequired(PKCS11_slot_st* slot);

  // Call before any libp11 call that opens a session on |slot| (key lookup,
  // key use, login): libp11 0.4.12 waits forever when the module refuses a
  // session. Returns 0 when a session can be opened now, else a negative
  // code: -1 for a missing or uninitialised token or an unloaded module, or
  // the module's CK_RV negated. A card pulled right after the probe can still
  // hang libp11; that window cannot be closed from outside libp11.
  int ProbeSession(const PKCS11_slot_st* slot) const;
  bool CanOpenSession(const PKCS11_slot_st* slot) const { return ProbeSession(slot) == 0; }
  // The loaded module's function list, for what libp11 cannot do itself;
  // null while no module is loaded. Valid while this context lives.
  CK_FUNCTION_LIST_PTR ModuleFunctions() const { return session_probe_.Functions(); }

  // The OpenSSL UI writer through which libp11 asks the host for a PIN.
  static int PinEntryUiWriter(UI* ui, UI_STRING* uis);
  // The matching reader: the writer has already stored the answer, but
  // OpenSSL 3's UI_process fails every UI whose method has no reader.
  static int PinEntryUiReader(UI* ui, UI_STRING* uis);

  // The working directory with its first "bin" turned into "lib", if it
  // holds one.
  static std::optional<std::string> LibraryDirectoryFromWorkingDirectory();

  // Read-only views for diagnostics and tests.
  bool IsInitialised() const { return pkcs11_ctx_ != nullptr; }
  bool IsModuleLoaded() const { return module_loaded_; }
  unsigned int SlotCount() const { return current_ ? current_->Count() : 0; }
  const Libp11LoginHandler& LoginHandler() const { return login_handler_; }
  const UI_METHOD* UiMethod() const { return ui_method_.get(); }
  PKCS11_CTX* Pkcs11Context() const { return pkcs11_ctx_; }
  PKCS11_SLOT* Slots() const { return current_ ? current_->Slots() : nullptr; }
  // Listings replaced by a newer one but still held by a certificate or key.
  std::size_t SupersededCount() const { return superseded_.size(); }

 private:
  static std::weak_ptr<Libp11Context> instance_;
  static std::mutex instance_mutex_;

  // True, after one error line, when the loaded module is x509auth's own or
  // shows its token (OwnModuleCheck): it is then used for nothing.
  bool RefuseOwnModule(const std::string& module_path) const;
  // The token watch's step before a request: a new listing when the tokens
  // changed or a retry forced it, the old one's logins ended.
  void RefreshIfTokensChanged();
  // Lets go of replaced listings nobody else holds any more. Only here and
  // in the destructor: their release closes every session on their slot
  // ids, so it must come before the next listing opens any.
  void ReleaseUnheldListings();
  // GetCerts' walk over the current listing. |lost|, when given, is set when
  // a token's certificates could not be read because it or its sessions went
  // away.
  int AppendTokenCerts(std::vector<Libp11CertAndSlot>& certs, bool* lost);

  Libp11LoginHandler login_handler_{
      [this](const PKCS11_slot_st* slot) { return ProbeSession(slot); },
      [this](const PKCS11_slot_st* slot) { return session_probe_.TokenPresent(slot); }};
  UiMethodPtr ui_method_;
  // Released by hand in the destructor: slots, then the module, then the
  // context, an order a single deleter cannot express.
  PKCS11_CTX* pkcs11_ctx_ = nullptr;
  std::shared_ptr<TokenSlots> current_;
  std::vector<std::shared_ptr<TokenSlots>> superseded_;
  bool module_loaded_ = false;
  bool module_refused_ = false;
  bool refresh_forced_ = false;
  mutable bool token_loss_seen_ = false;
  TokenFingerprint fingerprint_;
  // Declared last: it talks to the module, so it must be detached before the
  // module is unloaded, which the destructor does explicitly.
  Pkcs11SessionProbe session_probe_;
};

}  // namespace quorvant::shared::x509
