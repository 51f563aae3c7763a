// The exported C functions. They hold the process-wide key store and the
// library's share of the PKCS#11 context, and forward everything else to the
// key store without checking that one exists: the host calls them only
// between X509_Auth_Init and X509_Auth_DeInit.
#include <openssl/evp.h>

#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include "base/SafeCallbacksWrapper.h"
#include "base/X509Settings.h"
#include "capi/CallGuard.h"
#include "cert/CaDirectoryLookup.h"
#include "files/DirectorySnapshots.h"
#include "files/PlainKeyCache.h"
#include "keystore/KeyStore.h"
#include "smartcard/Libp11Context.h"
#include "smartcard/Pkcs11ModuleChoice.h"
#include "smartcard/TokenWatch.h"
#include "x509_auth.h"

namespace {

using quorvant::shared::x509::Algorithm;
using quorvant::shared::x509::CaDirectoryLookup;
using quorvant::shared::x509::CallGuard;
using quorvant::shared::x509::DecryptAlgorithm;
using quorvant::shared::x509::DirectorySnapshots;
using quorvant::shared::x509::KeyStore;
using quorvant::shared::x509::Libp11Context;
using quorvant::shared::x509::LogAllOpenSslErrors;
using quorvant::shared::x509::OpenKey;
using quorvant::shared::x509::Pkcs11ModuleChoice;
using quorvant::shared::x509::PlainKeyCache;
using quorvant::shared::x509::SafeCallbacksWrapper;
using quorvant::shared::x509::Thumbprint;
using quorvant::shared::x509::TokenWatch;
using quorvant::shared::x509::X509Settings;

// Function-local statics first made after the callbacks holder, so that at
// process exit they are destroyed while it still exists.
// Typed as the concrete store, whose extensions lie beyond the interface.
std::unique_ptr<KeyStore>& KeyStoreOwner() {
  static std::unique_ptr<KeyStore> owner;
  return owner;
}

std::shared_ptr<Libp11Context>& ContextHolder() {
  static std::shared_ptr<Libp11Context> holder;
  return holder;
}

Thumbprint CopyThumbprint(const uint8_t* thumbprint) {
  Thumbprint copy{};
  std::memcpy(copy.data(), thumbprint, copy.size());
  return copy;
}

std::size_t HashLength(X509_Auth_HashType hash_type) {
  switch (hash_type) {
    case X509_Auth_HashType_Sha1: return 20;
    case X509_Auth_HashType_Sha256: return 32;
    case X509_Auth_HashType_Sha384: return 48;
    case X509_Auth_HashType_Sha512: return 64;
    default: throw std::invalid_argument("Invalid hash type");
  }
}

// The digest of an RSA-PSS signature, or null for a hash type out of range.
const EVP_MD* DigestOf(X509_Auth_HashType hash_type) {
  switch (hash_type) {
    case X509_Auth_HashType_Sha1: return EVP_sha1();
    case X509_Auth_HashType_Sha256: return EVP_sha256();
    case X509_Auth_HashType_Sha384: return EVP_sha384();
    case X509_Auth_HashType_Sha512: return EVP_sha512();
    default: return nullptr;
  }
}

constexpr X509_Auth_Result k_refused{X509_Auth_ResultCode_Reentered, 0, 0};
constexpr X509_Auth_Result k_invalid{X509_Auth_ResultCode_InvalidArgument, 0, 0};
constexpr X509_Auth_Result k_failed{X509_Auth_ResultCode_KeyOperationFailed, 0, 0};

X509_Auth_Result InvalidArgument(const char* function) {
  SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error, "%s: invalid argument", function);
  return k_invalid;
}

// Handles outlive the key store that made them (a host may keep one past
// X509_Auth_DeInit): with no store, no handle names a key.
OpenKey* FindOpenKey(X509_Auth_KeyHandle handle, const char* function) {
  if (KeyStoreOwner()) return KeyStoreOwner()->FindOpenKey(handle, function);
  SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error, "%s: no open key has handle %llu",
                            function, static_cast<unsigned long long>(handle));
  return nullptr;
}

// The open-key extensions are for C hosts: nothing may leave them as an
// exception.
template <typename Operation>
X509_Auth_Result Contained(const char* function, Operation operation) {
  try {
    return operation();
  } catch (const std::exception& failure) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error, "%s: %s", function, failure.what());
    return k_failed;
  }
}

}  // namespace

