#include "Module.h"

#include <openssl/sha.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "Log.h"
#include "Mechanisms.h"
#include "OutputBuffer.h"
#include "x509auth/LeftOutCertificates.h"
#include "x509auth/LibraryOwned.h"

namespace x509auth_pkcs11 {
namespace {

constexpr const char* k_token_label = "x509auth";
constexpr const char* k_manufacturer = "x509auth";

// PKCS#11 text fields are blank-padded, not NUL-terminated.
void Pad(unsigned char* field, std::size_t size, const std::string& text) {
  std::memset(field, ' ', size);
  std::memcpy(field, text.data(), std::min(size, text.size()));
}

bool ValidTemplate(const CK_ATTRIBUTE* templ, CK_ULONG count) {
  if (count > 0 && templ == nullptr) return false;
  for (CK_ULONG i = 0; i < count; ++i)
    if (templ[i].pValue == nullptr && templ[i].ulValueLen != 0) return false;
  return true;
}

std::string Hex(const unsigned char* bytes, std::size_t length) {
  static const char digits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < length; ++i) {
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 15];
  }
  return text;
}

}  // namespace

Module& Module::GetInstance() {
  // Never destroyed: a program may exit without C_Finalize, and by the time
  // static destructors run, OpenSSL and the library may be torn down.
  static Module* const instance = std::unique_ptr<Module>(new Module()).release();
  return *instance;
}

CK_RV Module::Ready() const {
  return initialized_ && pid_ == getpid() ? CKR_OK : CKR_CRYPTOKI_NOT_INITIALIZED;
}

Session* Module::Find(CK_SESSION_HANDLE handle) {
  const auto found = sessions_.find(handle);
  return found == sessions_.end() ? nullptr : found->second.get();
}

CK_RV Module::Initialize(CK_VOID_PTR init_args) {
  if (initialized_ && pid_ == getpid()) return CKR_CRYPTOKI_ALREADY_INITIALIZED;
  if (init_args != nullptr) {
    const auto* args = static_cast<const CK_C_INITIALIZE_ARGS*>(init_args);
    if (args->pReserved != nullptr) return CKR_ARGUMENTS_BAD;
    const bool all = args->CreateMutex != nullptr && args->DestroyMutex != nullptr &&
                     args->LockMutex != nullptr && args->UnlockMutex != nullptr;
    const bool none = args->CreateMutex == nullptr && args->DestroyMutex == nullptr &&
                      args->LockMutex == nullptr && args->UnlockMutex == nullptr;
    if (!all && !none) return CKR_ARGUMENTS_BAD;
    // The module locks with the operating system's primitives only.
    if (all && (args->flags & CKF_OS_LOCKING_OK) == 0) return CKR_CANT_LOCK;
  }
  // A forked child starts over: the parent's sessions and login are not its,
  // nor are its open keys (the library below is started afresh).
  sessions_.clear();
  open_keys_.Forget();
  LogoutAll();
  catalog_.Clear();
  prompted_without_pin_ = false;

  settings_ = ModuleSettings::Load();
  SetLogThreshold(settings_.log_threshold);
  catalog_.SetCertificateDirs(x509auth_common::LeftOutCertificates::CertificateDirs(
      settings_.dirs, settings_.home_dirs, std::getenv("HOME")));
  if (!settings_.file_refusal.empty())
    LogLine(LogLevel::k_error, "%s", settings_.file_refusal.c_str());
  for (const std::string& problem : settings_.problems)
    LogLine(LogLevel::k_warning, "%s", problem.c_str());
  if (!settings_.config_file.empty())
    LogLine(LogLevel::k_info, "settings from %s", settings_.config_file.c_str());
  std::string failure;
  if (!link_.Start(settings_, failure)) {
    LogLine(LogLevel::k_error, "%s", failure.c_str());
    return CKR_GENERAL_ERROR;
  }
  unsigned char digest[SHA256_DIGEST_LENGTH];
  const std::string fingerprint = settings_.Fingerprint();
  SHA256(reinterpret_cast<const unsigned char*>(fingerprint.data()), fingerprint.size(), digest);
  serial_ = Hex(digest, 8);
  initialized_ = true;
  pid_ = getpid();
  return CKR_OK;
}

