#include "CertificatePublicKey.h"

#include <openssl/asn1.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/objects.h>

#include <string>

namespace x509auth_provider {
namespace {

// One DER element: where it starts, its tag and class, and its contents.
struct Element {
  const unsigned char* start = nullptr;
  const unsigned char* content = nullptr;
  long length = 0;
  int tag = 0;
  int xclass = 0;
  const unsigned char* end() const { return content + length; }
};

// Reads the element at |*cursor| (which must end by |end|) and moves the
// cursor past it. DER has definite lengths only.
bool Next(const unsigned char** cursor, const unsigned char* end, Element* element) {
  if (*cursor >= end) return false;
  const unsigned char* p = *cursor;
  long length = 0;
  int tag = 0;
  int xclass = 0;
  const int flags = ASN1_get_object(&p, &length, &tag, &xclass, end - *cursor);
  if ((flags & 0x80) != 0 || flags == (V_ASN1_CONSTRUCTED | 1) || length > end - p) return false;
  *element = Element{*cursor, p, length, tag, xclass};
  *cursor = p + length;
  return true;
}

bool IsUniversal(const Element& element, int tag) {
  return element.xclass == V_ASN1_UNIVERSAL && element.tag == tag;
}

// Reads the next element, which must be universal |tag|.
bool Expect(const unsigned char** cursor, const unsigned char* end, int tag, Element* element) {
  return Next(cursor, end, element) && IsUniversal(*element, tag);
}

// The SubjectPublicKeyInfo of the certificate |der|: the seventh element of
// the TBSCertificate, or the sixth when the version is left out.
bool FindSubjectPublicKeyInfo(const std::vector<unsigned char>& der, Element* info) {
  const unsigned char* cursor = der.data();
  Element certificate;
  Element tbs;
  if (!Expect(&cursor, der.data() + der.size(), V_ASN1_SEQUENCE, &certificate)) return false;
  cursor = certificate.content;
  if (!Expect(&cursor, certificate.end(), V_ASN1_SEQUENCE, &tbs)) return false;
  cursor = tbs.content;
  Element element;
  if (!Next(&cursor, tbs.end(), &element)) return false;
  // [0] version, then the serial number.
  if (element.xclass == V_ASN1_CONTEXT_SPECIFIC && element.tag == 0 &&
      !Next(&cursor, tbs.end(), &element))
    return false;
  if (!IsUniversal(element, V_ASN1_INTEGER)) return false;
  // The signature algorithm, issuer, validity and subject.
  for (int i = 0; i < 4; ++i)
    if (!Expect(&cursor, tbs.end(), V_ASN1_SEQUENCE, &element)) return false;
  return Expect(&cursor, tbs.end(), V_ASN1_SEQUENCE, info);
}

// The NID of the OBJECT IDENTIFIER |element|.
int Nid(const Element& element) {
  const unsigned char* p = element.start;
  const Asn1ObjectPtr object(d2i_ASN1_OBJECT(nullptr, &p, element.end() - element.start));
  return object != nullptr ? OBJ_obj2nid(object.get()) : NID_undef;
}

// A positive INTEGER as a BIGNUM; null for any other.
BignumPtr PositiveInteger(const unsigned char** cursor, const unsigned char* end) {
  Element integer;
  if (!Expect(cursor, end, V_ASN1_INTEGER, &integer) || integer.length == 0 ||
      (integer.content[0] & 0x80) != 0)
    return nullptr;
  return BignumPtr(BN_bin2bn(integer.content, static_cast<int>(integer.length), nullptr));
}

// RSAPublicKey ::= SEQUENCE { modulus INTEGER, publicExponent INTEGER }
bool PushRsa(const unsigned char* key, long length, OSSL_PARAM_BLD* params, BignumPtr* n,
             BignumPtr* e) {
  const unsigned char* cursor = key;
  Element sequence;
  if (!Expect(&cursor, key + length, V_ASN1_SEQUENCE, &sequence) || cursor != key + length)
    return false;
  cursor = sequence.content;
  *n = PositiveInteger(&cursor, sequence.end());
  *e = PositiveInteger(&cursor, sequence.end());
  return *n != nullptr && *e != nullptr && cursor == sequence.end() &&
         OSSL_PARAM_BLD_push_BN(params, OSSL_PKEY_PARAM_RSA_N, n->get()) == 1 &&
         OSSL_PARAM_BLD_push_BN(params, OSSL_PKEY_PARAM_RSA_E, e->get()) == 1;
}

// A named curve's OID and the encoded point.
bool PushEc(const Element& curve, const unsigned char* key, long length, OSSL_PARAM_BLD* params) {
  if (!IsUniversal(curve, V_ASN1_OBJECT)) return false;  // explicit parameters
  const char* name = OBJ_nid2sn(Nid(curve));
  if (name == nullptr) return false;
  return OSSL_PARAM_BLD_push_utf8_string(params, OSSL_PKEY_PARAM_GROUP_NAME, name, 0) == 1 &&
         OSSL_PARAM_BLD_push_octet_string(params, OSSL_PKEY_PARAM_PUB_KEY, key,
                                          static_cast<std::size_t>(length)) == 1;
}

}  // namespace

EvpPkeyPtr CertificatePublicKey::Read(const std::vector<unsigned char>& der, OSSL_LIB_CTX* libctx,
                                      const char* properties) {
  Element info;
  if (!FindSubjectPublicKeyInfo(der, &info)) return nullptr;
  // SubjectPublicKeyInfo ::= SEQUENCE { algorithm AlgorithmIdentifier,
  //                                     subjectPublicKey BIT STRING }
  const unsigned char* cursor = info.content;
  Element algorithm;
  Element key;
  if (!Expect(&cursor, info.end(), V_ASN1_SEQUENCE, &algorithm) ||
      !Expect(&cursor, info.end(), V_ASN1_BIT_STRING, &key) || cursor != info.end() ||
      key.length < 2 || key.content[0] != 0)
    return nullptr;
  const unsigned char* bits = key.content + 1;
  const long bits_length = key.length - 1;
  cursor = algorithm.content;
  Element oid;
  Element parameters;
  if (!Expect(&cursor, algorithm.end(), V_ASN1_OBJECT, &oid)) return nullptr;
  const bool has_parameters = Next(&cursor, algorithm.end(), &parameters);
  if (cursor != algorithm.end()) return nullptr;

  const ParamBldPtr builder(OSSL_PARAM_BLD_new());
  if (builder == nullptr) return nullptr;
  BignumPtr n;
  BignumPtr e;
  const char* type = nullptr;
  switch (Nid(oid)) {
    case NID_rsaEncryption:
      if (!PushRsa(bits, bits_length, builder.get(), &n, &e)) return nullptr;
      type = "RSA";
      break;
    case NID_X9_62_id_ecPublicKey:
      if (!has_parameters || !PushEc(parameters, bits, bits_length, builder.get())) return nullptr;
      type = "EC";
      break;
    default: return nullptr;
  }
  const OsslParamPtr params(OSSL_PARAM_BLD_to_param(builder.get()));
  const EvpPkeyCtxPtr context(EVP_PKEY_CTX_new_from_name(libctx, type, properties));
  EVP_PKEY* made = nullptr;
  if (params == nullptr || context == nullptr || EVP_PKEY_fromdata_init(context.get()) != 1 ||
      EVP_PKEY_fromdata(context.get(), &made, EVP_PKEY_PUBLIC_KEY, params.get()) != 1)
    return nullptr;
  return EvpPkeyPtr(made);
}

}  // namespace x509auth_provider
