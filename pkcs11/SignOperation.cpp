#include "SignOperation.h"

#include "SignatureEncoding.h"

namespace x509auth_pkcs11 {
namespace {

// Raw (non-hashing) mechanisms take one digest or DigestInfo; nothing
// longer is ever valid.
constexpr std::size_t k_max_raw_input = 4096;

}  // namespace

CK_RV SignOperation::Begin(const CK_MECHANISM& mechanism, std::shared_ptr<const TokenObject> key,
                           SignHashPssFunction pss, std::unique_ptr<SignOperation>& operation) {
  const Mechanism* found = Mechanisms::Find(mechanism.mechanism);
  if (found == nullptr || !found->sign) return CKR_MECHANISM_INVALID;
  if (found->scheme == Scheme::k_rsa_pss && pss == nullptr) return CKR_MECHANISM_INVALID;
  if (key->Kind() != ObjectKind::k_private_key) return CKR_KEY_HANDLE_INVALID;
  if (key->KeyType() != found->key_type) return CKR_KEY_TYPE_INCONSISTENT;
  if (!key->BoolAttribute(CKA_SIGN)) return CKR_KEY_FUNCTION_NOT_PERMITTED;

  std::unique_ptr<SignOperation> made(new SignOperation());
  made->mechanism_ = found;
  made->key_ = std::move(key);
  made->pss_ = pss;
  if (found->scheme == Scheme::k_rsa_pss) {
    if (mechanism.pParameter == nullptr ||
        mechanism.ulParameterLen != sizeof(CK_RSA_PKCS_PSS_PARAMS))
      return CKR_MECHANISM_PARAM_INVALID;
    const auto* params = static_cast<const CK_RSA_PKCS_PSS_PARAMS*>(mechanism.pParameter);
    const HashKind* hash = Mechanisms::HashByMechanism(params->hashAlg);
    // The library uses MGF1 with the signing digest, and a hashing
    // mechanism's digest is its own.
    if (hash == nullptr || params->mgf != hash->mgf ||
        (found->hashing != nullptr && found->hashing != hash))
      return CKR_MECHANISM_PARAM_INVALID;
    const std::size_t modulus = made->key_->SignatureLength();
    if (modulus < hash->length + 2 || params->sLen > modulus - hash->length - 2)
      return CKR_MECHANISM_PARAM_INVALID;
    made->pss_hash_ = hash;
    made->salt_length_ = params->sLen;
  } else if (mechanism.pParameter != nullptr || mechanism.ulParameterLen != 0) {
    return CKR_MECHANISM_PARAM_INVALID;
  }
  if (found->hashing != nullptr) {
    made->running_ = Mechanisms::BeginDigest(*found->hashing);
    if (made->running_ == nullptr) return CKR_HOST_MEMORY;
  }
  operation = std::move(made);
  return CKR_OK;
}

CK_RV SignOperation::Update(const unsigned char* data, std::size_t length) {
  if (running_ != nullptr)
    return EVP_DigestUpdate(running_.get(), data, length) == 1 ? CKR_OK : CKR_FUNCTION_FAILED;
  if (data_.size() + length > k_max_raw_input) return CKR_DATA_LEN_RANGE;
  data_.insert(data_.end(), data, data + length);
  return CKR_OK;
}

CK_RV SignOperation::Digest(Bytes& digest, const HashKind*& hash) {
  if (running_ != nullptr) {
    digest.assign(EVP_MAX_MD_SIZE, 0);
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(running_.get(), digest.data(), &length) != 1) return CKR_FUNCTION_FAILED;
    digest.resize(length);
    hash = mechanism_->hashing;
    return CKR_OK;
  }
  switch (mechanism_->scheme) {
    case Scheme::k_rsa_pkcs1:
      hash = SignatureEncoding::ParseDigestInfo(data_, digest);
      return hash != nullptr ? CKR_OK : CKR_DATA_INVALID;
    case Scheme::k_rsa_pss:
      if (data_.size() != pss_hash_->length) return CKR_DATA_LEN_RANGE;
      hash = pss_hash_;
      digest = data_;
      return CKR_OK;
    case Scheme::k_ecdsa:
      // The library signs the digests it knows; their lengths name them.
      hash = Mechanisms::HashByLength(data_.size());
      digest = data_;
      return hash != nullptr ? CKR_OK : CKR_DATA_LEN_RANGE;
    default: return CKR_MECHANISM_INVALID;
  }
}

CK_RV SignOperation::Sign(Bytes& signature, X509_Auth_ResultCode& library_code, OpenKeys& keys) {
  Bytes digest;
  const HashKind* hash = nullptr;
  const CK_RV digested = Digest(digest, hash);
  if (digested != CKR_OK) return digested;

  X509_Auth_Result result{};
  const X509_Auth_KeyHandle open = keys.Get(key_->CertificateThumbprint(), result);
  if (open == 0) {
    library_code = static_cast<X509_Auth_ResultCode>(result.code);
    return CKR_FUNCTION_FAILED;
  }
  const X509_Auth_Signature* made = nullptr;
  if (mechanism_->scheme == Scheme::k_rsa_pss) {
    result = X509_Auth_OpenKeySignHashPss(open, hash->library_type, digest.data(),
                                          static_cast<int32_t>(salt_length_), &made);
  } else {
    const uint32_t algorithm =
        mechanism_->scheme == Scheme::k_ecdsa ? X509_Auth_Algorithm_Ec : X509_Auth_Algorithm_Rsa;
    result =
        X509_Auth_OpenKeySignHash(open, 1, &algorithm, hash->library_type, digest.data(), &made);
  }
  if (result.code != X509_Auth_ResultCode_Success || made == nullptr) {
    library_code = result.code != X509_Auth_ResultCode_Success
                       ? result.code
                       : X509_Auth_ResultCode_KeyOperationFailed;
    if (made != nullptr) X509_Auth_Free(made);
    return CKR_FUNCTION_FAILED;
  }
  CK_RV rv = CKR_OK;
  if (mechanism_->scheme == Scheme::k_ecdsa) {
    if (!SignatureEncoding::EcdsaDerToRaw(made->data, made->length, key_->OrderLength(), signature))
      rv = CKR_FUNCTION_FAILED;
  } else if (made->length != key_->SignatureLength()) {
    rv = CKR_FUNCTION_FAILED;
  } else {
    signature.assign(made->data, made->data + made->length);
  }
  X509_Auth_Free(made);
  if (rv != CKR_OK) library_code = X509_Auth_ResultCode_KeyOperationFailed;
  return rv;
}

}  // namespace x509auth_pkcs11
