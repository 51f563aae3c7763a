#pragma once
// One object of the token: its kind, the certificate it comes from and its
// attribute values as PKCS#11 hands them out. Immutable once made; sessions
// hold it by shared_ptr so that an operation keeps its key's facts even when
// a later listing no longer has the certificate.
#include <array>
#include <cstdint>
#include <map>
#include <set>
#include <vector>

#include "Pkcs11.h"

namespace x509auth_pkcs11 {

using Thumbprint = std::array<uint8_t, 20>;
using Bytes = std::vector<unsigned char>;

enum class ObjectKind { k_certificate = 1, k_public_key = 2, k_private_key = 3, k_authority = 4 };

class TokenObject {
 public:
  TokenObject(ObjectKind kind, const Thumbprint& thumbprint)
      : kind_(kind), thumbprint_(thumbprint) {}

  ObjectKind Kind() const { return kind_; }
  // The certificate's SHA-1 thumbprint (also its CKA_ID).
  const Thumbprint& CertificateThumbprint() const { return thumbprint_; }

  void Set(CK_ATTRIBUTE_TYPE type, Bytes value) { attributes_[type] = std::move(value); }
  void SetULong(CK_ATTRIBUTE_TYPE type, CK_ULONG value);
  void SetBool(CK_ATTRIBUTE_TYPE type, bool value);
  // An attribute the object has but never reveals (the private parts).
  void SetSensitive(CK_ATTRIBUTE_TYPE type) { sensitive_.insert(type); }

  // Null when the object has no such attribute.
  const Bytes* Find(CK_ATTRIBUTE_TYPE type) const;
  bool IsSensitive(CK_ATTRIBUTE_TYPE type) const { return sensitive_.count(type) != 0; }
  bool BoolAttribute(CK_ATTRIBUTE_TYPE type) const;
  CK_ULONG ULongAttribute(CK_ATTRIBUTE_TYPE type, CK_ULONG fallback) const;
  // True when every attribute of the template has exactly this value here.
  // The template must have been checked for null values.
  bool Matches(const CK_ATTRIBUTE* templ, CK_ULONG count) const;

  // Key facts the mechanisms need, for key objects.
  CK_KEY_TYPE KeyType() const { return ULongAttribute(CKA_KEY_TYPE, CK_UNAVAILABLE_INFORMATION); }
  // Bytes of a signature: the modulus length for RSA, twice the group
  // order's for ECDSA (r || s).
  std::size_t SignatureLength() const { return signature_length_; }
  void SetSignatureLength(std::size_t length) { signature_length_ = length; }
  // Bytes of the EC group order, for the r || s conversion.
  std::size_t OrderLength() const { return signature_length_ / 2; }

 private:
  ObjectKind kind_;
  Thumbprint thumbprint_;
  std::map<CK_ATTRIBUTE_TYPE, Bytes> attributes_;
  std::set<CK_ATTRIBUTE_TYPE> sensitive_;
  std::size_t signature_length_ = 0;
};

}  // namespace x509auth_pkcs11