CK_RV Module::Finalize(CK_VOID_PTR reserved) {
  if (const CK_RV rv = Ready(); rv != CKR_OK) return rv;
  if (reserved != nullptr) return CKR_ARGUMENTS_BAD;
  sessions_.clear();
  LogoutAll();
  catalog_.Clear();
  open_keys_.CloseAll();
  link_.Stop();
  initialized_ = false;
  return CKR_OK;
}

CK_RV Module::GetInfo(CK_INFO_PTR info) {
  if (const CK_RV rv = Ready(); rv != CKR_OK) return rv;
  if (info == nullptr) return CKR_ARGUMENTS_BAD;
  *info = CK_INFO{};
  info->cryptokiVersion = {CRYPTOKI_VERSION_MAJOR, CRYPTOKI_VERSION_MINOR};
  Pad(info->manufacturerID, sizeof(info->manufacturerID), k_manufacturer);
  Pad(info->libraryDescription, sizeof(info->libraryDescription), "x509auth certificates and keys");
  info->libraryVersion = {X509_AUTH_API_VERSION, 0};
  return CKR_OK;
}

CK_RV Module::GetSlotList(CK_BBOOL /*token_present*/, CK_SLOT_ID_PTR slots, CK_ULONG_PTR count) {
  if (const CK_RV rv = Ready(); rv != CKR_OK) return rv;
  if (count == nullptr) return CKR_ARGUMENTS_BAD;
  // The token is always present, so both lists are the one slot.
  OutputArray<CK_SLOT_ID> output(slots, count);
  if (!output.Takes(1)) return output.Answer();
  output.Fill({k_slot});
  return CKR_OK;
}

CK_RV Module::GetSlotInfo(CK_SLOT_ID slot, CK_SLOT_INFO_PTR info) {
  if (const CK_RV rv = Ready(); rv != CKR_OK) return rv;
  if (info == nullptr) return CKR_ARGUMENTS_BAD;
  if (slot != k_slot) return CKR_SLOT_ID_INVALID;
  *info = CK_SLOT_INFO{};
  Pad(info->slotDescription, sizeof(info->slotDescription), "x509auth certificates and keys");
  Pad(info->manufacturerID, sizeof(info->manufacturerID), k_manufacturer);
  info->flags = CKF_TOKEN_PRESENT;
  info->hardwareVersion = {X509_AUTH_API_VERSION, 0};
  info->firmwareVersion = {X509_AUTH_API_VERSION, 0};
  return CKR_OK;
}

void Module::Refresh() {
  const std::vector<Thumbprint> cards_before = catalog_.TokenKeysAsking();
  catalog_.Refresh(settings_.token_certificates);
  if (open_keys_.Count() > 0) {
    // An open key goes with its object.
    open_keys_.CloseIf([this](const Thumbprint& thumbprint) {
      CK_OBJECT_CLASS key_class = CKO_PRIVATE_KEY;
      Thumbprint id = thumbprint;
      const CK_ATTRIBUTE wanted[] = {{CKA_CLASS, &key_class, sizeof(key_class)},
                                     {CKA_ID, id.data(), id.size()}};
      return catalog_.Find(wanted, 2, true).empty();
    });
  }
  if (!pin_for_tokens_ || !LoggedIn()) return;
  // A card that went away takes the login its PIN made: a card put back, or
  // another one, must not be handed that PIN without a new C_Login.
  const std::vector<Thumbprint>& cards_now = catalog_.TokenKeysAsking();
  for (const Thumbprint& card_key : cards_before) {
    if (std::find(cards_now.begin(), cards_now.end(), card_key) != cards_now.end()) continue;
    LogLine(LogLevel::k_warning, "a card whose PIN made the login went away; log in again");
    LogoutAll();
    return;
  }
}

CK_RV Module::WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR slot, CK_VOID_PTR reserved) {
  if (const CK_RV rv = Ready(); rv != CKR_OK) return rv;
  if (slot == nullptr || reserved != nullptr) return CKR_ARGUMENTS_BAD;
  // The one slot's token never leaves: cards coming and going change its
  // objects, not its presence, so there is never a slot event.
  if ((flags & CKF_DONT_BLOCK) != 0) return CKR_NO_EVENT;
  // Waiting for an event that never comes would only hold the caller's
  // thread until C_Finalize.
  return CKR_FUNCTION_NOT_SUPPORTED;
}

