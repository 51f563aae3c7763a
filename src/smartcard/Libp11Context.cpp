#include "smartcard/Libp11Context.h"

#include <openssl/err.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "base/PromptAnswer.h"
#include "base/SafeCallbacksWrapper.h"
#include "smartcard/FreshTokenErrors.h"
#include "smartcard/ModuleExit.h"
#include "smartcard/OwnModuleCheck.h"
#include "smartcard/Pkcs11ModuleChoice.h"
#include "smartcard/TokenLoss.h"
#include "smartcard/TokenWatch.h"

namespace quorvant::shared::x509 {

std::weak_ptr<Libp11Context> Libp11Context::instance_;
std::mutex Libp11Context::instance_mutex_;

namespace {

constexpr const char* k_pin_title = "Enter pin";

bool IsReadable(const std::string& path) { return access(path.c_str(), R_OK) == 0; }

// The module the host chose, if it chose a file; otherwise the default
// lookup beside the host: in its working directory, or in the "lib"
// directory that sits where the working directory has "bin".
std::optional<std::string> FindModule() {
  const Pkcs11ModuleChoice& choice = Pkcs11ModuleChoice::GetInstance();
  if (choice.CurrentKind() == Pkcs11ModuleChoice::Kind::k_file) {
    std::string chosen = choice.File();
    if (IsReadable(chosen)) return chosen;
    return std::nullopt;
  }
  if (IsReadable(Libp11Context::k_module_file_name)) return Libp11Context::k_module_file_name;
  const std::optional<std::string> library_directory =
      Libp11Context::LibraryDirectoryFromWorkingDirectory();
  if (!library_directory) return std::nullopt;
  const std::string path =
      (std::filesystem::path(*library_directory) / Libp11Context::k_module_file_name).string();
  if (IsReadable(path)) return path;
  return std::nullopt;
}

}  // namespace

std::shared_ptr<Libp11Context> Libp11Context::GetInstance() {
  std::lock_guard<std::mutex> lock(instance_mutex_);
  // Checking and taking are two steps: an instance dying in between yields an
  // empty pointer, never a second live instance.
  if (!instance_.expired()) return instance_.lock();
  std::shared_ptr<Libp11Context> created = std::make_shared<Libp11Context>(ConstructionKey());
  instance_ = created;
  return created;
}

Libp11Context::Libp11Context(ConstructionKey) {}

Libp11Context::~Libp11Context() {
  // The process ends: the module's state may already be gone (ModuleExit).
  if (ModuleExit::Begun()) {
    login_handler_.ForgetSlots();
    ModuleExit::Abandon(pkcs11_ctx_);
    return;
  }
  login_handler_.LogOutOfAllSlots();
  session_probe_.Detach();
  if (pkcs11_ctx_ != nullptr) {
    // Every listing goes now, whoever still holds a share: the module goes
    // next. Holders hold this context too, so none is left.
    if (current_) current_->Release();
    for (const std::shared_ptr<TokenSlots>& listing : superseded_) listing->Release();
    if (module_loaded_) PKCS11_CTX_unload(pkcs11_ctx_);
    PKCS11_CTX_free(pkcs11_ctx_);
  }
  ui_method_.reset();
}

std::optional<std::string> Libp11Context::LibraryDirectoryFromWorkingDirectory() {
  std::error_code error;
  std::string directory = std::filesystem::current_path(error).string();
  if (error) return std::nullopt;
  const std::string::size_type bin = directory.find("bin");
  if (bin == std::string::npos) return std::nullopt;
  return directory.replace(bin, 3, "lib");
}

void Libp11Context::InitialiseContextAndSlots() {
  const std::optional<std::string> module_path = FindModule();
  if (!module_path) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error, "PKCS11 shared object not found");
    return;
  }

  pkcs11_ctx_ = PKCS11_CTX_new();
  if (pkcs11_ctx_ == nullptr) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error, "error opening pkcs11 context");
    return;
  }
  LogAllOpenSslErrors();

  // A module that fails to load is not retried: the context stays, without
  // slots, for the life of this instance.
  if (const int result = PKCS11_CTX_load(pkcs11_ctx_, module_path->c_str()); result != 0) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error, "unable to load PKCS11_CTX [%i]",
                              result);
    return;
  }
  module_loaded_ = true;
  ModuleExit::WatchAfterLoad();
  LogAllOpenSslErrors();
  if (RefuseOwnModule(*module_path)) {
    module_refused_ = true;
    return;
  }
  // Without the probe no slot is ever treated as usable, so a failure here
  // shows up as tokens that cannot be enumerated, never as a hang.
  session_probe_.Attach(*module_path);

  UiMethodPtr ui_method(UI_create_method("PIN entry"));
  UI_method_set_writer(ui_method.get(), PinEntryUiWriter);
  UI_method_set_reader(ui_method.get(), PinEntryUiReader);
  ui_method_ = std::move(ui_method);
  if (const int result = PKCS11_set_ui_method(pkcs11_ctx_, ui_method_.get(), nullptr); result != 0)
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error, "error PKCS11_set_ui_method: %i",
                              result);

  // Taken before the listing, so that a card that comes during it is seen
  // as a change by the next request.
  fingerprint_ = TokenFingerprint::Take(session_probe_.Functions());
  auto listing = std::make_shared<TokenSlots>(pkcs11_ctx_);
  if (listing->Enumerate()) {
    current_ = std::move(listing);
    LogAllOpenSslErrors();
    if (RefuseOwnModule(*module_path)) {
      module_refused_ = true;
      current_->Release();
      current_.reset();
    }
    return;
  }
  SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error, "error enumerating slots");
}

