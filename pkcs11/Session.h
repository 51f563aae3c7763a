#pragma once
// One PKCS#11 session: its flags, the search in progress, the one
// signature or decryption in progress and the one digest in progress.
#include <memory>
#include <vector>

#include "DecryptOperation.h"
#include "DigestOperation.h"
#include "Pkcs11.h"
#include "SignOperation.h"

namespace x509auth_pkcs11 {

struct Session {
  explicit Session(CK_FLAGS session_flags) : flags(session_flags) {}

  CK_FLAGS flags;
  // C_FindObjectsInit .. C_FindObjectsFinal.
  bool finding = false;
  std::vector<CK_OBJECT_HANDLE> found;
  std::size_t next_found = 0;
  // C_SignInit .. the end of the signature.
  std::unique_ptr<SignOperation> sign;
  // C_DecryptInit .. the end of the decryption.
  std::unique_ptr<DecryptOperation> decrypt;
  // C_DigestInit .. the end of the digest.
  std::unique_ptr<DigestOperation> digest;
};

}  // namespace x509auth_pkcs11
