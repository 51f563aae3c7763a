// The module's C entry points: each forwards to the one Module object under
// its lock, and no exception crosses into the calling program. Only
// C_GetFunctionList is exported (x509auth-pkcs11.map); programs reach the
// rest through the function list.
#include <exception>
#include <new>

#include "HostErrorQueue.h"
#include "Log.h"
#include "Module.h"

using x509auth_pkcs11::HostErrorQueue;
using x509auth_pkcs11::Module;
using x509auth_pkcs11::ModuleLock;

namespace {

// No exception crosses into the program: each ends as a result code.
template <typename Call>
CK_RV Guarded(Call&& call) noexcept {
  try {
    return call();
  } catch (const std::bad_alloc&) {
    return CKR_HOST_MEMORY;
  } catch (const std::exception& error) {
    x509auth_pkcs11::LogLine(3, "internal error: %s", error.what());
    return CKR_GENERAL_ERROR;
  } catch (...) {
    return CKR_GENERAL_ERROR;
  }
}

template <typename Call>
CK_RV Locked(Call&& call) noexcept {
  return Guarded([&] {
    Module& module = Module::GetInstance();
    const ModuleLock::Hold hold(module.Lock());
    // The program's OpenSSL errors as they were, on every way out. Under
    // the lock, so that a fork() never meets another thread of the module
    // inside OpenSSL.
    const HostErrorQueue host_errors;
    return call(module);
  });
}

CK_RV C_Initialize(CK_VOID_PTR args) {
  return Locked([&](Module& m) { return m.Initialize(args); });
}
CK_RV C_Finalize(CK_VOID_PTR reserved) {
  return Locked([&](Module& m) { return m.Finalize(reserved); });
}
CK_RV C_GetInfo(CK_INFO_PTR info) {
  return Locked([&](Module& m) { return m.GetInfo(info); });
}
CK_RV C_GetFunctionListInternal(CK_FUNCTION_LIST_PTR_PTR list);
CK_RV C_GetSlotList(CK_BBOOL present, CK_SLOT_ID_PTR slots, CK_ULONG_PTR count) {
  return Locked([&](Module& m) { return m.GetSlotList(present, slots, count); });
}
CK_RV C_GetSlotInfo(CK_SLOT_ID slot, CK_SLOT_INFO_PTR info) {
  return Locked([&](Module& m) { return m.GetSlotInfo(slot, info); });
}
CK_RV C_GetTokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO_PTR info) {
  return Locked([&](Module& m) { return m.GetTokenInfo(slot, info); });
}
CK_RV C_GetMechanismList(CK_SLOT_ID slot, CK_MECHANISM_TYPE_PTR list, CK_ULONG_PTR count) {
  return Locked([&](Module& m) { return m.GetMechanismList(slot, list, count); });
}
CK_RV C_GetMechanismInfo(CK_SLOT_ID slot, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO_PTR info) {
  return Locked([&](Module& m) { return m.GetMechanismInfo(slot, type, info); });
}
CK_RV C_OpenSession(CK_SLOT_ID slot, CK_FLAGS flags, CK_VOID_PTR, CK_NOTIFY,
                    CK_SESSION_HANDLE_PTR session) {
  return Locked([&](Module& m) { return m.OpenSession(slot, flags, session); });
}
CK_RV C_CloseSession(CK_SESSION_HANDLE session) {
  return Locked([&](Module& m) { return m.CloseSession(session); });
}
CK_RV C_CloseAllSessions(CK_SLOT_ID slot) {
  return Locked([&](Module& m) { return m.CloseAllSessions(slot); });
}
CK_RV C_GetSessionInfo(CK_SESSION_HANDLE session, CK_SESSION_INFO_PTR info) {
  return Locked([&](Module& m) { return m.GetSessionInfo(session, info); });
}
CK_RV C_Login(CK_SESSION_HANDLE session, CK_USER_TYPE user, CK_UTF8CHAR_PTR pin, CK_ULONG length) {
  return Locked([&](Module& m) { return m.Login(session, user, pin, length); });
}
CK_RV C_Logout(CK_SESSION_HANDLE session) {
  return Locked([&](Module& m) { return m.Logout(session); });
}
CK_RV C_GetObjectSize(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ULONG_PTR size) {
  return Locked([&](Module& m) { return m.GetObjectSize(session, object, size); });
}
CK_RV C_GetAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                          CK_ATTRIBUTE_PTR templ, CK_ULONG count) {
  return Locked([&](Module& m) { return m.GetAttributeValue(session, object, templ, count); });
}
CK_RV C_FindObjectsInit(CK_SESSION_HANDLE session, CK_ATTRIBUTE_PTR templ, CK_ULONG count) {
  return Locked([&](Module& m) { return m.FindObjectsInit(session, templ, count); });
}
CK_RV C_FindObjects(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE_PTR objects, CK_ULONG max,
                    CK_ULONG_PTR count) {
  return Locked([&](Module& m) { return m.FindObjects(session, objects, max, count); });
}
CK_RV C_FindObjectsFinal(CK_SESSION_HANDLE session) {
  return Locked([&](Module& m) { return m.FindObjectsFinal(session); });
}
CK_RV C_DecryptInit(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE key) {
  return Locked([&](Module& m) { return m.DecryptInit(session, mechanism, key); });
}
CK_RV C_Decrypt(CK_SESSION_HANDLE session, CK_BYTE_PTR in, CK_ULONG in_length, CK_BYTE_PTR out,
                CK_ULONG_PTR out_length) {
  return Locked([&](Module& m) { return m.Decrypt(session, in, in_length, out, out_length); });
}
CK_RV C_SignInit(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE key) {
  return Locked([&](Module& m) { return m.SignInit(session, mechanism, key); });
}
CK_RV C_Sign(CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG length, CK_BYTE_PTR signature,
             CK_ULONG_PTR signature_length) {
  return Locked(
      [&](Module& m) { return m.Sign(session, data, length, signature, signature_length); });
}
CK_RV C_SignUpdate(CK_SESSION_HANDLE session, CK_BYTE_PTR part, CK_ULONG length) {
  return Locked([&](Module& m) { return m.SignUpdate(session, part, length); });
}
CK_RV C_SignFinal(CK_SESSION_HANDLE session, CK_BYTE_PTR signature, CK_ULONG_PTR length) {
  return Locked([&](Module& m) { return m.SignFinal(session, signature, length); });
}