extern "C" {

void X509_Auth_Init(const X509_Auth_Settings* settings, X509_Auth_Callbacks callbacks) {
  const CallGuard guard("X509_Auth_Init");
  if (!guard.Entered()) return;
  SafeCallbacksWrapper::GetInstance().Replace(callbacks);
  if (settings != nullptr) X509Settings::GetInstance().Replace(*settings);
  // The new store is installed before the old one and its results go away.
  std::unique_ptr<KeyStore> previous = std::exchange(KeyStoreOwner(), std::make_unique<KeyStore>());
  previous.reset();
  KeyStoreOwner()->Init();
  ContextHolder() = Libp11Context::GetInstance();
}

void X509_Auth_PostInitUpdateSettings(const X509_Auth_Settings* settings) {
  const CallGuard guard("X509_Auth_PostInitUpdateSettings");
  if (!guard.Entered()) return;
  if (settings != nullptr) X509Settings::GetInstance().Replace(*settings);
}

void X509_Auth_DeInit(void) {
  const CallGuard guard("X509_Auth_DeInit");
  if (!guard.Entered()) return;
  std::unique_ptr<KeyStore> key_store = std::move(KeyStoreOwner());
  key_store.reset();
  ContextHolder().reset();
  // The watches on certificate directories end with the library's use.
  DirectorySnapshots::GetInstance().Clear();
  CaDirectoryLookup::Clear();
  // Kept key files are freed (and cleansed) with the library's end.
  PlainKeyCache::GetInstance().Clear();
  LogAllOpenSslErrors();
}

int X509_Auth_GetApiVersion(void) { return X509_AUTH_API_VERSION; }

bool X509_Auth_LoadClientCertificates(uint64_t* count, const X509_Auth_Certificate** certificates) {
  const CallGuard guard("X509_Auth_LoadClientCertificates");
  if (!guard.Entered()) {
    if (count != nullptr) *count = 0;
    if (certificates != nullptr) *certificates = nullptr;
    return false;
  }
  return KeyStoreOwner()->LoadClientCertificates(count, certificates);
}

void X509_Auth_Free(const void* p) {
  const CallGuard guard("X509_Auth_Free");
  if (guard.Entered()) KeyStoreOwner()->Free(p);
}

int X509_Auth_AddAdditionalCertificateAuthorityToStore(const unsigned char* data, uint64_t length) {
  const CallGuard guard("X509_Auth_AddAdditionalCertificateAuthorityToStore");
  if (!guard.Entered()) return 0;
  return KeyStoreOwner()->AddAdditionalCertificateAuthorityToStore(data, length) ? 1 : 0;
}

int32_t X509_Auth_GetChainedCAsForCertificate(const X509_Auth_Certificate* certificate,
                                              uint64_t* count, X509_Auth_ASN_1** asn1) {
  const CallGuard guard("X509_Auth_GetChainedCAsForCertificate");
  if (!guard.Entered()) return X509_Auth_ResultCode_Reentered;
  return KeyStoreOwner()->GetChainedCAsForCertificate(certificate, count, asn1);
}

X509_Auth_Result X509_Auth_SignHash(const uint8_t* thumbprint, uint64_t algorithm_count,
                                    const uint32_t* algorithms, X509_Auth_HashType hash_type,
                                    const unsigned char* hash,
                                    const X509_Auth_Signature** signature) {
  const CallGuard guard("X509_Auth_SignHash");
  if (!guard.Entered()) {
    if (signature != nullptr) *signature = nullptr;
    return k_refused;
  }
  const Thumbprint wanted = CopyThumbprint(thumbprint);
  std::vector<Algorithm> accepted;
  for (uint64_t i = 0; i < algorithm_count; ++i) {
    // Values the host cannot have meant leave as exceptions, not codes.
    if (algorithms[i] > 2) throw std::invalid_argument("Unimplemented");
    accepted.push_back(static_cast<Algorithm>(algorithms[i]));
  }
  const std::size_t length = HashLength(hash_type);
  const std::vector<unsigned char> digest(hash, hash + length);
  const auto outcome = KeyStoreOwner()->SignHash(wanted, accepted, digest);
  *signature = outcome.record;
  return outcome.result;
}

X509_Auth_Result X509_Auth_Decrypt(const uint8_t* thumbprint, uint32_t decrypt_algorithm,
                                   uint64_t length, const unsigned char* data,
                                   const X509_Auth_ASN_1** plaintext) {
  const CallGuard guard("X509_Auth_Decrypt");
  if (!guard.Entered()) {
    if (plaintext != nullptr) *plaintext = nullptr;
    return k_refused;
  }
  const Thumbprint wanted = CopyThumbprint(thumbprint);
  if (decrypt_algorithm > 2) throw std::invalid_argument("Unimplemented");
  const std::vector<unsigned char> ciphertext =
      length == 0 ? std::vector<unsigned char>() : std::vector<unsigned char>(data, data + length);
  const auto outcome = KeyStoreOwner()->Decrypt(
      wanted, static_cast<DecryptAlgorithm>(decrypt_algorithm), ciphertext);
  *plaintext = outcome.record;
  return outcome.result;
}

X509_Auth_ResultCode X509_Auth_GetPrivateKeyForCertificate(const X509_Auth_Certificate* certificate,
                                                           void** key) {
  const CallGuard guard("X509_Auth_GetPrivateKeyForCertificate");
  if (!guard.Entered()) return X509_Auth_ResultCode_Reentered;
  return KeyStoreOwner()->GetPrivateKeyForCertificate(certificate, key);
}

bool X509_Auth_ShowCertificateDialog(const X509_Auth_Certificate* certificate, void* parent) {
  const CallGuard guard("X509_Auth_ShowCertificateDialog");
  if (!guard.Entered()) return false;
  return KeyStoreOwner()->ShowCertificateDialog(certificate, parent);
}

X509_Auth_ResultCode X509_Auth_SetPkcs11Module(const char* path) {
  const CallGuard guard("X509_Auth_SetPkcs11Module");
  if (!guard.Entered()) return X509_Auth_ResultCode_Reentered;
  if (!Pkcs11ModuleChoice::GetInstance().Choose(path)) return X509_Auth_ResultCode_InvalidArgument;
  return X509_Auth_ResultCode_Success;
}

X509_Auth_ResultCode X509_Auth_SetTokenWatch(int32_t enabled) {
  const CallGuard guard("X509_Auth_SetTokenWatch");
  if (!guard.Entered()) return X509_Auth_ResultCode_Reentered;
  TokenWatch::Set(enabled != 0);
  return X509_Auth_ResultCode_Success;
}

X509_Auth_Result X509_Auth_SignHashPss(const uint8_t* thumbprint, X509_Auth_HashType hash_type,
                                       const unsigned char* hash, int32_t salt_length,
                                       const X509_Auth_Signature** signature) {
  if (signature != nullptr) *signature = nullptr;
  const CallGuard guard("X509_Auth_SignHashPss");
  if (!guard.Entered()) return k_refused;
  const EVP_MD* digest = DigestOf(hash_type);
  if (thumbprint == nullptr || hash == nullptr || signature == nullptr || digest == nullptr ||
      salt_length < X509_AUTH_PSS_SALT_MAX) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                              "X509_Auth_SignHashPss: invalid argument (a null pointer, hash type "
                              "%u or salt length %d)",
                              static_cast<unsigned>(hash_type), static_cast<int>(salt_length));
    return X509_Auth_Result{X509_Auth_ResultCode_InvalidArgument, 0, 0};
  }
  const std::vector<unsigned char> digest_bytes(
      hash, hash + static_cast<std::size_t>(EVP_MD_size(digest)));
  // The extension is for C hosts: nothing may leave it as an exception.
  try {
    const auto outcome =
        KeyStoreOwner()->SignHashPss(CopyThumbprint(thumbprint), digest, digest_bytes, salt_length);
    *signature = outcome.record;
    return outcome.result;
  } catch (const std::exception& failure) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error, "X509_Auth_SignHashPss: %s",
                              failure.what());
    return X509_Auth_Result{X509_Auth_ResultCode_KeyOperationFailed, 0, 0};
  }
}

