#pragma once
// PKCS#11's two-call convention for output buffers and lists, in one place:
// a null buffer asks for the length, a buffer too small gets
// CKR_BUFFER_TOO_SMALL with the length, and neither ends the operation.
// Lengths count elements: bytes, slot IDs, mechanism types.
#include <cstddef>
#include <cstring>
#include <vector>

#include "Pkcs11.h"

namespace x509auth_pkcs11 {

template <typename Element>
class OutputArray {
 public:
  OutputArray(Element* out, CK_ULONG_PTR length) : out_(out), length_(length) {}

  // Whether the buffer takes |size| elements. When it does not, Answer() is
  // what the call returns (CKR_OK for a length query, else
  // CKR_BUFFER_TOO_SMALL), |*length| already set to |size|, and the
  // operation goes on.
  bool Takes(std::size_t size) {
    if (out_ != nullptr && *length_ >= size) return true;
    answer_ = out_ == nullptr ? CKR_OK : CKR_BUFFER_TOO_SMALL;
    *length_ = size;
    return false;
  }
  CK_RV Answer() const { return answer_; }
  // Copies |value| (which the buffer takes) and sets the length.
  void Fill(const std::vector<Element>& value) {
    if (!value.empty()) std::memcpy(out_, value.data(), value.size() * sizeof(Element));
    *length_ = value.size();
  }

 private:
  Element* out_;
  CK_ULONG_PTR length_;
  CK_RV answer_ = CKR_OK;
};

using OutputBuffer = OutputArray<CK_BYTE>;

}  // namespace x509auth_pkcs11
