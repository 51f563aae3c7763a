#include "SignatureEncoding.h"

#include <openssl/asn1.h>
#include <openssl/ec.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include <cstring>

#include "OpenSslPtr.h"

namespace x509auth_pkcs11 {

const HashKind* SignatureEncoding::ParseDigestInfo(const Bytes& input, Bytes& digest) {
  // DigestInfo has X509_SIG's shape: an AlgorithmIdentifier and an OCTET
  // STRING.
  const unsigned char* in = input.data();
  X509SigPtr info(d2i_X509_SIG(nullptr, &in, static_cast<long>(input.size())));
  if (info == nullptr || in != input.data() + input.size()) return nullptr;
  const X509_ALGOR* algorithm = nullptr;
  const ASN1_OCTET_STRING* value = nullptr;
  X509_SIG_get0(info.get(), &algorithm, &value);
  const ASN1_OBJECT* oid = nullptr;
  int parameter_type = V_ASN1_UNDEF;
  X509_ALGOR_get0(&oid, &parameter_type, nullptr, algorithm);
  if (parameter_type != V_ASN1_UNDEF && parameter_type != V_ASN1_NULL) return nullptr;
  const HashKind* hash = Mechanisms::HashByNid(OBJ_obj2nid(oid));
  if (hash == nullptr || static_cast<std::size_t>(ASN1_STRING_length(value)) != hash->length)
    return nullptr;
  // Re-encoding must give the input back: no alternative encodings pass.
  unsigned char* encoded = nullptr;
  const int encoded_length = i2d_X509_SIG(info.get(), &encoded);
  const OpenSslBytesPtr owned(encoded);
  if (encoded_length != static_cast<int>(input.size()) ||
      std::memcmp(encoded, input.data(), input.size()) != 0)
    return nullptr;
  digest.assign(ASN1_STRING_get0_data(value), ASN1_STRING_get0_data(value) + hash->length);
  return hash;
}

bool SignatureEncoding::EcdsaDerToRaw(const unsigned char* der, std::size_t length,
                                      std::size_t order_length, Bytes& raw) {
  const unsigned char* in = der;
  EcdsaSigPtr signature(d2i_ECDSA_SIG(nullptr, &in, static_cast<long>(length)));
  if (signature == nullptr || in != der + length || order_length == 0) return false;
  const BIGNUM* r = nullptr;
  const BIGNUM* s = nullptr;
  ECDSA_SIG_get0(signature.get(), &r, &s);
  raw.assign(2 * order_length, 0);
  return BN_bn2binpad(r, raw.data(), static_cast<int>(order_length)) ==
             static_cast<int>(order_length) &&
         BN_bn2binpad(s, raw.data() + order_length, static_cast<int>(order_length)) ==
             static_cast<int>(order_length);
}

}  // namespace x509auth_pkcs11
