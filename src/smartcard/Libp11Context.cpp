#include "smartcard/Libp11Context.h"

#include <openssl/err.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>

#include "base/SafeCallbacksWrapper.h"
#include "smartcard/OwnModuleCheck.h"
#include "smartcard/Pkcs11ModuleChoice.h"

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
  login_handler_.LogOutOfAllSlots();
  session_probe_.Detach();
  if (pkcs11_ctx_ != nullptr) {
    if (slots_ != nullptr) PKCS11_release_all_slots(pkcs11_ctx_, slots_, slot_count_);
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
  LogAllOpenSslErrors();
  if (RefuseOwnModule(*module_path)) return;
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

  if (PKCS11_enumerate_slots(pkcs11_ctx_, &slots_, &slot_count_) == 0) {
    LogAllOpenSslErrors();
    if (RefuseOwnModule(*module_path)) {
      PKCS11_release_all_slots(pkcs11_ctx_, slots_, slot_count_);
      slots_ = nullptr;
      slot_count_ = 0;
    }
    return;
  }
  SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error, "error enumerating slots");
}

bool Libp11Context::RefuseOwnModule(const std::string& module_path) const {
  const std::string reason = OwnModuleCheck::LeadsBackToX509Auth(pkcs11_ctx_, slots_, slot_count_);
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

  const SafeCallbacksWrapper& callbacks = SafeCallbacksWrapper::GetInstance();
  const X509_Auth_PinEntryCallback pin_entry = callbacks.PinEntryCallback();
  if (pin_entry == nullptr) return -1;
  const X509_Auth_FreePinEntryResultCallback release = callbacks.FreePinEntryResultCallback();
  X509_Auth_PinEntryResult* result = pin_entry(k_pin_title, prompt);
  if (result == nullptr) return -1;

  int answer = 1;
  if (result->status != 0)
    answer = -1;
  else if (result->value == nullptr || result->value[0] == '\0')
    answer = 0;
  else
    UI_set_result(ui, uis, result->value);
  if (release != nullptr) release(result);
  return answer;
}

int Libp11Context::PinEntryUiReader(UI* /*ui*/, UI_STRING* /*uis*/) { return 1; }

int Libp11Context::GetCerts(std::vector<Libp11CertAndSlot>& certs) {
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
  if (pkcs11_ctx_ == nullptr) InitialiseContextAndSlots();
  if (pkcs11_ctx_ == nullptr) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Warning,
                              "Libp11Context::GetCerts pcks11_ctx is null returning -1.");
    return -1;
  }
  if (slots_ == nullptr) {
    SafeCallbacksWrapper::Log(
        X509_Auth_LogPriority_Debug,
        "Libp11Context::GetCerts pcks11_slot is null returning 0.Not nececarily a problem can "
        "just mean that there are no cards plugged in");
    return 0;
  }

  PKCS11_SLOT* slot = PKCS11_find_token(pkcs11_ctx_, slots_, slot_count_);
  if (slot == nullptr) {
    SafeCallbacksWrapper::Log(
        X509_Auth_LogPriority_Debug,
        "Libp11Context::GetCerts pcks11_used_slot is null returning 0.Not finding a token is "
        "not an error just means that no smart cards are plugged in");
    return 0;
  }

  for (; slot != nullptr; slot = PKCS11_find_next_token(pkcs11_ctx_, slots_, slot_count_, slot)) {
    PKCS11_CERT* token_certs = nullptr;
    unsigned int count = 0;
    // An uninitialised token, or one that refuses a session, would hang
    // libp11's enumeration; it counts as a failed enumeration instead.
    int result = ProbeSession(slot);
    if (result == 0) result = PKCS11_enumerate_certs(slot->token, &token_certs, &count);
    if (result != 0) {
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
  const int result = login_handler_.LoginIfRequired(slot);
  if (result != 0)
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                              "Error logging in to token [%s]. Error code: [%i]",
                              slot->token->label, result);
  return result;
}

}  // namespace quorvant::shared::x509
