#pragma once
// One digest in progress in a session (C_DigestInit .. the end of the
// digest), computed by the module with OpenSSL; independent of the
// session's signature or decryption.
#include <memory>

#include "Mechanisms.h"
#include "OpenSslPtr.h"
#include "TokenObject.h"

namespace x509auth_pkcs11 {

class DigestOperation {
 public:
  // CKR_OK with |operation| set, CKR_MECHANISM_INVALID for anything but a
  // digest mechanism, CKR_MECHANISM_PARAM_INVALID when it has parameters.
  static CK_RV Begin(const CK_MECHANISM& mechanism, std::unique_ptr<DigestOperation>& operation);

  CK_RV Update(const unsigned char* data, std::size_t length);
  // Digesting a key means digesting its secret value; no key here has one
  // that leaves the token.
  static CK_RV DigestKey(const TokenObject& key);
  // The digest's length.
  std::size_t OutputLength() const { return hash_->length; }
  CK_RV Final(Bytes& digest);

 private:
  DigestOperation() = default;

  const HashKind* hash_ = nullptr;
  EvpMdCtxPtr running_;
};

}  // namespace x509auth_pkcs11