CK_RV Module::GetTokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO_PTR info) {
  if (const CK_RV rv = Ready(); rv != CKR_OK) return rv;
  if (info == nullptr) return CKR_ARGUMENTS_BAD;
  if (slot != k_slot) return CKR_SLOT_ID_INVALID;
  // Whether a login is needed depends on the keys offered now.
  Refresh();
  *info = CK_TOKEN_INFO{};
  Pad(info->label, sizeof(info->label), k_token_label);
  Pad(info->manufacturerID, sizeof(info->manufacturerID), k_manufacturer);
  Pad(info->model, sizeof(info->model), "libx509auth");
  Pad(info->serialNumber, sizeof(info->serialNumber), serial_);
  info->flags = CKF_TOKEN_INITIALIZED | CKF_USER_PIN_INITIALIZED | CKF_WRITE_PROTECTED;
  if (LoginRequired()) info->flags |= CKF_LOGIN_REQUIRED;
  info->ulMaxSessionCount = CK_EFFECTIVELY_INFINITE;
  info->ulSessionCount = sessions_.size();
  info->ulMaxRwSessionCount = CK_EFFECTIVELY_INFINITE;
  info->ulRwSessionCount = static_cast<CK_ULONG>(
      std::count_if(sessions_.begin(), sessions_.end(),
                    [](const auto& entry) { return (entry.second->flags & CKF_RW_SESSION) != 0; }));
  info->ulMaxPinLen = 1024;
  info->ulMinPinLen = 0;
  info->ulTotalPublicMemory = CK_UNAVAILABLE_INFORMATION;
  info->ulFreePublicMemory = CK_UNAVAILABLE_INFORMATION;
  info->ulTotalPrivateMemory = CK_UNAVAILABLE_INFORMATION;
  info->ulFreePrivateMemory = CK_UNAVAILABLE_INFORMATION;
  info->hardwareVersion = {X509_AUTH_API_VERSION, 0};
  info->firmwareVersion = {X509_AUTH_API_VERSION, 0};
  Pad(info->utcTime, sizeof(info->utcTime), "");
  return CKR_OK;
}

CK_RV Module::GetMechanismList(CK_SLOT_ID slot, CK_MECHANISM_TYPE_PTR mechanisms,
                               CK_ULONG_PTR count) {
  if (const CK_RV rv = Ready(); rv != CKR_OK) return rv;
  if (count == nullptr) return CKR_ARGUMENTS_BAD;
  if (slot != k_slot) return CKR_SLOT_ID_INVALID;
  const std::vector<CK_MECHANISM_TYPE> list = Mechanisms::List(link_.SignHashPss() != nullptr);
  OutputArray<CK_MECHANISM_TYPE> output(mechanisms, count);
  if (!output.Takes(list.size())) return output.Answer();
  output.Fill(list);
  return CKR_OK;
}

CK_RV Module::GetMechanismInfo(CK_SLOT_ID slot, CK_MECHANISM_TYPE type,
                               CK_MECHANISM_INFO_PTR info) {
  if (const CK_RV rv = Ready(); rv != CKR_OK) return rv;
  if (info == nullptr) return CKR_ARGUMENTS_BAD;
  if (slot != k_slot) return CKR_SLOT_ID_INVALID;
  const Mechanism* mechanism = Mechanisms::Find(type);
  if (mechanism == nullptr ||
      (mechanism->scheme == Scheme::k_rsa_pss && link_.SignHashPss() == nullptr))
    return CKR_MECHANISM_INVALID;
  *info = Mechanisms::Info(*mechanism);
  return CKR_OK;
}

CK_RV Module::OpenSession(CK_SLOT_ID slot, CK_FLAGS flags, CK_SESSION_HANDLE_PTR session) {
  if (const CK_RV rv = Ready(); rv != CKR_OK) return rv;
  if (session == nullptr) return CKR_ARGUMENTS_BAD;
  if (slot != k_slot) return CKR_SLOT_ID_INVALID;
  if ((flags & CKF_SERIAL_SESSION) == 0) return CKR_SESSION_PARALLEL_NOT_SUPPORTED;
  // Read-write sessions are allowed (programs open them by habit), but
  // nothing on the token can be written.
  const CK_SESSION_HANDLE handle = next_session_++;
  sessions_[handle] = std::make_unique<Session>(flags);
  *session = handle;
  return CKR_OK;
}

