#pragma once
// PKCS#11's two-call convention for output buffers, in one place: a null
// buffer asks for the length, a buffer too small gets
// CKR_BUFFER_TOO_SMALL with the length, and neither ends the operation.
#include <cstddef>

#include "Pkcs11.h"
#include "TokenObject.h"

namespace x509auth_pkcs11 {

class OutputBuffer {
 public:
  OutputBuffer(CK_BYTE_PTR out, CK_ULONG_PTR length) : out_(out), length_(length) {}

  // Whether the buffer takes |size| bytes. When it does not, Answer() is
  // what the call returns (CKR_OK for a length query, else
  // CKR_BUFFER_TOO_SMALL), |*length| already set to |size|, and the
  // operation goes on.
  bool Takes(std::size_t size);
  CK_RV Answer() const { return answer_; }
  // Copies |value| (which the buffer takes) and sets the length.
  void Fill(const Bytes& value);

 private:
  CK_BYTE_PTR out_;
  CK_ULONG_PTR length_;
  CK_RV answer_ = CKR_OK;
};

}  // namespace x509auth_pkcs11
