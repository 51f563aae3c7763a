#include "CertificateObjects.h"

#include <openssl/asn1.h>
#include <openssl/ec.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include <cstring>
#include <ctime>

#include "OpenSslPtr.h"

namespace x509auth_pkcs11 {
namespace {

template <typename T, typename Encode>
Bytes Der(const T* value, Encode encode) {
  const int length = encode(const_cast<T*>(value), nullptr);
  if (length <= 0) return {};
  Bytes bytes(static_cast<std::size_t>(length));
  unsigned char* out = bytes.data();
  encode(const_cast<T*>(value), &out);
  return bytes;
}

Bytes BigNum(const BIGNUM* number) {
  Bytes bytes(static_cast<std::size_t>(BN_num_bytes(number)));
  BN_bn2bin(number, bytes.data());
  return bytes;
}

Bytes Text(const std::string& text) { return Bytes(text.begin(), text.end()); }

// The subject's common name, else its one-line form: what card tools show
// as the label.
std::string Label(X509* cert) {
  X509_NAME* subject = X509_get_subject_name(cert);
  const int index = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
  if (index >= 0) {
    unsigned char* utf8 = nullptr;
    const int length =
        ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index)));
    const OpenSslBytesPtr owned(utf8);
    if (length >= 0)
      return std::string(reinterpret_cast<char*>(utf8), static_cast<std::size_t>(length));
  }
  char line[256];
  X509_NAME_oneline(subject, line, sizeof(line));
  return line;
}

// CK_DATE: "YYYYMMDD" characters; empty when the time cannot be read.
Bytes Date(const ASN1_TIME* time) {
  struct tm parts {};
  if (time == nullptr || ASN1_TIME_to_tm(time, &parts) != 1) return {};
  char text[16];
  std::snprintf(text, sizeof(text), "%04d%02d%02d", (parts.tm_year + 1900) % 10000,
                (parts.tm_mon + 1) % 100, parts.tm_mday % 100);
  return Bytes(text, text + 8);
}

X509Ptr Parse(const Bytes& der) {
  const unsigned char* in = der.data();
  X509Ptr cert(d2i_X509(nullptr, &in, static_cast<long>(der.size())));
  if (cert == nullptr || in != der.data() + der.size()) return nullptr;
  return cert;
}

void SetCommon(TokenObject& object, CK_OBJECT_CLASS object_class, const Thumbprint& thumbprint,
               const std::string& label, bool is_private) {
  object.SetULong(CKA_CLASS, object_class);
  object.SetBool(CKA_TOKEN, true);
  object.SetBool(CKA_PRIVATE, is_private);
  object.SetBool(CKA_MODIFIABLE, false);
  object.SetBool(CKA_COPYABLE, false);
  object.SetBool(CKA_DESTROYABLE, false);
  object.Set(CKA_LABEL, Text(label));
  object.Set(CKA_ID, Bytes(thumbprint.begin(), thumbprint.end()));
}

std::shared_ptr<TokenObject> CertificateObject(ObjectKind kind, const Thumbprint& thumbprint,
                                               X509* cert, const Bytes& der) {
  auto object = std::make_shared<TokenObject>(kind, thumbprint);
  SetCommon(*object, CKO_CERTIFICATE, thumbprint, Label(cert), false);
  object->SetULong(CKA_CERTIFICATE_TYPE, CKC_X_509);
  object->SetBool(CKA_TRUSTED, false);
  object->SetULong(CKA_CERTIFICATE_CATEGORY, kind == ObjectKind::k_authority ? 2 : 1);
  object->Set(CKA_CHECK_VALUE, Bytes(thumbprint.begin(), thumbprint.begin() + 3));
  object->Set(CKA_START_DATE, Date(X509_get0_notBefore(cert)));
  object->Set(CKA_END_DATE, Date(X509_get0_notAfter(cert)));
  object->Set(CKA_SUBJECT, Der(X509_get_subject_name(cert), i2d_X509_NAME));
  object->Set(CKA_ISSUER, Der(X509_get_issuer_name(cert), i2d_X509_NAME));
  object->Set(CKA_SERIAL_NUMBER, Der(X509_get0_serialNumber(cert), i2d_ASN1_INTEGER));
  object->Set(CKA_VALUE, der);
  object->Set(CKA_URL, {});
  object->Set(CKA_HASH_OF_SUBJECT_PUBLIC_KEY, {});
  object->Set(CKA_HASH_OF_ISSUER_PUBLIC_KEY, {});
  object->SetULong(CKA_JAVA_MIDP_SECURITY_DOMAIN, 0);
  object->SetULong(CKA_NAME_HASH_ALGORITHM, CKM_SHA_1);
  object->Set(CKA_PUBLIC_KEY_INFO, Der(X509_get_X509_PUBKEY(cert), i2d_X509_PUBKEY));
  return object;
}

