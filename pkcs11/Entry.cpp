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
using x509auth_pkcs11::LogLevel;
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
    x509auth_pkcs11::LogLine(LogLevel::k_error, "internal error: %s", error.what());
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

// The entry point of |Slot|'s type (CK_C_Sign and so on) that calls
// |Method| on the module: the type comes from the function list, so a
// method whose arguments do not fit is a build error.
template <typename Slot, auto Method>
struct Forward;

template <typename... Arguments, auto Method>
struct Forward<CK_RV (*)(Arguments...), Method> {
  static CK_RV Call(Arguments... arguments) {
    return Locked([&](Module& m) { return (m.*Method)(arguments...); });
  }
};

// What the token cannot do: it holds no writable objects, generates nothing,
// verifies and encrypts nothing (the program does that with the
// certificate's public key), and runs no function in parallel.
template <typename Slot, CK_RV k_result = CKR_FUNCTION_NOT_SUPPORTED>
struct Refuse;

template <typename... Arguments, CK_RV k_result>
struct Refuse<CK_RV (*)(Arguments...), k_result> {
  static CK_RV Call(Arguments...) { return k_result; }
};

// The application's callback is not kept: the module never calls back.
CK_RV C_OpenSession(CK_SLOT_ID slot, CK_FLAGS flags, CK_VOID_PTR, CK_NOTIFY,
                    CK_SESSION_HANDLE_PTR session) {
  return Locked([&](Module& m) { return m.OpenSession(slot, flags, session); });
}

CK_RV C_GetFunctionListInternal(CK_FUNCTION_LIST_PTR_PTR list);

// In the order of CK_FUNCTION_LIST.
CK_FUNCTION_LIST k_functions = {{CRYPTOKI_VERSION_MAJOR, CRYPTOKI_VERSION_MINOR},
                                Forward<CK_C_Initialize, &Module::Initialize>::Call,
                                Forward<CK_C_Finalize, &Module::Finalize>::Call,
                                Forward<CK_C_GetInfo, &Module::GetInfo>::Call,
                                C_GetFunctionListInternal,
                                Forward<CK_C_GetSlotList, &Module::GetSlotList>::Call,
                                Forward<CK_C_GetSlotInfo, &Module::GetSlotInfo>::Call,
                                Forward<CK_C_GetTokenInfo, &Module::GetTokenInfo>::Call,
                                Forward<CK_C_GetMechanismList, &Module::GetMechanismList>::Call,
                                Forward<CK_C_GetMechanismInfo, &Module::GetMechanismInfo>::Call,
                                Refuse<CK_C_InitToken>::Call,
                                Refuse<CK_C_InitPIN>::Call,
                                Refuse<CK_C_SetPIN>::Call,
                                C_OpenSession,
                                Forward<CK_C_CloseSession, &Module::CloseSession>::Call,
                                Forward<CK_C_CloseAllSessions, &Module::CloseAllSessions>::Call,
                                Forward<CK_C_GetSessionInfo, &Module::GetSessionInfo>::Call,
                                Refuse<CK_C_GetOperationState>::Call,
                                Refuse<CK_C_SetOperationState>::Call,
                                Forward<CK_C_Login, &Module::Login>::Call,
                                Forward<CK_C_Logout, &Module::Logout>::Call,
                                Refuse<CK_C_CreateObject>::Call,
                                Refuse<CK_C_CopyObject>::Call,
                                Refuse<CK_C_DestroyObject>::Call,
                                Forward<CK_C_GetObjectSize, &Module::GetObjectSize>::Call,
                                Forward<CK_C_GetAttributeValue, &Module::GetAttributeValue>::Call,
                                Refuse<CK_C_SetAttributeValue>::Call,
                                Forward<CK_C_FindObjectsInit, &Module::FindObjectsInit>::Call,
                                Forward<CK_C_FindObjects, &Module::FindObjects>::Call,
                                Forward<CK_C_FindObjectsFinal, &Module::FindObjectsFinal>::Call,
                                Refuse<CK_C_EncryptInit>::Call,
                                Refuse<CK_C_Encrypt>::Call,
                                Refuse<CK_C_EncryptUpdate>::Call,
                                Refuse<CK_C_EncryptFinal>::Call,
                                Forward<CK_C_DecryptInit, &Module::DecryptInit>::Call,
                                Forward<CK_C_Decrypt, &Module::Decrypt>::Call,
                                Refuse<CK_C_DecryptUpdate>::Call,
                                Refuse<CK_C_DecryptFinal>::Call,
                                Forward<CK_C_DigestInit, &Module::DigestInit>::Call,
                                Forward<CK_C_Digest, &Module::Digest>::Call,
                                Forward<CK_C_DigestUpdate, &Module::DigestUpdate>::Call,
                                Forward<CK_C_DigestKey, &Module::DigestKey>::Call,
                                Forward<CK_C_DigestFinal, &Module::DigestFinal>::Call,
                                Forward<CK_C_SignInit, &Module::SignInit>::Call,
                                Forward<CK_C_Sign, &Module::Sign>::Call,
                                Forward<CK_C_SignUpdate, &Module::SignUpdate>::Call,
                                Forward<CK_C_SignFinal, &Module::SignFinal>::Call,
                                Refuse<CK_C_SignRecoverInit>::Call,
                                Refuse<CK_C_SignRecover>::Call,
                                Refuse<CK_C_VerifyInit>::Call,
                                Refuse<CK_C_Verify>::Call,
                                Refuse<CK_C_VerifyUpdate>::Call,
                                Refuse<CK_C_VerifyFinal>::Call,
                                Refuse<CK_C_VerifyRecoverInit>::Call,
                                Refuse<CK_C_VerifyRecover>::Call,
                                Refuse<CK_C_DigestEncryptUpdate>::Call,
                                Refuse<CK_C_DecryptDigestUpdate>::Call,
                                Refuse<CK_C_SignEncryptUpdate>::Call,
                                Refuse<CK_C_DecryptVerifyUpdate>::Call,
                                Refuse<CK_C_GenerateKey>::Call,
                                Refuse<CK_C_GenerateKeyPair>::Call,
                                Refuse<CK_C_WrapKey>::Call,
                                Refuse<CK_C_UnwrapKey>::Call,
                                Refuse<CK_C_DeriveKey>::Call,
                                Forward<CK_C_SeedRandom, &Module::SeedRandom>::Call,
                                Forward<CK_C_GenerateRandom, &Module::GenerateRandom>::Call,
                                Refuse<CK_C_GetFunctionStatus, CKR_FUNCTION_NOT_PARALLEL>::Call,
                                Refuse<CK_C_CancelFunction, CKR_FUNCTION_NOT_PARALLEL>::Call,
                                Forward<CK_C_WaitForSlotEvent, &Module::WaitForSlotEvent>::Call};

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
