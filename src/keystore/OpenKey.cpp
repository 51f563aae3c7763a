#include "keystore/OpenKey.h"

#include <algorithm>
#include <utility>
#include <variant>

#include "base/SafeCallbacksWrapper.h"
#include "base/WipeOnExit.h"
#include "cert/ICertificate.h"
#include "cert/Key.h"
#include "keystore/KeyOperation.h"
#include "keystore/KeyStore.h"
#include "store/CertStore.h"

namespace quorvant::shared::x509 {

namespace {

constexpr auto k_error = X509_Auth_LogPriority_Error;

X509_Auth_Result Outcome(std::int32_t code, std::uint64_t detail = 0) {
  return X509_Auth_Result{code, 0, detail};
}

// As Key::Open reports it: 1 for every way a key cannot be opened; a key
// that no longer matches has a code of its own.
constexpr std::int32_t k_key_not_opened = 1;

X509_Auth_Result KeyFailure(KeptKeyFile::State state) {
  const std::int32_t code = state == KeptKeyFile::State::k_mismatch
                                ? std::int32_t{X509_Auth_ResultCode_KeyMismatch}
                                : std::int32_t{X509_Auth_ResultCode_KeyOpenFailed};
  return Outcome(code, k_key_not_opened);
}

EvpPkeyPtr SharedKey(EVP_PKEY* key) {
  EVP_PKEY_up_ref(key);
  return EvpPkeyPtr(key);
}

}  // namespace

OpenKey::OpenKey(const Thumbprint& thumbprint, Algorithm group, std::unique_ptr<KeptKeyFile> file)
    : thumbprint_(thumbprint), group_(group), file_(std::move(file)) {}

OpenKey::OpenKey(std::unique_ptr<OpenTokenKey> token)
    : thumbprint_(), group_(Algorithm::k_unknown), token_(std::move(token)) {}

std::optional<X509_Auth_Result> OpenKey::Find(const Thumbprint& thumbprint, CertStore& users_store,
                                              std::unique_ptr<ICertificate>* cert) {
  std::uint32_t token_status = 0;
  // A file certificate's key opens without loading the PKCS#11 module.
  const CertStore::Lookup found = users_store.OpenFor(thumbprint, cert, &token_status);
  if (found == CertStore::Lookup::k_tokens_failed) {
    SafeCallbacksWrapper::Log(k_error, "Failed to open cert store (error: %d)",
                              static_cast<int>(token_status));
    return Outcome(X509_Auth_ResultCode_StoreOpenFailed, token_status);
  }
  if (found == CertStore::Lookup::k_absent) {
    const std::uint32_t find_error = users_store.FindThumbprintShared(thumbprint, cert);
    SafeCallbacksWrapper::Log(k_error, "Failed to find certificate thumbprint (error: %d)",
                              static_cast<int>(find_error));
    return Outcome(X509_Auth_ResultCode_CertificateNotFound, find_error);
  }
  return std::nullopt;
}

std::unique_ptr<OpenKey> OpenKey::Open(const Thumbprint& thumbprint, X509_Auth_Result& failure) {
  CertStore users_store;
  std::unique_ptr<ICertificate> cert;
  if (auto missing = Find(thumbprint, users_store, &cert)) {
    failure = *missing;
    return nullptr;
  }
  const Algorithm group = cert->PublicKeyAlgorithmGroup();
  const CertContext& context = cert->GetContext();
  if (std::holds_alternative<std::unique_ptr<Libp11CertContext>>(context)) {
    std::unique_ptr<OpenTokenKey> token = OpenTokenKey::Open(thumbprint, *cert, failure);
    return token ? std::make_unique<OpenKey>(std::move(token)) : nullptr;
  }
  const auto* file = std::get_if<std::unique_ptr<CertFileContext>>(&context);
  if (file == nullptr) {
    SafeCallbacksWrapper::Log(k_error, "Cannot load private key for encoded cert: [%s]",
                              cert->Name().c_str());
    failure = Outcome(X509_Auth_ResultCode_KeyOpenFailed);
    return nullptr;
  }
  const CertFileContext& file_context = **file;
  X509_up_ref(file_context.x509.get());
  auto kept = std::make_unique<KeptKeyFile>(X509Ptr(file_context.x509.get()),
                                            file_context.cert_path, file_context.key_path);
  auto opened = std::make_unique<OpenKey>(thumbprint, group, std::move(kept));
  Key key;
  if (auto refused = opened->Prepare(key)) {
    failure = *refused;
    return nullptr;
  }
  return opened;
}

std::optional<X509_Auth_Result> OpenKey::Prepare(Key& key) {
  const KeptKeyFile::State state = file_->Refresh();
  if (state != KeptKeyFile::State::k_ready) {
    SafeCallbacksWrapper::Log(k_error, "Failed to open private key for certificate (error: %d)",
                              k_key_not_opened);
    return KeyFailure(state);
  }
  if (key.Use(SharedKey(file_->Key())) != 0) {
    SafeCallbacksWrapper::Log(k_error, "Failed to open private key for certificate (error: %d)",
                              k_key_not_opened);
    return Outcome(X509_Auth_ResultCode_KeyOpenFailed, k_key_not_opened);
  }
  return std::nullopt;
}

KeyStoreResult<X509_Auth_Signature> OpenKey::SignHash(KeyStore& store,
                                                      const std::vector<Algorithm>& algorithms,
                                                      const std::vector<unsigned char>& hash) {
  if (token_) return token_->SignHash(store, algorithms, hash);
  if (!file_) return store.SignHash(thumbprint_, algorithms, hash);
  if (group_ == Algorithm::k_unknown ||
      std::find(algorithms.begin(), algorithms.end(), group_) == algorithms.end()) {
    SafeCallbacksWrapper::Log(k_error, "Certificate does not support requested algorithm");
    return {nullptr, Outcome(X509_Auth_ResultCode_AlgorithmNotSupported)};
  }
  Key key;
  if (auto failure = Prepare(key)) return {nullptr, *failure};
  return KeyOperation::Sign(store, key, group_, hash);
}

KeyStoreResult<X509_Auth_Signature> OpenKey::SignHashPss(KeyStore& store, const EVP_MD* digest,
                                                         const std::vector<unsigned char>& hash,
                                                         int salt_length) {
  if (token_) return token_->SignHashPss(store, digest, hash, salt_length);
  if (!file_) return store.SignHashPss(thumbprint_, digest, hash, salt_length);
  Key key;
  if (group_ == Algorithm::k_rsa) {
    if (auto failure = Prepare(key)) return {nullptr, *failure};
  }
  if (group_ != Algorithm::k_rsa || key.Algorithm() != Algorithm::k_rsa) {
    SafeCallbacksWrapper::Log(k_error, "Certificate does not support RSA-PSS signatures");
    return {nullptr, Outcome(X509_Auth_ResultCode_AlgorithmNotSupported)};
  }
  return KeyOperation::SignPss(store, key, digest, hash, salt_length);
}

KeyStoreResult<X509_Auth_ASN_1> OpenKey::Decrypt(KeyStore& store, DecryptAlgorithm algorithm,
                                                 const std::vector<unsigned char>& data) {
  if (token_) return token_->Decrypt(store, algorithm, data);
  if (!file_) return store.Decrypt(thumbprint_, algorithm, data);
  if (group_ != Algorithm::k_rsa) {
    SafeCallbacksWrapper::Log(k_error, "Certificate does not support RSA decryption");
    return {nullptr, Outcome(X509_Auth_ResultCode_AlgorithmNotSupported)};
  }
  Key key;
  if (auto failure = Prepare(key)) return {nullptr, *failure};
  return KeyOperation::Decrypt(store, key, algorithm, data);
}

}  // namespace quorvant::shared::x509