void Module::LogoutAll() {
  // The keys a login opened end with it.
  open_keys_.CloseAll();
  pin_.Clear();
  pin_for_tokens_ = false;
}

CK_RV Module::CloseSession(CK_SESSION_HANDLE session) {
  if (const CK_RV rv = Ready(); rv != CKR_OK) return rv;
  if (sessions_.erase(session) == 0) return CKR_SESSION_HANDLE_INVALID;
  // Closing the last session logs the user out.
  if (sessions_.empty()) LogoutAll();
  return CKR_OK;
}

CK_RV Module::CloseAllSessions(CK_SLOT_ID slot) {
  if (const CK_RV rv = Ready(); rv != CKR_OK) return rv;
  if (slot != k_slot) return CKR_SLOT_ID_INVALID;
  sessions_.clear();
  LogoutAll();
  return CKR_OK;
}

CK_RV Module::GetSessionInfo(CK_SESSION_HANDLE session, CK_SESSION_INFO_PTR info) {
  if (const CK_RV rv = Ready(); rv != CKR_OK) return rv;
  if (info == nullptr) return CKR_ARGUMENTS_BAD;
  const Session* found = Find(session);
  if (found == nullptr) return CKR_SESSION_HANDLE_INVALID;
  const bool rw = (found->flags & CKF_RW_SESSION) != 0;
  info->slotID = k_slot;
  info->state = LoggedIn() ? (rw ? CKS_RW_USER_FUNCTIONS : CKS_RO_USER_FUNCTIONS)
                           : (rw ? CKS_RW_PUBLIC_SESSION : CKS_RO_PUBLIC_SESSION);
  info->flags = found->flags;
  info->ulDeviceError = 0;
  return CKR_OK;
}

CK_RV Module::TryPin(const std::vector<Thumbprint>& keys) {
  // The PIN is right when it opens some key that asks for one: with keys of
  // different passwords the user may mean any of them. Wrong only when a
  // key asked, was given the PIN and did not open; a key file gone
  // meanwhile, or a token that cannot be reached, decides nothing.
  static const unsigned char digest[32] = {};
  const uint32_t algorithms[] = {X509_Auth_Algorithm_Rsa, X509_Auth_Algorithm_Ec};
  bool refused = false;
  for (const Thumbprint& thumbprint : keys) {
    PromptRecord prompts;
    x509auth_common::LibraryOwned<X509_Auth_Signature> signature;
    X509_Auth_Result result{};
    {
      LibraryLink::PromptScope scope(&pin_, pin_for_tokens_, prompts);
      result = X509_Auth_SignHash(thumbprint.data(), 2, algorithms, X509_Auth_HashType_Sha256,
                                  digest, x509auth_common::Receive(signature));
    }
    if (result.code == X509_Auth_ResultCode_Success) return CKR_OK;
    if (prompts.answered > 0 && result.code == X509_Auth_ResultCode_KeyOpenFailed) refused = true;
  }
  return refused ? CKR_PIN_INCORRECT : CKR_OK;
}

CK_RV Module::Login(CK_SESSION_HANDLE session, CK_USER_TYPE user, CK_UTF8CHAR_PTR pin,
                    CK_ULONG pin_length) {
  if (const CK_RV rv = Ready(); rv != CKR_OK) return rv;
  if (pin == nullptr && pin_length != 0) return CKR_ARGUMENTS_BAD;
  if (Find(session) == nullptr) return CKR_SESSION_HANDLE_INVALID;
  // No security officer, and no key needs a context-specific login
  // (CKA_ALWAYS_AUTHENTICATE is false on every key).
  if (user != CKU_USER) return CKR_USER_TYPE_INVALID;
  if (LoggedIn()) return CKR_USER_ALREADY_LOGGED_IN;
  if (pin_length > 1024) return CKR_PIN_LEN_RANGE;
  pin_.Set(pin, pin_length);
  pin_for_tokens_ = false;
  Refresh();
  if (!LoginRequired()) return CKR_OK;  // no key asks: any PIN will do
  // A password typed for a key file must never reach a card: a wrong one
  // would cost the card one of its few tries, and a card's module would
  // see it. While some key file asks, the PIN is checked against key files
  // only; only when no key file asks is it the card's PIN.
  const std::vector<Thumbprint>& files = catalog_.KeyFilesAsking();
  pin_for_tokens_ = files.empty() && !catalog_.TokenKeysAsking().empty();
  const CK_RV tried = TryPin(files.empty() ? catalog_.TokenKeysAsking() : files);
  if (tried != CKR_OK) LogoutAll();
  return tried;
}

