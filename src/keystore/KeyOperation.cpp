#include "keystore/KeyOperation.h"

#include <utility>

#include "base/ResultPair.h"
#include "base/SafeCallbacksWrapper.h"
#include "base/WipeOnExit.h"
#include "cert/Key.h"
#include "keystore/KeyStore.h"

namespace quorvant::shared::x509 {

namespace {

constexpr auto k_error = X509_Auth_LogPriority_Error;

X509_Auth_Result Outcome(const ResultPair& pair) {
  return X509_Auth_Result{pair.code, 0, pair.detail};
}

}  // namespace

KeyStoreResult<X509_Auth_Signature> KeyOperation::Sign(KeyStore& store, Key& key, Algorithm group,
                                                       const std::vector<unsigned char>& hash) {
  std::vector<unsigned char> signature;
  const ResultPair signed_result = key.Sign(hash, &signature);
  if (signed_result.code != 0) {
    SafeCallbacksWrapper::Log(k_error, "Failed to sign hash (error: %d, %lu)", signed_result.code,
                              static_cast<unsigned long>(signed_result.detail));
    return {nullptr, Outcome(signed_result)};
  }
  return {store.AllocateSignature(group, std::move(signature)), Outcome(signed_result)};
}

KeyStoreResult<X509_Auth_Signature> KeyOperation::SignPss(KeyStore& store, Key& key,
                                                          const EVP_MD* digest,
                                                          const std::vector<unsigned char>& hash,
                                                          int salt_length) {
  std::vector<unsigned char> signature;
  const ResultPair signed_result = key.SignPss(digest, hash, salt_length, &signature);
  if (signed_result.code != 0) {
    SafeCallbacksWrapper::Log(k_error, "Failed to sign hash with RSA-PSS (error: %d, %lu)",
                              signed_result.code, static_cast<unsigned long>(signed_result.detail));
    return {nullptr, Outcome(signed_result)};
  }
  return {store.AllocateSignature(Algorithm::k_rsa, std::move(signature)), Outcome(signed_result)};
}

KeyStoreResult<X509_Auth_ASN_1> KeyOperation::Decrypt(KeyStore& store, Key& key,
                                                      DecryptAlgorithm algorithm,
                                                      const std::vector<unsigned char>& data) {
  std::vector<unsigned char> plaintext;
  const WipeOnExit wipe(plaintext);  // empty once moved into the kept record
  const ResultPair decrypted = key.Decrypt(algorithm, data, &plaintext);
  if (decrypted.code != 0) {
    SafeCallbacksWrapper::Log(k_error, "Failed to decrypt data (error: %d, %lu)", decrypted.code,
                              static_cast<unsigned long>(decrypted.detail));
    return {nullptr, Outcome(decrypted)};
  }
  return {store.AllocatePlaintext(std::move(plaintext)), Outcome(decrypted)};
}

}  // namespace quorvant::shared::x509
