#pragma once
// The module: one slot holding one token ("x509auth") whose objects are the
// certificates libx509auth offers. Every C_* entry point (Entry.cpp)
// forwards here under one process-wide lock, so the library, which is not
// thread-safe, sees one call at a time. Each method checks, in order:
// initialised in this process, arguments, session handle; then works.
#include <sys/types.h>

#include <map>
#include <memory>
#include <string>

#include "LibraryLink.h"
#include "ModuleLock.h"
#include "ModuleSettings.h"
#include "ObjectCatalog.h"
#include "OpenKeys.h"
#include "Pin.h"
#include "Pkcs11.h"
#include "Session.h"

namespace x509auth_pkcs11 {

class Module {
 public:
  static constexpr CK_SLOT_ID k_slot = 1;

  // The process's module object; never destroyed (see GetInstance()).
  static Module& GetInstance();
  ModuleLock& Lock() { return lock_; }

  CK_RV Initialize(CK_VOID_PTR init_args);
  CK_RV Finalize(CK_VOID_PTR reserved);
  CK_RV GetInfo(CK_INFO_PTR info);
  CK_RV GetSlotList(CK_BBOOL token_present, CK_SLOT_ID_PTR slots, CK_ULONG_PTR count);
  CK_RV GetSlotInfo(CK_SLOT_ID slot, CK_SLOT_INFO_PTR info);
  CK_RV GetTokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO_PTR info);
  CK_RV GetMechanismList(CK_SLOT_ID slot, CK_MECHANISM_TYPE_PTR mechanisms, CK_ULONG_PTR count);
  CK_RV GetMechanismInfo(CK_SLOT_ID slot, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO_PTR info);
  CK_RV OpenSession(CK_SLOT_ID slot, CK_FLAGS flags, CK_SESSION_HANDLE_PTR session);
  CK_RV CloseSession(CK_SESSION_HANDLE session);
  CK_RV CloseAllSessions(CK_SLOT_ID slot);
  CK_RV GetSessionInfo(CK_SESSION_HANDLE session, CK_SESSION_INFO_PTR info);
  CK_RV Login(CK_SESSION_HANDLE session, CK_USER_TYPE user, CK_UTF8CHAR_PTR pin,
              CK_ULONG pin_length);
  CK_RV Logout(CK_SESSION_HANDLE session);
  CK_RV GetAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                          CK_ATTRIBUTE_PTR templ, CK_ULONG count);
  CK_RV GetObjectSize(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ULONG_PTR size);
  CK_RV FindObjectsInit(CK_SESSION_HANDLE session, CK_ATTRIBUTE_PTR templ, CK_ULONG count);
  CK_RV FindObjects(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE_PTR objects, CK_ULONG max_count,
                    CK_ULONG_PTR count);
  CK_RV FindObjectsFinal(CK_SESSION_HANDLE session);
  CK_RV SignInit(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE key);
  CK_RV Sign(CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG data_length,
             CK_BYTE_PTR signature, CK_ULONG_PTR signature_length);
  CK_RV SignUpdate(CK_SESSION_HANDLE session, CK_BYTE_PTR part, CK_ULONG part_length);
  CK_RV SignFinal(CK_SESSION_HANDLE session, CK_BYTE_PTR signature, CK_ULONG_PTR signature_length);
  CK_RV DecryptInit(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE key);
  CK_RV Decrypt(CK_SESSION_HANDLE session, CK_BYTE_PTR encrypted, CK_ULONG encrypted_length,
                CK_BYTE_PTR data, CK_ULONG_PTR data_length);
  CK_RV DigestInit(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism);
  CK_RV Digest(CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG data_length,
               CK_BYTE_PTR digest, CK_ULONG_PTR digest_length);
  CK_RV DigestUpdate(CK_SESSION_HANDLE session, CK_BYTE_PTR part, CK_ULONG part_length);
  CK_RV DigestKey(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key);
  CK_RV DigestFinal(CK_SESSION_HANDLE session, CK_BYTE_PTR digest, CK_ULONG_PTR digest_length);
  // The token has no generator of its own: programs use theirs.
  CK_RV SeedRandom(CK_SESSION_HANDLE session, CK_BYTE_PTR seed, CK_ULONG seed_length);
  CK_RV GenerateRandom(CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG data_length);
  // CKR_NO_EVENT with CKF_DONT_BLOCK; a blocking wait is not supported.
  CK_RV WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR slot, CK_VOID_PTR reserved);

 private:
  Module() = default;

  // CKR_OK when C_Initialize ran in this process and C_Finalize did not
  // follow; a forked child must initialise again.
  CK_RV Ready() const;
  // The session, or null.
  Session* Find(CK_SESSION_HANDLE handle);
  bool LoggedIn() const { return pin_.Present(); }
  bool LoginRequired() const { return catalog_.NeedsLogin() || prompted_without_pin_; }
  // Lists the objects again; a login made with a card's PIN ends when that
  // card's key is gone.
  void Refresh();
  template <typename Operation>
  using SessionOperation = std::unique_ptr<Operation> Session::*;
  // The session |handle| names with its |operation| under way, after the
  // checks every call on a running operation makes, in this order: the
  // module initialised, the arguments (|arguments_ok|), the session, the
  // operation. Null, with |rv| the first refusal, otherwise.
  template <typename Operation>
  Session* Running(CK_SESSION_HANDLE handle, bool arguments_ok,
                   SessionOperation<Operation> operation, CK_RV& rv);
  // C_SignUpdate and C_DigestUpdate: |part| added; an error ends the
  // operation.
  template <typename Operation>
  CK_RV Update(CK_SESSION_HANDLE handle, CK_BYTE_PTR part, CK_ULONG part_length,
               SessionOperation<Operation> operation);
  using Finisher = CK_RV (Module::*)(Session&, CK_BYTE_PTR, CK_ULONG_PTR);
  // C_Sign and C_Digest: all the data in one call, then |finish|.
  template <typename Operation>
  CK_RV AllAtOnce(CK_SESSION_HANDLE handle, CK_BYTE_PTR data, CK_ULONG data_length,
                  CK_BYTE_PTR output, CK_ULONG_PTR output_length,
                  SessionOperation<Operation> operation, Finisher finish);
  // C_SignFinal and C_DigestFinal: |finish| on the data given so far.
  template <typename Operation>
  CK_RV FinishRunning(CK_SESSION_HANDLE handle, CK_BYTE_PTR output, CK_ULONG_PTR output_length,
                      SessionOperation<Operation> operation, Finisher finish);
  // Ends the signature of |session| with the data given so far.
  CK_RV FinishSign(Session& session, CK_BYTE_PTR signature, CK_ULONG_PTR signature_length);
  // Ends the digest of |session|, unless the buffer only asks the length
  // or is too small.
  CK_RV FinishDigest(Session& session, CK_BYTE_PTR digest, CK_ULONG_PTR digest_length);
  // The PKCS#11 answer to a refusal of the library, from its code and the
  // prompts it made meanwhile.
  CK_RV LibraryFailure(X509_Auth_ResultCode code, const PromptRecord& prompts, bool decrypting);
  // Checks the PIN against |keys|, which ask for one; CKR_OK when one opens
  // or none answers either way.
  CK_RV TryPin(const std::vector<Thumbprint>& keys);
  void LogoutAll();

  ModuleLock lock_;
  bool initialized_ = false;
  pid_t pid_ = 0;
  ModuleSettings settings_;
  LibraryLink link_;
  ObjectCatalog catalog_;
  OpenKeys open_keys_;
  Pin pin_;
  // Whether the login PIN is the card's: checked against token keys at
  // C_Login because no key file asked. Only then does it answer a token's
  // PIN prompt.
  bool pin_for_tokens_ = false;
  bool prompted_without_pin_ = false;
  std::string serial_;
  std::map<CK_SESSION_HANDLE, std::unique_ptr<Session>> sessions_;
  CK_SESSION_HANDLE next_session_ = 1;
};

}  // namespace x509auth_pkcs11