CK_RV Module::Logout(CK_SESSION_HANDLE session) {
  if (const CK_RV rv = Ready(); rv != CKR_OK) return rv;
  if (Find(session) == nullptr) return CKR_SESSION_HANDLE_INVALID;
  if (!LoggedIn()) return CKR_USER_NOT_LOGGED_IN;
  LogoutAll();
  return CKR_OK;
}

CK_RV Module::GetAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE handle,
                                CK_ATTRIBUTE_PTR templ, CK_ULONG count) {
  if (const CK_RV rv = Ready(); rv != CKR_OK) return rv;
  if (templ == nullptr && count != 0) return CKR_ARGUMENTS_BAD;
  if (Find(session) == nullptr) return CKR_SESSION_HANDLE_INVALID;
  const std::shared_ptr<const TokenObject> object = catalog_.Get(handle);
  if (object == nullptr) return CKR_OBJECT_HANDLE_INVALID;
  CK_RV result = CKR_OK;
  for (CK_ULONG i = 0; i < count; ++i) {
    CK_ATTRIBUTE& attribute = templ[i];
    if (object->IsSensitive(attribute.type)) {
      attribute.ulValueLen = CK_UNAVAILABLE_INFORMATION;
      result = CKR_ATTRIBUTE_SENSITIVE;
      continue;
    }
    const Bytes* value = object->Find(attribute.type);
    if (value == nullptr) {
      attribute.ulValueLen = CK_UNAVAILABLE_INFORMATION;
      result = CKR_ATTRIBUTE_TYPE_INVALID;
    } else if (attribute.pValue == nullptr) {
      attribute.ulValueLen = value->size();
    } else if (attribute.ulValueLen < value->size()) {
      attribute.ulValueLen = CK_UNAVAILABLE_INFORMATION;
      result = CKR_BUFFER_TOO_SMALL;
    } else {
      if (!value->empty()) std::memcpy(attribute.pValue, value->data(), value->size());
      attribute.ulValueLen = value->size();
    }
  }
  return result;
}

CK_RV Module::GetObjectSize(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE handle, CK_ULONG_PTR size) {
  if (const CK_RV rv = Ready(); rv != CKR_OK) return rv;
  if (size == nullptr) return CKR_ARGUMENTS_BAD;
  if (Find(session) == nullptr) return CKR_SESSION_HANDLE_INVALID;
  if (catalog_.Get(handle) == nullptr) return CKR_OBJECT_HANDLE_INVALID;
  *size = CK_UNAVAILABLE_INFORMATION;
  return CKR_OK;
}

CK_RV Module::FindObjectsInit(CK_SESSION_HANDLE session, CK_ATTRIBUTE_PTR templ, CK_ULONG count) {
  if (const CK_RV rv = Ready(); rv != CKR_OK) return rv;
  if (!ValidTemplate(templ, count)) return CKR_ARGUMENTS_BAD;
  Session* found = Find(session);
  if (found == nullptr) return CKR_SESSION_HANDLE_INVALID;
  if (found->finding) return CKR_OPERATION_ACTIVE;
  Refresh();
  // Private objects (keys, when a login is needed) show after the login.
  found->found = catalog_.Find(templ, count, LoggedIn() || !LoginRequired());
  found->next_found = 0;
  found->finding = true;
  return CKR_OK;
}

CK_RV Module::FindObjects(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE_PTR objects,
                          CK_ULONG max_count, CK_ULONG_PTR count) {
  if (const CK_RV rv = Ready(); rv != CKR_OK) return rv;
  if (count == nullptr || (objects == nullptr && max_count != 0)) return CKR_ARGUMENTS_BAD;
  Session* found = Find(session);
  if (found == nullptr) return CKR_SESSION_HANDLE_INVALID;
  if (!found->finding) return CKR_OPERATION_NOT_INITIALIZED;
  CK_ULONG given = 0;
  while (given < max_count && found->next_found < found->found.size())
    objects[given++] = found->found[found->next_found++];
  *count = given;
  return CKR_OK;
}