bool Libp11Context::RefuseOwnModule(const std::string& module_path) const {
  const std::string reason = OwnModuleCheck::LeadsBackToX509Auth(pkcs11_ctx_, Slots(), SlotCount());
  if (reason.empty()) return false;
  // The module stays loaded, without slots, until this context goes, as a
  // module whose slots cannot be enumerated does.
  SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                            "PKCS#11 module %s refused: %s; no smart cards", module_path.c_str(),
                            reason.c_str());
  return true;
}

int Libp11Context::PinEntryUiWriter(UI* ui, UI_STRING* uis) {
  const UI_string_types type = UI_get_string_type(uis);
  if (type != UIT_PROMPT && type != UIT_VERIFY) return 0;
  const char* prompt = UI_get0_output_string(uis);

  const PromptAnswer answer(k_pin_title, prompt);
  if (!answer.Received()) return -1;
  if (answer.Status() != 0) return -1;
  if (answer.Length() == 0) return 0;
  UI_set_result(ui, uis, answer.Text());
  return 1;
}

int Libp11Context::PinEntryUiReader(UI* /*ui*/, UI_STRING* /*uis*/) { return 1; }

int Libp11Context::ProbeSession(const PKCS11_slot_st* slot) const {
  const int probe = session_probe_.Probe(slot);
  if (TokenLoss::IsLossProbe(probe)) NoteTokenLoss();
  return probe;
}

void Libp11Context::ReleaseUnheldListings() {
  for (std::shared_ptr<TokenSlots>& listing : superseded_)
    if (listing.use_count() == 1 && !listing->KeptForExportedKey()) listing.reset();
  superseded_.erase(std::remove(superseded_.begin(), superseded_.end(), nullptr),
                    superseded_.end());
}

void Libp11Context::RefreshIfTokensChanged() {
  // A refused module, or one without a function list, is never asked again.
  if (pkcs11_ctx_ == nullptr || !module_loaded_ || module_refused_ ||
      session_probe_.Functions() == nullptr)
    return;
  TokenFingerprint now = TokenFingerprint::Take(session_probe_.Functions());
  if (!refresh_forced_ && now == fingerprint_) return;
  SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Info,
                            refresh_forced_ ? "Token watch: listing the slots again after a token "
                                              "or its session went away"
                                            : "Token watch: the tokens changed; listing the "
                                              "slots again");
  refresh_forced_ = false;
  // A card put back must ask for its PIN again, and a superseded listing a
  // host still holds must not keep a login alive.
  login_handler_.LogOutOfAllSlots();
  if (current_) superseded_.push_back(std::move(current_));
  ReleaseUnheldListings();
  fingerprint_ = std::move(now);
  auto listing = std::make_shared<TokenSlots>(pkcs11_ctx_);
  if (fingerprint_.ListableByLibp11() && listing->Enumerate()) {
    current_ = std::move(listing);
    LogAllOpenSslErrors();
    return;
  }
  // No tokens until the next change: one token libp11 cannot read fails
  // the whole listing.
  LogWithOpenSslErrors(X509_Auth_LogPriority_Error, "error enumerating slots");
}

void Libp11Context::FollowTokens() {
  if (TokenWatch::Enabled() && pkcs11_ctx_ != nullptr) RefreshIfTokensChanged();
}