X509_Auth_ResultCode X509_Auth_FindCertificate(const uint8_t* thumbprint,
                                               const X509_Auth_Certificate** certificate) {
  constexpr const char* k_function = "X509_Auth_FindCertificate";
  if (certificate != nullptr) *certificate = nullptr;
  const CallGuard guard(k_function);
  if (!guard.Entered()) return X509_Auth_ResultCode_Reentered;
  if (thumbprint == nullptr || certificate == nullptr || !KeyStoreOwner())
    return InvalidArgument(k_function).code;
  return Contained(k_function,
                   [&] {
                     return X509_Auth_Result{
                         KeyStoreOwner()->FindCertificate(CopyThumbprint(thumbprint), certificate),
                         0, 0};
                   })
      .code;
}

X509_Auth_ResultCode X509_Auth_GetListingVersion(uint64_t* version) {
  constexpr const char* k_function = "X509_Auth_GetListingVersion";
  const CallGuard guard(k_function);
  if (!guard.Entered()) return X509_Auth_ResultCode_Reentered;
  if (version == nullptr || !KeyStoreOwner()) return InvalidArgument(k_function).code;
  return Contained(k_function,
                   [&] {
                     const bool opened = KeyStoreOwner()->ListingVersion(version);
                     return X509_Auth_Result{
                         opened ? X509_Auth_ResultCode_Success
                                : X509_Auth_ResultCode{X509_Auth_ResultCode_StoreOpenFailed},
                         0, 0};
                   })
      .code;
}