CK_RV C_DigestInit(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism) {
  return Locked([&](Module& m) { return m.DigestInit(session, mechanism); });
}
CK_RV C_Digest(CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG length, CK_BYTE_PTR digest,
               CK_ULONG_PTR digest_length) {
  return Locked([&](Module& m) { return m.Digest(session, data, length, digest, digest_length); });
}
CK_RV C_DigestUpdate(CK_SESSION_HANDLE session, CK_BYTE_PTR part, CK_ULONG length) {
  return Locked([&](Module& m) { return m.DigestUpdate(session, part, length); });
}
CK_RV C_DigestKey(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key) {
  return Locked([&](Module& m) { return m.DigestKey(session, key); });
}
CK_RV C_DigestFinal(CK_SESSION_HANDLE session, CK_BYTE_PTR digest, CK_ULONG_PTR length) {
  return Locked([&](Module& m) { return m.DigestFinal(session, digest, length); });
}
CK_RV C_SeedRandom(CK_SESSION_HANDLE session, CK_BYTE_PTR seed, CK_ULONG length) {
  return Locked([&](Module& m) { return m.SeedRandom(session, seed, length); });
}
CK_RV C_GenerateRandom(CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG length) {
  return Locked([&](Module& m) { return m.GenerateRandom(session, data, length); });
}

// What the token cannot do: it holds no writable objects, generates nothing,
// verifies and encrypts nothing (the program does that with the
// certificate's public key).
CK_RV C_InitToken(CK_SLOT_ID, CK_UTF8CHAR_PTR, CK_ULONG, CK_UTF8CHAR_PTR) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_InitPIN(CK_SESSION_HANDLE, CK_UTF8CHAR_PTR, CK_ULONG) { return CKR_FUNCTION_NOT_SUPPORTED; }
CK_RV C_SetPIN(CK_SESSION_HANDLE, CK_UTF8CHAR_PTR, CK_ULONG, CK_UTF8CHAR_PTR, CK_ULONG) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_GetOperationState(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG_PTR) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_SetOperationState(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_OBJECT_HANDLE,
                          CK_OBJECT_HANDLE) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_CreateObject(CK_SESSION_HANDLE, CK_ATTRIBUTE_PTR, CK_ULONG, CK_OBJECT_HANDLE_PTR) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_CopyObject(CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_ATTRIBUTE_PTR, CK_ULONG,
                   CK_OBJECT_HANDLE_PTR) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_DestroyObject(CK_SESSION_HANDLE, CK_OBJECT_HANDLE) { return CKR_FUNCTION_NOT_SUPPORTED; }
