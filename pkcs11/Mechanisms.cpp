#include "Mechanisms.h"

#include <openssl/obj_mac.h>

#include <iterator>

namespace x509auth_pkcs11 {
namespace {

const HashKind k_hashes[] = {
    {CKM_SHA_1, CKG_MGF1_SHA1, X509_Auth_HashType_Sha1, EVP_sha1, 20},
    {CKM_SHA256, CKG_MGF1_SHA256, X509_Auth_HashType_Sha256, EVP_sha256, 32},
    {CKM_SHA384, CKG_MGF1_SHA384, X509_Auth_HashType_Sha384, EVP_sha384, 48},
    {CKM_SHA512, CKG_MGF1_SHA512, X509_Auth_HashType_Sha512, EVP_sha512, 64},
};
const HashKind* const k_sha1 = &k_hashes[0];
const HashKind* const k_sha256 = &k_hashes[1];
const HashKind* const k_sha384 = &k_hashes[2];
const HashKind* const k_sha512 = &k_hashes[3];

const Mechanism k_mechanisms[] = {
    {CKM_RSA_PKCS, CKK_RSA, Scheme::k_rsa_pkcs1, nullptr, true, true},
    {CKM_SHA1_RSA_PKCS, CKK_RSA, Scheme::k_rsa_pkcs1, k_sha1, true, false},
    {CKM_SHA256_RSA_PKCS, CKK_RSA, Scheme::k_rsa_pkcs1, k_sha256, true, false},
    {CKM_SHA384_RSA_PKCS, CKK_RSA, Scheme::k_rsa_pkcs1, k_sha384, true, false},
    {CKM_SHA512_RSA_PKCS, CKK_RSA, Scheme::k_rsa_pkcs1, k_sha512, true, false},
    {CKM_RSA_PKCS_PSS, CKK_RSA, Scheme::k_rsa_pss, nullptr, true, false},
    {CKM_SHA1_RSA_PKCS_PSS, CKK_RSA, Scheme::k_rsa_pss, k_sha1, true, false},
    {CKM_SHA256_RSA_PKCS_PSS, CKK_RSA, Scheme::k_rsa_pss, k_sha256, true, false},
    {CKM_SHA384_RSA_PKCS_PSS, CKK_RSA, Scheme::k_rsa_pss, k_sha384, true, false},
    {CKM_SHA512_RSA_PKCS_PSS, CKK_RSA, Scheme::k_rsa_pss, k_sha512, true, false},
    {CKM_RSA_PKCS_OAEP, CKK_RSA, Scheme::k_rsa_oaep, nullptr, false, true},
    {CKM_ECDSA, CKK_EC, Scheme::k_ecdsa, nullptr, true, false},
    {CKM_ECDSA_SHA1, CKK_EC, Scheme::k_ecdsa, k_sha1, true, false},
    {CKM_ECDSA_SHA256, CKK_EC, Scheme::k_ecdsa, k_sha256, true, false},
    {CKM_ECDSA_SHA384, CKK_EC, Scheme::k_ecdsa, k_sha384, true, false},
    {CKM_ECDSA_SHA512, CKK_EC, Scheme::k_ecdsa, k_sha512, true, false},
    {CKM_SHA_1, CKK_RSA, Scheme::k_digest, k_sha1, false, false},
    {CKM_SHA256, CKK_RSA, Scheme::k_digest, k_sha256, false, false},
    {CKM_SHA384, CKK_RSA, Scheme::k_digest, k_sha384, false, false},
    {CKM_SHA512, CKK_RSA, Scheme::k_digest, k_sha512, false, false},
};

}  // namespace

const Mechanism* Mechanisms::Find(CK_MECHANISM_TYPE type) {
  for (const Mechanism& mechanism : k_mechanisms)
    if (mechanism.type == type) return &mechanism;
  return nullptr;
}

std::vector<CK_MECHANISM_TYPE> Mechanisms::List(bool pss_available) {
  std::vector<CK_MECHANISM_TYPE> types;
  for (const Mechanism& mechanism : k_mechanisms)
    if (mechanism.scheme != Scheme::k_rsa_pss || pss_available) types.push_back(mechanism.type);
  return types;
}

CK_MECHANISM_INFO Mechanisms::Info(const Mechanism& mechanism) {
  CK_MECHANISM_INFO info{};
  if (mechanism.scheme == Scheme::k_digest) {
    info.flags = CKF_DIGEST;
    return info;
  }
  // The keys are whatever OpenSSL (for files) or the card holds; these are
  // the sizes OpenSSL signs with.
  if (mechanism.key_type == CKK_RSA) {
    info.ulMinKeySize = 512;
    info.ulMaxKeySize = 16384;
  } else {
    info.ulMinKeySize = 256;
    info.ulMaxKeySize = 521;
    info.flags |= CKF_EC_F_P | CKF_EC_NAMEDCURVE | CKF_EC_UNCOMPRESS;
  }
  if (mechanism.sign) info.flags |= CKF_SIGN;
  if (mechanism.decrypt) info.flags |= CKF_DECRYPT;
  return info;
}

const HashKind* Mechanisms::HashByMechanism(CK_MECHANISM_TYPE type) {
  for (const HashKind& hash : k_hashes)
    if (hash.mechanism == type) return &hash;
  return nullptr;
}

const HashKind* Mechanisms::HashByLength(std::size_t length) {
  for (const HashKind& hash : k_hashes)
    if (hash.length == length) return &hash;
  return nullptr;
}

const HashKind* Mechanisms::HashByNid(int nid) {
  switch (nid) {
    case NID_sha1: return k_sha1;
    case NID_sha256: return k_sha256;
    case NID_sha384: return k_sha384;
    case NID_sha512: return k_sha512;
    default: return nullptr;
  }
}

EvpMdCtxPtr Mechanisms::BeginDigest(const HashKind& hash) {
  EvpMdCtxPtr running(EVP_MD_CTX_new());
  if (!running || EVP_DigestInit_ex(running.get(), hash.digest(), nullptr) != 1) return nullptr;
  return running;
}

}  // namespace x509auth_pkcs11
