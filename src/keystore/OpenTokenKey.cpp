#include "keystore/OpenTokenKey.h"

#include <algorithm>
#include <utility>

#include "base/SafeCallbacksWrapper.h"
#include "base/WipeOnExit.h"
#include "cert/ICertificate.h"
#include "cert/Key.h"
#include "keystore/KeyOperation.h"
#include "keystore/KeyStore.h"
#include "keystore/OpenKey.h"
#include "keystore/TokenLossRetry.h"
#include "smartcard/Libp11Context.h"
#include "smartcard/TokenWatch.h"
#include "store/CertStore.h"

namespace quorvant::shared::x509 {

namespace {

constexpr auto k_info = X509_Auth_LogPriority_Info;
constexpr auto k_error = X509_Auth_LogPriority_Error;

X509_Auth_Result Outcome(std::int32_t code, std::uint64_t detail = 0) {
  return X509_Auth_Result{code, 0, detail};
}

// Opens |cert|'s key as a request does; the failure result otherwise, with
// the request's line.
std::optional<X509_Auth_Result> OpenKeyOf(const ICertificate& cert, Key& key) {
  const std::int32_t open_result = key.Open(cert);
  if (open_result == 0) return std::nullopt;
  SafeCallbacksWrapper::Log(k_error, "Failed to open private key for certificate (error: %d)",
                            open_result);
  return Outcome(X509_Auth_ResultCode_KeyOpenFailed, static_cast<std::uint64_t>(open_result));
}

}  // namespace

OpenTokenKey::OpenTokenKey(const Thumbprint& thumbprint, Algorithm group, std::unique_ptr<Key> key)
    : thumbprint_(thumbprint), group_(group), key_(std::move(key)) {}

OpenTokenKey::~OpenTokenKey() = default;

std::unique_ptr<OpenTokenKey> OpenTokenKey::Open(const Thumbprint& thumbprint,
                                                 const ICertificate& cert,
                                                 X509_Auth_Result& failure) {
  auto key = std::make_unique<Key>();
  if (auto refused = OpenKeyOf(cert, *key)) {
    failure = *refused;
    return nullptr;
  }
  return std::make_unique<OpenTokenKey>(thumbprint, cert.PublicKeyAlgorithmGroup(), std::move(key));
}

std::optional<X509_Auth_Result> OpenTokenKey::FindAgain() {
  // The old key's share of its listing goes first, so that the lookup's
  // fresh listing may release it.
  key_.reset();
  CertStore users_store;
  std::unique_ptr<ICertificate> cert;
  if (auto missing = OpenKey::Find(thumbprint_, users_store, &cert)) return missing;
  auto key = std::make_unique<Key>();
  if (auto refused = OpenKeyOf(*cert, *key)) return refused;
  key_ = std::move(key);
  return std::nullopt;
}

std::optional<X509_Auth_Result> OpenTokenKey::EnsureCurrent() {
  if (key_ && !TokenWatch::Enabled()) return std::nullopt;
  if (key_ && key_->TokenContext()) {
    Libp11Context& context = *key_->TokenContext();
    context.FollowTokens();
    if (context.CurrentSlots() == key_->TokenListing()) return std::nullopt;
    SafeCallbacksWrapper::Log(k_info,
                              "The tokens changed under an open key; finding its key again");
  }
  return FindAgain();
}

template <typename Operation>
auto OpenTokenKey::WithKey(Operation operation) -> decltype(operation(std::declval<Key&>())) {
  using OperationResult = decltype(operation(std::declval<Key&>()));
  if (auto failure = EnsureCurrent()) return OperationResult{nullptr, *failure};
  return RetryOnceAfterTokenLoss(
      TokenWatch::Enabled() ? key_->TokenContext() : nullptr, [&] { return operation(*key_); },
      [&] {
        if (auto failure = FindAgain()) return OperationResult{nullptr, *failure};
        return operation(*key_);
      });
}

KeyStoreResult<X509_Auth_Signature> OpenTokenKey::SignHash(KeyStore& store,
                                                           const std::vector<Algorithm>& algorithms,
                                                           const std::vector<unsigned char>& hash) {
  if (group_ == Algorithm::k_unknown ||
      std::find(algorithms.begin(), algorithms.end(), group_) == algorithms.end()) {
    SafeCallbacksWrapper::Log(k_error, "Certificate does not support requested algorithm");
    return {nullptr, Outcome(X509_Auth_ResultCode_AlgorithmNotSupported)};
  }
  return WithKey([&](Key& key) { return KeyOperation::Sign(store, key, group_, hash); });
}

KeyStoreResult<X509_Auth_Signature> OpenTokenKey::SignHashPss(
    KeyStore& store, const EVP_MD* digest, const std::vector<unsigned char>& hash,
    int salt_length) {
  if (group_ != Algorithm::k_rsa) {
    SafeCallbacksWrapper::Log(k_error, "Certificate does not support RSA-PSS signatures");
    return {nullptr, Outcome(X509_Auth_ResultCode_AlgorithmNotSupported)};
  }
  return WithKey([&](Key& key) -> KeyStoreResult<X509_Auth_Signature> {
    if (key.Algorithm() != Algorithm::k_rsa) {
      SafeCallbacksWrapper::Log(k_error, "Certificate does not support RSA-PSS signatures");
      return {nullptr, Outcome(X509_Auth_ResultCode_AlgorithmNotSupported)};
    }
    return KeyOperation::SignPss(store, key, digest, hash, salt_length);
  });
}

KeyStoreResult<X509_Auth_ASN_1> OpenTokenKey::Decrypt(KeyStore& store, DecryptAlgorithm algorithm,
                                                      const std::vector<unsigned char>& data) {
  if (group_ != Algorithm::k_rsa) {
    SafeCallbacksWrapper::Log(k_error, "Certificate does not support RSA decryption");
    return {nullptr, Outcome(X509_Auth_ResultCode_AlgorithmNotSupported)};
  }
  return WithKey([&](Key& key) { return KeyOperation::Decrypt(store, key, algorithm, data); });
}

}  // namespace quorvant::shared::x509
