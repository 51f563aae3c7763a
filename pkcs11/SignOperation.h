#pragma once
// One signature in progress in a session: the mechanism, its checked
// parameters, the key object (kept even if the next listing drops it) and
// the data or the running digest. The module hashes for the hashing
// mechanisms and hands the library only a digest.
#include <memory>

#include "LibraryLink.h"
#include "Mechanisms.h"
#include "OpenKeys.h"
#include "OpenSslPtr.h"
#include "TokenObject.h"

namespace x509auth_pkcs11 {

class SignOperation {
 public:
  // CKR_OK with |operation| set, or why |mechanism| cannot sign with |key|
  // (CKR_MECHANISM_INVALID, CKR_MECHANISM_PARAM_INVALID,
  // CKR_KEY_TYPE_INCONSISTENT, CKR_KEY_FUNCTION_NOT_PERMITTED).
  static CK_RV Begin(const CK_MECHANISM& mechanism, std::shared_ptr<const TokenObject> key,
                     SignHashPssFunction pss, std::unique_ptr<SignOperation>& operation);

  CK_RV Update(const unsigned char* data, std::size_t length);
  // The length of the signature Sign will make.
  // The signature's length.
  std::size_t OutputLength() const { return key_->SignatureLength(); }
  // Signs what Update was given with the key's open key in |keys| (opened
  // now when it is not yet). On a refusal of the library returns
  // CKR_FUNCTION_FAILED and sets |library_code|; other failures are the
  // data's (CKR_DATA_INVALID, CKR_DATA_LEN_RANGE). The caller routes the
  // library's prompts.
  CK_RV Sign(Bytes& signature, X509_Auth_ResultCode& library_code, OpenKeys& keys);
  const TokenObject& Key() const { return *key_; }

 private:
  SignOperation() = default;
  // The digest to sign and its kind, from the data or the running digest.
  CK_RV Digest(Bytes& digest, const HashKind*& hash);

  const Mechanism* mechanism_ = nullptr;
  std::shared_ptr<const TokenObject> key_;
  SignHashPssFunction pss_ = nullptr;
  EvpMdCtxPtr running_;
  Bytes data_;
  // RSA-PSS: the digest kind the parameters name, and the salt length.
  const HashKind* pss_hash_ = nullptr;
  CK_ULONG salt_length_ = 0;
};

}  // namespace x509auth_pkcs11