int Libp11Context::GetCerts(std::vector<Libp11CertAndSlot>& certs,
                            std::shared_ptr<TokenSlots>* listing) {
  SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Debug, "Libp11Context::GetCerts started.");
  // A host that chose no module has no smart cards: nothing to load, and
  // nothing missing either.
  if (pkcs11_ctx_ == nullptr &&
      Pkcs11ModuleChoice::GetInstance().CurrentKind() == Pkcs11ModuleChoice::Kind::k_none) {
    SafeCallbacksWrapper::Log(
        X509_Auth_LogPriority_Debug,
        "Libp11Context::GetCerts no PKCS#11 module is chosen; no smart cards");
    return 0;
  }
  if (pkcs11_ctx_ == nullptr)
    InitialiseContextAndSlots();
  else if (TokenWatch::Enabled())
    RefreshIfTokensChanged();
  if (pkcs11_ctx_ == nullptr) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Warning,
                              "Libp11Context::GetCerts pcks11_ctx is null returning -1.");
    return -1;
  }
  const std::size_t first = certs.size();
  bool lost = false;
  int status = AppendTokenCerts(certs, TokenWatch::Enabled() ? &lost : nullptr);
  if (lost) {
    // The module noticed nothing in its slot list, yet a token's sessions
    // are gone (a card pulled and put back): one fresh listing, read again.
    certs.resize(first);
    ForceRefresh();
    RefreshIfTokensChanged();
    TakeTokenLoss();
    status = AppendTokenCerts(certs, nullptr);
  }
  if (listing != nullptr) *listing = current_;
  return status;
}

int Libp11Context::AppendTokenCerts(std::vector<Libp11CertAndSlot>& certs, bool* lost) {
  PKCS11_SLOT* const slots = Slots();
  const unsigned int slot_count = SlotCount();
  if (slots == nullptr) {
    SafeCallbacksWrapper::Log(
        X509_Auth_LogPriority_Debug,
        "Libp11Context::GetCerts pcks11_slot is null returning 0.Not nececarily a problem can "
        "just mean that there are no cards plugged in");
    return 0;
  }

  PKCS11_SLOT* slot = PKCS11_find_token(pkcs11_ctx_, slots, slot_count);
  if (slot == nullptr) {
    SafeCallbacksWrapper::Log(
        X509_Auth_LogPriority_Debug,
        "Libp11Context::GetCerts pcks11_used_slot is null returning 0.Not finding a token is "
        "not an error just means that no smart cards are plugged in");
    return 0;
  }

  for (; slot != nullptr; slot = PKCS11_find_next_token(pkcs11_ctx_, slots, slot_count, slot)) {
    PKCS11_CERT* token_certs = nullptr;
    unsigned int count = 0;
    // An uninitialised token, or one that refuses a session, would hang
    // libp11's enumeration; it counts as a failed enumeration instead.
    const int probe = ProbeSession(slot);
    int result = probe;
    bool lost_in_libp11 = false;
    if (probe == 0) {
      // libp11's own failure says why only in the error queue.
      std::optional<FreshTokenErrors> fresh;
      if (lost != nullptr) fresh.emplace();
      result = PKCS11_enumerate_certs(slot->token, &token_certs, &count);
      lost_in_libp11 = result != 0 && fresh && fresh->Lost();
    }
    if (result != 0) {
      if (lost != nullptr && (TokenLoss::IsLossProbe(probe) || lost_in_libp11)) *lost = true;
      SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                                "Error enumerating certificates on token [%s]. Error code: [%i]",
                                slot->token->label, result);
      continue;
    }
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Info,
                              "Libp11Context::GetCerts slot has %d certs ", count);
    certs.reserve(certs.size() + count);
    for (unsigned int i = 0; i < count; ++i) certs.push_back({&token_certs[i], slot});
  }

  SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Info,
                            "Libp11Context::GetCerts Total certs returning %d certs ",
                            static_cast<int>(certs.size()));
  return 0;
}

int Libp11Context::LogInToSlotIfRequired(PKCS11_slot_st* slot) {
  std::optional<FreshTokenErrors> fresh;
  if (TokenWatch::Enabled()) fresh.emplace();
  const int result = login_handler_.LoginIfRequired(slot);
  if (result != 0 && fresh && fresh->Lost()) NoteTokenLoss();
  fresh.reset();
  if (result != 0)
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                              "Error logging in to token [%s]. Error code: [%i]",
                              slot->token->label, result);
  return result;
}

}  // namespace quorvant::shared::x509