CK_RV C_SetAttributeValue(CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_ATTRIBUTE_PTR, CK_ULONG) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_EncryptInit(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_Encrypt(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_EncryptUpdate(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_EncryptFinal(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG_PTR) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_DecryptUpdate(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_DecryptFinal(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG_PTR) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_SignRecoverInit(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_SignRecover(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_VerifyInit(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_Verify(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_VerifyUpdate(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_VerifyFinal(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG) { return CKR_FUNCTION_NOT_SUPPORTED; }
CK_RV C_VerifyRecoverInit(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_VerifyRecover(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_DigestEncryptUpdate(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_DecryptDigestUpdate(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_SignEncryptUpdate(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_DecryptVerifyUpdate(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_GenerateKey(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_ATTRIBUTE_PTR, CK_ULONG,
                    CK_OBJECT_HANDLE_PTR) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_GenerateKeyPair(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_ATTRIBUTE_PTR, CK_ULONG,
                        CK_ATTRIBUTE_PTR, CK_ULONG, CK_OBJECT_HANDLE_PTR, CK_OBJECT_HANDLE_PTR) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_WrapKey(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE, CK_OBJECT_HANDLE,
                CK_BYTE_PTR, CK_ULONG_PTR) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_UnwrapKey(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE, CK_BYTE_PTR, CK_ULONG,
                  CK_ATTRIBUTE_PTR, CK_ULONG, CK_OBJECT_HANDLE_PTR) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_DeriveKey(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE, CK_ATTRIBUTE_PTR, CK_ULONG,
                  CK_OBJECT_HANDLE_PTR) {
  return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV C_GetFunctionStatus(CK_SESSION_HANDLE) { return CKR_FUNCTION_NOT_PARALLEL; }
CK_RV C_CancelFunction(CK_SESSION_HANDLE) { return CKR_FUNCTION_NOT_PARALLEL; }
CK_RV C_WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR slot, CK_VOID_PTR reserved) {
  return Locked([&](Module& m) { return m.WaitForSlotEvent(flags, slot, reserved); });
}

CK_FUNCTION_LIST k_functions = {{CRYPTOKI_VERSION_MAJOR, CRYPTOKI_VERSION_MINOR},
                                C_Initialize,
                                C_Finalize,
                                C_GetInfo,
                                C_GetFunctionListInternal,
                                C_GetSlotList,
                                C_GetSlotInfo,
                                C_GetTokenInfo,
                                C_GetMechanismList,
                                C_GetMechanismInfo,
                                C_InitToken,
                                C_InitPIN,
                                C_SetPIN,
                                C_OpenSession,
                                C_CloseSession,
                                C_CloseAllSessions,
                                C_GetSessionInfo,
                                C_GetOperationState,
                                C_SetOperationState,
                                C_Login,
                                C_Logout,
                                C_CreateObject,
                                C_CopyObject,
                                C_DestroyObject,
                                C_GetObjectSize,
                                C_GetAttributeValue,
                                C_SetAttributeValue,
                                C_FindObjectsInit,
                                C_FindObjects,
                                C_FindObjectsFinal,
                                C_EncryptInit,
                                C_Encrypt,
                                C_EncryptUpdate,
                                C_EncryptFinal,
                                C_DecryptInit,
                                C_Decrypt,
                                C_DecryptUpdate,
                                C_DecryptFinal,
                                C_DigestInit,
                                C_Digest,
                                C_DigestUpdate,
                                C_DigestKey,
                                C_DigestFinal,
                                C_SignInit,
                                C_Sign,
                                C_SignUpdate,
                                C_SignFinal,
                                C_SignRecoverInit,
                                C_SignRecover,
                                C_VerifyInit,
                                C_Verify,
                                C_VerifyUpdate,
                                C_VerifyFinal,
                                C_VerifyRecoverInit,
                                C_VerifyRecover,
                                C_DigestEncryptUpdate,
                                C_DecryptDigestUpdate,
                                C_SignEncryptUpdate,
                                C_DecryptVerifyUpdate,
                                C_GenerateKey,
                                C_GenerateKeyPair,
                                C_WrapKey,
                                C_UnwrapKey,
                                C_DeriveKey,
                                C_SeedRandom,
                                C_GenerateRandom,
                                C_GetFunctionStatus,
                                C_CancelFunction,
                                C_WaitForSlotEvent};

CK_RV C_GetFunctionListInternal(CK_FUNCTION_LIST_PTR_PTR list) {
  return Guarded([&] {
    if (list == nullptr) return CKR_ARGUMENTS_BAD;
    // Made now, so that its lock watches for fork() from the program's
    // first call on.
    Module::GetInstance();
    *list = &k_functions;
    return CKR_OK;
  });
}

}  // namespace

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(
    CK_FUNCTION_LIST_PTR_PTR list) {
  return C_GetFunctionListInternal(list);
}