CK_RV Module::FindObjectsFinal(CK_SESSION_HANDLE session) {
  if (const CK_RV rv = Ready(); rv != CKR_OK) return rv;
  Session* found = Find(session);
  if (found == nullptr) return CKR_SESSION_HANDLE_INVALID;
  if (!found->finding) return CKR_OPERATION_NOT_INITIALIZED;
  found->finding = false;
  found->found.clear();
  return CKR_OK;
}

template <typename Operation>
Session* Module::Running(CK_SESSION_HANDLE handle, bool arguments_ok,
                         SessionOperation<Operation> operation, CK_RV& rv) {
  rv = Ready();
  if (rv != CKR_OK) return nullptr;
  if (!arguments_ok) {
    rv = CKR_ARGUMENTS_BAD;
    return nullptr;
  }
  Session* found = Find(handle);
  if (found == nullptr) {
    rv = CKR_SESSION_HANDLE_INVALID;
    return nullptr;
  }
  if (found->*operation == nullptr) {
    rv = CKR_OPERATION_NOT_INITIALIZED;
    return nullptr;
  }
  return found;
}

template <typename Operation>
CK_RV Module::Update(CK_SESSION_HANDLE handle, CK_BYTE_PTR part, CK_ULONG part_length,
                     SessionOperation<Operation> operation) {
  CK_RV rv = CKR_OK;
  Session* found = Running(handle, part != nullptr || part_length == 0, operation, rv);
  if (found == nullptr) return rv;
  rv = (found->*operation)->Update(part, part_length);
  if (rv != CKR_OK) (found->*operation).reset();
  return rv;
}

template <typename Operation>
CK_RV Module::AllAtOnce(CK_SESSION_HANDLE handle, CK_BYTE_PTR data, CK_ULONG data_length,
                        CK_BYTE_PTR output, CK_ULONG_PTR output_length,
                        SessionOperation<Operation> operation, Finisher finish) {
  CK_RV rv = CKR_OK;
  Session* found = Running(
      handle, (data != nullptr || data_length == 0) && output_length != nullptr, operation, rv);
  if (found == nullptr) return rv;
  // A length query must not consume the data: it is given again with the
  // buffer, so the length is answered before the operation sees any data.
  OutputBuffer probe(output, output_length);
  if (!probe.Takes((found->*operation)->OutputLength())) return probe.Answer();
  rv = (found->*operation)->Update(data, data_length);
  if (rv != CKR_OK) {
    (found->*operation).reset();
    return rv;
  }
  return (this->*finish)(*found, output, output_length);
}

template <typename Operation>
CK_RV Module::FinishRunning(CK_SESSION_HANDLE handle, CK_BYTE_PTR output,
                            CK_ULONG_PTR output_length, SessionOperation<Operation> operation,
                            Finisher finish) {
  CK_RV rv = CKR_OK;
  Session* found = Running(handle, output_length != nullptr, operation, rv);
  return found == nullptr ? rv : (this->*finish)(*found, output, output_length);
}

CK_RV Module::SignInit(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism,
                       CK_OBJECT_HANDLE key) {
  if (const CK_RV rv = Ready(); rv != CKR_OK) return rv;
  if (mechanism == nullptr) return CKR_ARGUMENTS_BAD;
  Session* found = Find(session);
  if (found == nullptr) return CKR_SESSION_HANDLE_INVALID;
  if (found->sign != nullptr) return CKR_OPERATION_ACTIVE;
  // A card's key is looked up in the cards as they are now: one pulled
  // since the last search makes its handle invalid here.
  if (settings_.token_certificates) Refresh();
  std::shared_ptr<const TokenObject> object = catalog_.Get(key);
  if (object == nullptr) return CKR_KEY_HANDLE_INVALID;
  if (object->BoolAttribute(CKA_PRIVATE) && !LoggedIn()) return CKR_USER_NOT_LOGGED_IN;
  return SignOperation::Begin(*mechanism, std::move(object), link_.SignHashPss(), found->sign);
}

