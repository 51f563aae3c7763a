#include "DigestOperation.h"

namespace x509auth_pkcs11 {

CK_RV DigestOperation::Begin(const CK_MECHANISM& mechanism,
                             std::unique_ptr<DigestOperation>& operation) {
  const Mechanism* found = Mechanisms::Find(mechanism.mechanism);
  if (found == nullptr || found->scheme != Scheme::k_digest) return CKR_MECHANISM_INVALID;
  if (mechanism.pParameter != nullptr || mechanism.ulParameterLen != 0)
    return CKR_MECHANISM_PARAM_INVALID;
  std::unique_ptr<DigestOperation> made(new DigestOperation());
  made->hash_ = found->hashing;
  made->running_ = Mechanisms::BeginDigest(*found->hashing);
  if (made->running_ == nullptr) return CKR_HOST_MEMORY;
  operation = std::move(made);
  return CKR_OK;
}

CK_RV DigestOperation::Update(const unsigned char* data, std::size_t length) {
  return EVP_DigestUpdate(running_.get(), data, length) == 1 ? CKR_OK : CKR_FUNCTION_FAILED;
}

CK_RV DigestOperation::DigestKey(const TokenObject& key) {
  if (key.Kind() == ObjectKind::k_certificate || key.Kind() == ObjectKind::k_authority)
    return CKR_KEY_HANDLE_INVALID;
  return CKR_KEY_INDIGESTIBLE;
}

CK_RV DigestOperation::Final(Bytes& digest) {
  digest.assign(EVP_MAX_MD_SIZE, 0);
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(running_.get(), digest.data(), &length) != 1) return CKR_FUNCTION_FAILED;
  digest.resize(length);
  return CKR_OK;
}

}  // namespace x509auth_pkcs11