// Public values of the key shared by the public and the private key objects.
// False when the key is neither RSA nor EC.
bool SetKeyValues(TokenObject& object, EVP_PKEY* key, X509* cert) {
  object.Set(CKA_SUBJECT, Der(X509_get_subject_name(cert), i2d_X509_NAME));
  object.Set(CKA_PUBLIC_KEY_INFO, Der(X509_get_X509_PUBKEY(cert), i2d_X509_PUBKEY));
  object.Set(CKA_START_DATE, {});
  object.Set(CKA_END_DATE, {});
  object.SetBool(CKA_DERIVE, false);
  object.SetBool(CKA_LOCAL, false);
  object.SetULong(CKA_KEY_GEN_MECHANISM, CK_UNAVAILABLE_INFORMATION);
  if (EVP_PKEY_base_id(key) == EVP_PKEY_RSA) {
    const RSA* rsa = EVP_PKEY_get0_RSA(key);
    const BIGNUM* n = nullptr;
    const BIGNUM* e = nullptr;
    RSA_get0_key(rsa, &n, &e, nullptr);
    object.SetULong(CKA_KEY_TYPE, CKK_RSA);
    object.Set(CKA_MODULUS, BigNum(n));
    object.Set(CKA_PUBLIC_EXPONENT, BigNum(e));
    object.SetULong(CKA_MODULUS_BITS, static_cast<CK_ULONG>(BN_num_bits(n)));
    object.SetSignatureLength(static_cast<std::size_t>(BN_num_bytes(n)));
    return true;
  }
  if (EVP_PKEY_base_id(key) == EVP_PKEY_EC) {
    const EC_KEY* ec = EVP_PKEY_get0_EC_KEY(key);
    const EC_GROUP* group = EC_KEY_get0_group(ec);
    const EC_POINT* point = EC_KEY_get0_public_key(ec);
    object.SetULong(CKA_KEY_TYPE, CKK_EC);
    object.Set(CKA_EC_PARAMS, Der(group, i2d_ECPKParameters));
    Bytes octets(
        EC_POINT_point2oct(group, point, POINT_CONVERSION_UNCOMPRESSED, nullptr, 0, nullptr));
    EC_POINT_point2oct(group, point, POINT_CONVERSION_UNCOMPRESSED, octets.data(), octets.size(),
                       nullptr);
    // CKA_EC_POINT is the DER encoding of the point as an OCTET STRING.
    const Asn1OctetStringPtr wrapped(ASN1_OCTET_STRING_new());
    if (wrapped == nullptr ||
        ASN1_OCTET_STRING_set(wrapped.get(), octets.data(), static_cast<int>(octets.size())) != 1)
      return false;
    object.Set(CKA_EC_POINT, Der(wrapped.get(), i2d_ASN1_OCTET_STRING));
    const std::size_t order_bytes = static_cast<std::size_t>((EC_GROUP_order_bits(group) + 7) / 8);
    object.SetSignatureLength(2 * order_bytes);
    return true;
  }
  return false;
}

}  // namespace

Thumbprint CertificateObjects::ThumbprintOf(const Bytes& der) {
  Thumbprint thumbprint{};
  SHA1(der.data(), der.size(), thumbprint.data());
  return thumbprint;
}

std::vector<std::shared_ptr<const TokenObject>> CertificateObjects::Client(
    const Thumbprint& thumbprint, const Bytes& der, bool keys_private) {
  std::vector<std::shared_ptr<const TokenObject>> objects;
  X509Ptr cert = Parse(der);
  if (cert == nullptr) return objects;
  objects.push_back(CertificateObject(ObjectKind::k_certificate, thumbprint, cert.get(), der));
  EVP_PKEY* key = X509_get0_pubkey(cert.get());
  if (key == nullptr) return objects;
  const std::string label = Label(cert.get());

  auto public_key = std::make_shared<TokenObject>(ObjectKind::k_public_key, thumbprint);
  SetCommon(*public_key, CKO_PUBLIC_KEY, thumbprint, label, false);
  if (!SetKeyValues(*public_key, key, cert.get())) return objects;
  const bool rsa = public_key->KeyType() == CKK_RSA;
  // The module only signs and decrypts; verification and encryption belong
  // to the program, with the certificate's key.
  public_key->SetBool(CKA_ENCRYPT, false);
  public_key->SetBool(CKA_VERIFY, false);
  public_key->SetBool(CKA_VERIFY_RECOVER, false);
  public_key->SetBool(CKA_WRAP, false);
  public_key->SetBool(CKA_TRUSTED, false);
  objects.push_back(public_key);

  auto private_key = std::make_shared<TokenObject>(ObjectKind::k_private_key, thumbprint);
  SetCommon(*private_key, CKO_PRIVATE_KEY, thumbprint, label, keys_private);
  SetKeyValues(*private_key, key, cert.get());
  private_key->SetBool(CKA_SENSITIVE, true);
  private_key->SetBool(CKA_ALWAYS_SENSITIVE, true);
  private_key->SetBool(CKA_EXTRACTABLE, false);
  private_key->SetBool(CKA_NEVER_EXTRACTABLE, true);
  private_key->SetBool(CKA_SIGN, true);
  private_key->SetBool(CKA_SIGN_RECOVER, false);
  private_key->SetBool(CKA_DECRYPT, rsa);
  private_key->SetBool(CKA_UNWRAP, false);
  private_key->SetBool(CKA_WRAP_WITH_TRUSTED, false);
  private_key->SetBool(CKA_ALWAYS_AUTHENTICATE, false);
  if (rsa) {
    for (CK_ATTRIBUTE_TYPE type : {CKA_PRIVATE_EXPONENT, CKA_PRIME_1, CKA_PRIME_2, CKA_EXPONENT_1,
                                   CKA_EXPONENT_2, CKA_COEFFICIENT})
      private_key->SetSensitive(type);
  } else {
    private_key->SetSensitive(CKA_VALUE);
  }
  objects.push_back(private_key);
  return objects;
}

std::shared_ptr<const TokenObject> CertificateObjects::Authority(const Thumbprint& thumbprint,
                                                                 const Bytes& der) {
  X509Ptr cert = Parse(der);
  if (cert == nullptr) return nullptr;
  return CertificateObject(ObjectKind::k_authority, thumbprint, cert.get(), der);
}

}  // namespace x509auth_pkcs11
