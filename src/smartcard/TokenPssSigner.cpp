#include "smartcard/TokenPssSigner.h"

#include <openssl/rsa.h>
#include <p11-kit/pkcs11.h>

#include <algorithm>

#include "base/SafeCallbacksWrapper.h"
#include "smartcard/Libp11Context.h"

namespace quorvant::shared::x509 {

namespace {

constexpr auto k_error = X509_Auth_LogPriority_Error;

ResultPair TokenFailure(CK_RV rv) { return ResultPair{1, static_cast<std::uint64_t>(rv)}; }

// A read-only session of our own on the key's slot, closed when it goes.
class Session {
 public:
  Session(CK_FUNCTION_LIST_PTR functions, CK_SLOT_ID slot) : functions_(functions) {
    rv_ = functions_->C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &handle_);
  }
  ~Session() {
    if (rv_ == CKR_OK) functions_->C_CloseSession(handle_);
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  CK_RV OpenResult() const { return rv_; }
  CK_SESSION_HANDLE Handle() const { return handle_; }

 private:
  CK_FUNCTION_LIST_PTR functions_;
  CK_SESSION_HANDLE handle_ = 0;
  CK_RV rv_ = CKR_GENERAL_ERROR;
};

// Whether the token lists |mechanism| and can sign with it. The list is
// what counts: a module may describe mechanisms it was told not to offer
// (SoftHSM2 does), and then refuses them at C_SignInit.
bool CanSignWith(CK_FUNCTION_LIST_PTR functions, CK_SLOT_ID slot, CK_MECHANISM_TYPE mechanism) {
  CK_ULONG count = 0;
  if (functions->C_GetMechanismList(slot, nullptr, &count) != CKR_OK || count == 0) return false;
  std::vector<CK_MECHANISM_TYPE> mechanisms(count);
  if (functions->C_GetMechanismList(slot, mechanisms.data(), &count) != CKR_OK) return false;
  mechanisms.resize(count);
  if (std::find(mechanisms.begin(), mechanisms.end(), mechanism) == mechanisms.end()) return false;
  CK_MECHANISM_INFO info{};
  return functions->C_GetMechanismInfo(slot, mechanism, &info) == CKR_OK &&
         (info.flags & CKF_SIGN) != 0;
}

// The PKCS#11 names of |digest| as a PSS hash and as an MGF1 hash.
bool MechanismsOf(const EVP_MD* digest, CK_MECHANISM_TYPE* hash, CK_RSA_PKCS_MGF_TYPE* mgf) {
  switch (EVP_MD_type(digest)) {
    case NID_sha1:
      *hash = CKM_SHA_1;
      *mgf = CKG_MGF1_SHA1;
      return true;
    case NID_sha256:
      *hash = CKM_SHA256;
      *mgf = CKG_MGF1_SHA256;
      return true;
    case NID_sha384:
      *hash = CKM_SHA384;
      *mgf = CKG_MGF1_SHA384;
      return true;
    case NID_sha512:
      *hash = CKM_SHA512;
      *mgf = CKG_MGF1_SHA512;
      return true;
    default: return false;
  }
}

CK_RV FindKey(CK_FUNCTION_LIST_PTR functions, CK_SESSION_HANDLE session, const PKCS11_KEY* key,
              CK_OBJECT_HANDLE* found) {
  CK_OBJECT_CLASS key_class = CKO_PRIVATE_KEY;
  CK_ATTRIBUTE wanted[] = {
      {CKA_CLASS, &key_class, sizeof(key_class)},
      {CKA_ID, key->id, static_cast<CK_ULONG>(key->id_len)},
  };
  CK_RV rv = functions->C_FindObjectsInit(session, wanted, 2);
  if (rv != CKR_OK) return rv;
  CK_ULONG count = 0;
  rv = functions->C_FindObjects(session, found, 1, &count);
  functions->C_FindObjectsFinal(session);
  if (rv != CKR_OK) return rv;
  return count == 1 ? CKR_OK : CKR_KEY_HANDLE_INVALID;
}

}  // namespace

TokenPssSigner::TokenPssSigner(const Libp11Context& context, PKCS11_SLOT* slot,
                               const PKCS11_KEY* key, EVP_PKEY* public_key)
    : context_(context), slot_(slot), key_(key), public_key_(public_key) {}

ResultPair TokenPssSigner::Sign(const EVP_MD* digest, const std::vector<unsigned char>& hash,
                                int salt_length, std::vector<unsigned char>* signature) const {
  CK_FUNCTION_LIST_PTR functions = context_.ModuleFunctions();
  const RSA* rsa = public_key_ != nullptr ? EVP_PKEY_get0_RSA(public_key_) : nullptr;
  CK_MECHANISM_TYPE hash_mechanism = 0;
  CK_RSA_PKCS_MGF_TYPE mgf = 0;
  if (functions == nullptr || rsa == nullptr || !MechanismsOf(digest, &hash_mechanism, &mgf)) {
    SafeCallbacksWrapper::Log(k_error, "RSA-PSS on token [%s]: the module or the key is not usable",
                              slot_->token->label);
    return TokenFailure(CKR_GENERAL_ERROR);
  }
  const CK_SLOT_ID slot_id = PKCS11_get_slotid_from_slot(slot_);
  const bool native = CanSignWith(functions, slot_id, CKM_RSA_PKCS_PSS);
  if (!native && !CanSignWith(functions, slot_id, CKM_RSA_X_509)) {
    SafeCallbacksWrapper::Log(
        k_error, "Token [%s] offers neither CKM_RSA_PKCS_PSS nor CKM_RSA_X_509 for signing",
        slot_->token->label);
    return ResultPair{k_mechanism_not_supported, 0};
  }

  const Session session(functions, slot_id);
  CK_OBJECT_HANDLE handle = 0;
  CK_RV rv = session.OpenResult();
  if (rv == CKR_OK) rv = FindKey(functions, session.Handle(), key_, &handle);
  if (rv != CKR_OK) {
    SafeCallbacksWrapper::Log(k_error, "RSA-PSS on token [%s]: the private key is not found (%lu)",
                              slot_->token->label, static_cast<unsigned long>(rv));
    return TokenFailure(rv);
  }

  std::vector<unsigned char> input;
  CK_RSA_PKCS_PSS_PARAMS params{hash_mechanism, mgf, static_cast<CK_ULONG>(salt_length)};
  CK_MECHANISM mechanism{CKM_RSA_PKCS_PSS, &params, sizeof(params)};
  if (native) {
    input = hash;
  } else {
    // The token only exponentiates: the encoded block is the message.
    input.resize(static_cast<std::size_t>(RSA_size(rsa)));
    if (RSA_padding_add_PKCS1_PSS_mgf1(const_cast<RSA*>(rsa), input.data(), hash.data(), digest,
                                       digest, salt_length) != 1) {
      LogWithOpenSslErrors(k_error, "RSA-PSS on token [%s]: the block cannot be encoded",
                           slot_->token->label);
      return TokenFailure(CKR_GENERAL_ERROR);
    }
    mechanism = CK_MECHANISM{CKM_RSA_X_509, nullptr, 0};
  }
  rv = functions->C_SignInit(session.Handle(), &mechanism, handle);
  CK_ULONG length = static_cast<CK_ULONG>(RSA_size(rsa));
  signature->assign(length, 0);
  if (rv == CKR_OK)
    rv = functions->C_Sign(session.Handle(), input.data(), static_cast<CK_ULONG>(input.size()),
                           signature->data(), &length);
  if (rv != CKR_OK) {
    SafeCallbacksWrapper::Log(k_error, "RSA-PSS on token [%s] failed (%lu)", slot_->token->label,
                              static_cast<unsigned long>(rv));
    signature->clear();
    return TokenFailure(rv);
  }
  signature->resize(length);
  return ResultPair{0, 0};
}

}  // namespace quorvant::shared::x509