CK_RV Module::LibraryFailure(X509_Auth_ResultCode code, const PromptRecord& prompts,
                             bool decrypting) {
  // A token key after a login whose PIN was a key file's: that PIN is not
  // this key's secret, as with two key files of different passwords.
  if (prompts.withheld > 0) return CKR_PIN_INCORRECT;
  if (prompts.asked > prompts.answered) {
    // A key asked while nobody was logged in: from now on the token says
    // that a login is needed.
    prompted_without_pin_ = true;
    return CKR_USER_NOT_LOGGED_IN;
  }
  switch (code) {
    case X509_Auth_ResultCode_KeyOpenFailed:
      return prompts.answered > 0 ? CKR_PIN_INCORRECT : CKR_FUNCTION_FAILED;
    case X509_Auth_ResultCode_CertificateNotFound:
      LogLine(LogLevel::k_error, "the certificate of this key is no longer offered");
      return CKR_FUNCTION_FAILED;
    case X509_Auth_ResultCode_KeyMismatch:
      LogLine(LogLevel::k_error, "the key file of this key no longer holds its certificate's key");
      return CKR_KEY_CHANGED;
    case X509_Auth_ResultCode_AlgorithmNotSupported: return CKR_KEY_TYPE_INCONSISTENT;
    case X509_Auth_ResultCode_MechanismNotSupported: return CKR_MECHANISM_INVALID;
    case X509_Auth_ResultCode_InvalidArgument: return CKR_MECHANISM_PARAM_INVALID;
    case X509_Auth_ResultCode_StoreOpenFailed: return CKR_DEVICE_ERROR;
    case X509_Auth_ResultCode_KeyOperationFailed:
      return decrypting ? CKR_ENCRYPTED_DATA_INVALID : CKR_FUNCTION_FAILED;
    default: return CKR_FUNCTION_FAILED;
  }
}

CK_RV Module::FinishSign(Session& session, CK_BYTE_PTR signature, CK_ULONG_PTR signature_length) {
  OutputBuffer output(signature, signature_length);
  if (!output.Takes(session.sign->OutputLength())) return output.Answer();
  // From here the operation ends, whatever the outcome.
  std::unique_ptr<SignOperation> operation = std::move(session.sign);
  Bytes made;
  X509_Auth_ResultCode code = X509_Auth_ResultCode_Success;
  PromptRecord prompts;
  CK_RV rv;
  {
    LibraryLink::PromptScope scope(LoggedIn() ? &pin_ : nullptr, pin_for_tokens_, prompts);
    rv = operation->Sign(made, code, open_keys_);
  }
  if (rv == CKR_FUNCTION_FAILED && code != X509_Auth_ResultCode_Success)
    rv = LibraryFailure(code, prompts, false);
  if (rv != CKR_OK) return rv;
  output.Fill(made);
  return CKR_OK;
}

CK_RV Module::Sign(CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG data_length,
                   CK_BYTE_PTR signature, CK_ULONG_PTR signature_length) {
  return AllAtOnce(session, data, data_length, signature, signature_length, &Session::sign,
                   &Module::FinishSign);
}

CK_RV Module::SignUpdate(CK_SESSION_HANDLE session, CK_BYTE_PTR part, CK_ULONG part_length) {
  return Update(session, part, part_length, &Session::sign);
}

CK_RV Module::SignFinal(CK_SESSION_HANDLE session, CK_BYTE_PTR signature,
                        CK_ULONG_PTR signature_length) {
  return FinishRunning(session, signature, signature_length, &Session::sign, &Module::FinishSign);
}

CK_RV Module::DecryptInit(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism,
                          CK_OBJECT_HANDLE key) {
  if (const CK_RV rv = Ready(); rv != CKR_OK) return rv;
  if (mechanism == nullptr) return CKR_ARGUMENTS_BAD;
  Session* found = Find(session);
  if (found == nullptr) return CKR_SESSION_HANDLE_INVALID;
  if (found->decrypt != nullptr) return CKR_OPERATION_ACTIVE;
  if (settings_.token_certificates) Refresh();
  std::shared_ptr<const TokenObject> object = catalog_.Get(key);
  if (object == nullptr) return CKR_KEY_HANDLE_INVALID;
  if (object->BoolAttribute(CKA_PRIVATE) && !LoggedIn()) return CKR_USER_NOT_LOGGED_IN;
  return DecryptOperation::Begin(*mechanism, std::move(object), found->decrypt);
}

