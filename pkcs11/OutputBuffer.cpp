#include "OutputBuffer.h"

#include <cstring>

namespace x509auth_pkcs11 {

bool OutputBuffer::Takes(std::size_t size) {
  if (out_ == nullptr) {
    *length_ = size;
    answer_ = CKR_OK;
    return false;
  }
  if (*length_ < size) {
    *length_ = size;
    answer_ = CKR_BUFFER_TOO_SMALL;
    return false;
  }
  return true;
}

void OutputBuffer::Fill(const Bytes& value) {
  if (!value.empty()) std::memcpy(out_, value.data(), value.size());
  *length_ = value.size();
}

}  // namespace x509auth_pkcs11