X509_Auth_Result X509_Auth_OpenKey(const uint8_t* thumbprint, X509_Auth_KeyHandle* key) {
  if (key != nullptr) *key = 0;
  const CallGuard guard("X509_Auth_OpenKey");
  if (!guard.Entered()) return k_refused;
  if (thumbprint == nullptr || key == nullptr || !KeyStoreOwner())
    return InvalidArgument("X509_Auth_OpenKey");
  return Contained("X509_Auth_OpenKey",
                   [&] { return KeyStoreOwner()->OpenKeyFor(CopyThumbprint(thumbprint), key); });
}

X509_Auth_Result X509_Auth_OpenKeySignHash(X509_Auth_KeyHandle key, uint64_t algorithm_count,
                                           const uint32_t* algorithms, X509_Auth_HashType hash_type,
                                           const unsigned char* hash,
                                           const X509_Auth_Signature** signature) {
  constexpr const char* k_function = "X509_Auth_OpenKeySignHash";
  if (signature != nullptr) *signature = nullptr;
  const CallGuard guard(k_function);
  if (!guard.Entered()) return k_refused;
  if (hash == nullptr || signature == nullptr || (algorithm_count > 0 && algorithms == nullptr) ||
      DigestOf(hash_type) == nullptr)
    return InvalidArgument(k_function);
  std::vector<Algorithm> accepted;
  for (uint64_t i = 0; i < algorithm_count; ++i) {
    if (algorithms[i] > 2) return InvalidArgument(k_function);
    accepted.push_back(static_cast<Algorithm>(algorithms[i]));
  }
  OpenKey* open_key = FindOpenKey(key, k_function);
  if (open_key == nullptr) return k_invalid;
  return Contained(k_function, [&] {
    const std::vector<unsigned char> digest(hash, hash + HashLength(hash_type));
    const auto outcome = open_key->SignHash(*KeyStoreOwner(), accepted, digest);
    *signature = outcome.record;
    return outcome.result;
  });
}

X509_Auth_Result X509_Auth_OpenKeySignHashPss(X509_Auth_KeyHandle key, X509_Auth_HashType hash_type,
                                              const unsigned char* hash, int32_t salt_length,
                                              const X509_Auth_Signature** signature) {
  constexpr const char* k_function = "X509_Auth_OpenKeySignHashPss";
  if (signature != nullptr) *signature = nullptr;
  const CallGuard guard(k_function);
  if (!guard.Entered()) return k_refused;
  const EVP_MD* digest = DigestOf(hash_type);
  if (hash == nullptr || signature == nullptr || digest == nullptr ||
      salt_length < X509_AUTH_PSS_SALT_MAX)
    return InvalidArgument(k_function);
  OpenKey* open_key = FindOpenKey(key, k_function);
  if (open_key == nullptr) return k_invalid;
  return Contained(k_function, [&] {
    const std::vector<unsigned char> digest_bytes(
        hash, hash + static_cast<std::size_t>(EVP_MD_size(digest)));
    const auto outcome = open_key->SignHashPss(*KeyStoreOwner(), digest, digest_bytes, salt_length);
    *signature = outcome.record;
    return outcome.result;
  });
}

X509_Auth_Result X509_Auth_OpenKeyDecrypt(X509_Auth_KeyHandle key, uint32_t decrypt_algorithm,
                                          uint64_t length, const unsigned char* data,
                                          const X509_Auth_ASN_1** plaintext) {
  constexpr const char* k_function = "X509_Auth_OpenKeyDecrypt";
  if (plaintext != nullptr) *plaintext = nullptr;
  const CallGuard guard(k_function);
  if (!guard.Entered()) return k_refused;
  if (plaintext == nullptr || (length > 0 && data == nullptr) || decrypt_algorithm > 2)
    return InvalidArgument(k_function);
  OpenKey* open_key = FindOpenKey(key, k_function);
  if (open_key == nullptr) return k_invalid;
  return Contained(k_function, [&] {
    const std::vector<unsigned char> ciphertext =
        length == 0 ? std::vector<unsigned char>()
                    : std::vector<unsigned char>(data, data + length);
    const auto outcome = open_key->Decrypt(
        *KeyStoreOwner(), static_cast<DecryptAlgorithm>(decrypt_algorithm), ciphertext);
    *plaintext = outcome.record;
    return outcome.result;
  });
}

X509_Auth_ResultCode X509_Auth_CloseKey(X509_Auth_KeyHandle key) {
  const CallGuard guard("X509_Auth_CloseKey");
  if (!guard.Entered()) return X509_Auth_ResultCode_Reentered;
  if (KeyStoreOwner() && KeyStoreOwner()->CloseKey(key)) return X509_Auth_ResultCode_Success;
  SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                            "X509_Auth_CloseKey: no open key has handle %llu",
                            static_cast<unsigned long long>(key));
  return X509_Auth_ResultCode_InvalidArgument;
}

}  // extern "C"