CK_RV Module::Decrypt(CK_SESSION_HANDLE session, CK_BYTE_PTR encrypted, CK_ULONG encrypted_length,
                      CK_BYTE_PTR data, CK_ULONG_PTR data_length) {
  CK_RV refused = CKR_OK;
  Session* found =
      Running(session, (encrypted != nullptr || encrypted_length == 0) && data_length != nullptr,
              &Session::decrypt, refused);
  if (found == nullptr) return refused;
  X509_Auth_ResultCode code = X509_Auth_ResultCode_Success;
  PromptRecord prompts;
  CK_RV rv;
  {
    LibraryLink::PromptScope scope(LoggedIn() ? &pin_ : nullptr, pin_for_tokens_, prompts);
    rv = found->decrypt->Decrypt(encrypted, encrypted_length, code, open_keys_);
  }
  if (rv != CKR_OK) {
    found->decrypt.reset();
    return rv == CKR_FUNCTION_FAILED && code != X509_Auth_ResultCode_Success
               ? LibraryFailure(code, prompts, true)
               : rv;
  }
  OutputBuffer output(data, data_length);
  if (!output.Takes(found->decrypt->Plaintext().size())) return output.Answer();
  output.Fill(found->decrypt->Plaintext());
  found->decrypt.reset();
  return CKR_OK;
}

CK_RV Module::DigestInit(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism) {
  if (const CK_RV rv = Ready(); rv != CKR_OK) return rv;
  if (mechanism == nullptr) return CKR_ARGUMENTS_BAD;
  Session* found = Find(session);
  if (found == nullptr) return CKR_SESSION_HANDLE_INVALID;
  if (found->digest != nullptr) return CKR_OPERATION_ACTIVE;
  return DigestOperation::Begin(*mechanism, found->digest);
}

CK_RV Module::FinishDigest(Session& session, CK_BYTE_PTR digest, CK_ULONG_PTR digest_length) {
  OutputBuffer output(digest, digest_length);
  if (!output.Takes(session.digest->OutputLength())) return output.Answer();
  const std::unique_ptr<DigestOperation> operation = std::move(session.digest);
  Bytes made;
  if (const CK_RV rv = operation->Final(made); rv != CKR_OK) return rv;
  output.Fill(made);
  return CKR_OK;
}

CK_RV Module::Digest(CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG data_length,
                     CK_BYTE_PTR digest, CK_ULONG_PTR digest_length) {
  return AllAtOnce(session, data, data_length, digest, digest_length, &Session::digest,
                   &Module::FinishDigest);
}

CK_RV Module::DigestUpdate(CK_SESSION_HANDLE session, CK_BYTE_PTR part, CK_ULONG part_length) {
  return Update(session, part, part_length, &Session::digest);
}

CK_RV Module::DigestKey(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key) {
  CK_RV refused = CKR_OK;
  Session* found = Running(session, true, &Session::digest, refused);
  if (found == nullptr) return refused;
  const std::shared_ptr<const TokenObject> object = catalog_.Get(key);
  // Every way out here is an error, and an error ends the digest.
  found->digest.reset();
  return object == nullptr ? CKR_KEY_HANDLE_INVALID : DigestOperation::DigestKey(*object);
}

CK_RV Module::DigestFinal(CK_SESSION_HANDLE session, CK_BYTE_PTR digest,
                          CK_ULONG_PTR digest_length) {
  return FinishRunning(session, digest, digest_length, &Session::digest, &Module::FinishDigest);
}

CK_RV Module::SeedRandom(CK_SESSION_HANDLE session, CK_BYTE_PTR seed, CK_ULONG seed_length) {
  if (const CK_RV rv = Ready(); rv != CKR_OK) return rv;
  if (seed == nullptr && seed_length != 0) return CKR_ARGUMENTS_BAD;
  if (Find(session) == nullptr) return CKR_SESSION_HANDLE_INVALID;
  return CKR_RANDOM_NO_RNG;
}

CK_RV Module::GenerateRandom(CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG data_length) {
  if (const CK_RV rv = Ready(); rv != CKR_OK) return rv;
  if (data == nullptr && data_length != 0) return CKR_ARGUMENTS_BAD;
  if (Find(session) == nullptr) return CKR_SESSION_HANDLE_INVALID;
  return CKR_RANDOM_NO_RNG;
}

}  // namespace x509auth_pkcs11
