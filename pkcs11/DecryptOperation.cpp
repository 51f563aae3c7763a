#include "DecryptOperation.h"

#include <openssl/crypto.h>

#include "Mechanisms.h"
#include "x509auth/LibraryOwned.h"

namespace x509auth_pkcs11 {

CK_RV DecryptOperation::Begin(const CK_MECHANISM& mechanism, std::shared_ptr<const TokenObject> key,
                              std::unique_ptr<DecryptOperation>& operation) {
  const Mechanism* found = Mechanisms::Find(mechanism.mechanism);
  if (found == nullptr || !found->decrypt) return CKR_MECHANISM_INVALID;
  if (key->Kind() != ObjectKind::k_private_key) return CKR_KEY_HANDLE_INVALID;
  if (key->KeyType() != CKK_RSA) return CKR_KEY_TYPE_INCONSISTENT;
  if (!key->BoolAttribute(CKA_DECRYPT)) return CKR_KEY_FUNCTION_NOT_PERMITTED;
  std::unique_ptr<DecryptOperation> made(new DecryptOperation());
  if (found->scheme == Scheme::k_rsa_oaep) {
    if (mechanism.pParameter == nullptr ||
        mechanism.ulParameterLen != sizeof(CK_RSA_PKCS_OAEP_PARAMS))
      return CKR_MECHANISM_PARAM_INVALID;
    const auto* params = static_cast<const CK_RSA_PKCS_OAEP_PARAMS*>(mechanism.pParameter);
    // The library decrypts OAEP with SHA-1 and MGF1-SHA-1 and no label.
    const bool no_label = params->source == 0 ||
                          (params->source == CKZ_DATA_SPECIFIED && params->ulSourceDataLen == 0);
    if (params->hashAlg != CKM_SHA_1 || params->mgf != CKG_MGF1_SHA1 || !no_label)
      return CKR_MECHANISM_PARAM_INVALID;
    made->padding_ = X509_Auth_DecryptAlgorithm_RsaOaep;
  } else {
    if (mechanism.pParameter != nullptr || mechanism.ulParameterLen != 0)
      return CKR_MECHANISM_PARAM_INVALID;
    made->padding_ = X509_Auth_DecryptAlgorithm_RsaPkcs1;
  }
  made->key_ = std::move(key);
  operation = std::move(made);
  return CKR_OK;
}

DecryptOperation::~DecryptOperation() {
  if (!plaintext_.empty()) OPENSSL_cleanse(plaintext_.data(), plaintext_.size());
}

CK_RV DecryptOperation::Decrypt(const unsigned char* ciphertext, std::size_t length,
                                X509_Auth_ResultCode& library_code, OpenKeys& keys) {
  if (done_) return CKR_OK;
  if (length != key_->SignatureLength()) return CKR_ENCRYPTED_DATA_LEN_RANGE;
  X509_Auth_Result result{};
  const X509_Auth_KeyHandle open = keys.Get(key_->CertificateThumbprint(), result);
  if (open == 0) {
    library_code = static_cast<X509_Auth_ResultCode>(result.code);
    return CKR_FUNCTION_FAILED;
  }
  x509auth_common::LibraryOwned<X509_Auth_ASN_1> plaintext;
  result = X509_Auth_OpenKeyDecrypt(open, padding_, length, ciphertext,
                                    x509auth_common::Receive(plaintext));
  if (result.code != X509_Auth_ResultCode_Success || !plaintext) {
    library_code = result.code != X509_Auth_ResultCode_Success
                       ? result.code
                       : X509_Auth_ResultCode_KeyOperationFailed;
    return CKR_FUNCTION_FAILED;
  }
  plaintext_.assign(plaintext->data, plaintext->data + plaintext->length);
  done_ = true;
  return CKR_OK;
}

}  // namespace x509auth_pkcs11
