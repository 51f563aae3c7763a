#include "TokenObject.h"

#include <cstring>

namespace x509auth_pkcs11 {

void TokenObject::SetULong(CK_ATTRIBUTE_TYPE type, CK_ULONG value) {
  Bytes bytes(sizeof(value));
  std::memcpy(bytes.data(), &value, sizeof(value));
  attributes_[type] = std::move(bytes);
}

void TokenObject::SetBool(CK_ATTRIBUTE_TYPE type, bool value) {
  attributes_[type] = Bytes{static_cast<unsigned char>(value ? CK_TRUE : CK_FALSE)};
}

const Bytes* TokenObject::Find(CK_ATTRIBUTE_TYPE type) const {
  const auto found = attributes_.find(type);
  return found == attributes_.end() ? nullptr : &found->second;
}

bool TokenObject::BoolAttribute(CK_ATTRIBUTE_TYPE type) const {
  const Bytes* value = Find(type);
  return value != nullptr && value->size() == 1 && (*value)[0] == CK_TRUE;
}

CK_ULONG TokenObject::ULongAttribute(CK_ATTRIBUTE_TYPE type, CK_ULONG fallback) const {
  const Bytes* value = Find(type);
  if (value == nullptr || value->size() != sizeof(CK_ULONG)) return fallback;
  CK_ULONG result = 0;
  std::memcpy(&result, value->data(), sizeof(result));
  return result;
}

bool TokenObject::Matches(const CK_ATTRIBUTE* templ, CK_ULONG count) const {
  for (CK_ULONG i = 0; i < count; ++i) {
    const Bytes* value = Find(templ[i].type);
    if (value == nullptr || value->size() != templ[i].ulValueLen) return false;
    if (!value->empty() && std::memcmp(value->data(), templ[i].pValue, value->size()) != 0)
      return false;
  }
  return true;
}

}  // namespace x509auth_pkcs11
