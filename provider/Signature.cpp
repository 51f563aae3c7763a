// Signatures with the keys of x509auth certificates: RSA PKCS#1 v1.5 and
// ECDSA over SHA-1, SHA-256, SHA-384 or SHA-512, both on a given hash and as
// digest-sign (this provider hashes, the library signs the hash).
// Verification uses the certificate's public key with OpenSSL's default
// implementation. RSA-PSS is refused: the library has none.
#include <openssl/core_dispatch.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>
#include <openssl/rsa.h>

#include <cstring>
#include <string>

#include "Dispatch.h"
#include "KeyObject.h"

namespace x509auth_provider {
namespace {

struct SignatureContext {
  ProviderContext* provider = nullptr;
  std::uint32_t algorithm = X509_Auth_Algorithm_Unknown;  // of the table in use
  std::shared_ptr<const KeyObject> key;
  EvpMdPtr md;          // the digest named by the caller, if any
  EvpMdCtxPtr digest;   // running hash of a digest-sign or digest-verify
};

SignatureContext* AsContext(void* context) { return static_cast<SignatureContext*>(context); }

// The library's hash type for |md|, or -1.
int HashTypeOf(const EVP_MD* md) {
  if (EVP_MD_is_a(md, "SHA1")) return X509_Auth_HashType_Sha1;
  if (EVP_MD_is_a(md, "SHA2-256")) return X509_Auth_HashType_Sha256;
  if (EVP_MD_is_a(md, "SHA2-384")) return X509_Auth_HashType_Sha384;
  if (EVP_MD_is_a(md, "SHA2-512")) return X509_Auth_HashType_Sha512;
  return -1;
}

const char* DigestNameForLength(std::size_t length) {
  switch (length) {
    case 20: return "SHA1";
    case 32: return "SHA2-256";
    case 48: return "SHA2-384";
    case 64: return "SHA2-512";
    default: return nullptr;
  }
}

void* NewContext(void* provctx, const char*, std::uint32_t algorithm) {
  auto context = std::make_unique<SignatureContext>();
  context->provider = ProviderContext::From(provctx);
  context->algorithm = algorithm;
  return context.release();  // OpenSSL owns it until FreeContext
}
void* NewRsa(void* provctx, const char* propq) { return NewContext(provctx, propq, X509_Auth_Algorithm_Rsa); }
void* NewEcdsa(void* provctx, const char* propq) { return NewContext(provctx, propq, X509_Auth_Algorithm_Ec); }

void FreeContext(void* context) { std::unique_ptr<SignatureContext> owned(AsContext(context)); }

void* DupContext(void* context) {
  const SignatureContext* from = AsContext(context);
  auto copy = std::make_unique<SignatureContext>();
  copy->provider = from->provider;
  copy->algorithm = from->algorithm;
  copy->key = from->key;
  if (from->md != nullptr) {
    if (EVP_MD_up_ref(from->md.get()) != 1) return nullptr;
    copy->md.reset(from->md.get());
  }
  if (from->digest != nullptr) {
    copy->digest.reset(EVP_MD_CTX_new());
    if (copy->digest == nullptr || EVP_MD_CTX_copy_ex(copy->digest.get(), from->digest.get()) != 1)
      return nullptr;
  }
  return copy.release();
}

bool SetDigest(SignatureContext* context, const char* name) {
  EvpMdPtr md(EVP_MD_fetch(context->provider->Crypto(), name, nullptr));
  if (md == nullptr || HashTypeOf(md.get()) < 0) {
    context->provider->Raise(k_reason_unsupported_digest, "digest %s", name);
    return false;
  }
  context->md = std::move(md);
  return true;
}

int SetParams(void* opaque, const OSSL_PARAM params[]) {
  SignatureContext* context = AsContext(opaque);
  if (params == nullptr) return 1;
  const OSSL_PARAM* p = OSSL_PARAM_locate_const(params, OSSL_SIGNATURE_PARAM_DIGEST);
  if (p != nullptr) {
    const char* name = nullptr;
    if (!OSSL_PARAM_get_utf8_string_ptr(p, &name) || !SetDigest(context, name)) return 0;
  }
  p = OSSL_PARAM_locate_const(params, OSSL_SIGNATURE_PARAM_PAD_MODE);
  if (p != nullptr) {
    int mode = 0;
    const char* name = nullptr;
    bool pkcs1 = false;
    if (p->data_type == OSSL_PARAM_UTF8_STRING && OSSL_PARAM_get_utf8_string_ptr(p, &name))
      pkcs1 = std::strcmp(name, OSSL_PKEY_RSA_PAD_MODE_PKCSV15) == 0;
    else if (OSSL_PARAM_get_int(p, &mode))
      pkcs1 = mode == RSA_PKCS1_PADDING;
    if (context->algorithm != X509_Auth_Algorithm_Rsa || !pkcs1) {
      const std::string shown = name != nullptr            ? name
                                : mode == RSA_PKCS1_PSS_PADDING ? "pss (6)"
                                                                : std::to_string(mode);
      context->provider->Raise(k_reason_unsupported_padding, "padding %s", shown.c_str());
      return 0;
    }
  }
  return 1;
}

const OSSL_PARAM* SettableParams(void*, void*) {
  static const OSSL_PARAM params[] = {
      OSSL_PARAM_utf8_string(OSSL_SIGNATURE_PARAM_DIGEST, nullptr, 0),
      OSSL_PARAM_utf8_string(OSSL_SIGNATURE_PARAM_PAD_MODE, nullptr, 0), OSSL_PARAM_END};
  return params;
}

int GetParams(void* opaque, OSSL_PARAM params[]) {
  SignatureContext* context = AsContext(opaque);
  OSSL_PARAM* p = OSSL_PARAM_locate(params, OSSL_SIGNATURE_PARAM_DIGEST);
  if (p != nullptr && context->md != nullptr &&
      !OSSL_PARAM_set_utf8_string(p, EVP_MD_get0_name(context->md.get())))
    return 0;
  p = OSSL_PARAM_locate(params, OSSL_SIGNATURE_PARAM_PAD_MODE);
  if (p != nullptr && context->algorithm == X509_Auth_Algorithm_Rsa) {
    if (p->data_type == OSSL_PARAM_UTF8_STRING ? !OSSL_PARAM_set_utf8_string(p, OSSL_PKEY_RSA_PAD_MODE_PKCSV15)
                                               : !OSSL_PARAM_set_int(p, RSA_PKCS1_PADDING))
      return 0;
  }
  return 1;
}

const OSSL_PARAM* GettableParams(void*, void*) {
  static const OSSL_PARAM params[] = {
      OSSL_PARAM_utf8_string(OSSL_SIGNATURE_PARAM_DIGEST, nullptr, 0),
      OSSL_PARAM_utf8_string(OSSL_SIGNATURE_PARAM_PAD_MODE, nullptr, 0), OSSL_PARAM_END};
  return params;
}

int Init(void* opaque, void* keydata, const OSSL_PARAM params[]) {
  SignatureContext* context = AsContext(opaque);
  const KeyData* data = static_cast<const KeyData*>(keydata);
  if (data == nullptr || data->key == nullptr || data->key->Algorithm() != context->algorithm) {
    context->provider->Raise(k_reason_bad_argument, "not a key of this provider's kind");
    return 0;
  }
  context->key = data->key;
  context->md.reset();
  context->digest.reset();
  return SetParams(opaque, params);
}

std::size_t MaxSize(const SignatureContext* context) {
  return static_cast<std::size_t>(EVP_PKEY_get_size(context->key->PublicKey()));
}

int SignHash(SignatureContext* context, unsigned char* sig, size_t* siglen, size_t sigsize,
             const unsigned char* hash, size_t length) {
  if (sig == nullptr) {
    *siglen = MaxSize(context);
    return 1;
  }
  int hash_type = -1;
  if (context->md != nullptr) {
    hash_type = HashTypeOf(context->md.get());
    if (static_cast<std::size_t>(EVP_MD_get_size(context->md.get())) != length) {
      context->provider->Raise(k_reason_bad_argument, "a %s hash has %d bytes, not %zu",
                               EVP_MD_get0_name(context->md.get()),
                               EVP_MD_get_size(context->md.get()), length);
      return 0;
    }
  } else {
    const char* name = DigestNameForLength(length);
    if (name == nullptr) {
      context->provider->Raise(k_reason_unsupported_digest, "no digest has %zu bytes", length);
      return 0;
    }
    EvpMdPtr md(EVP_MD_fetch(context->provider->Crypto(), name, nullptr));
    hash_type = md != nullptr ? HashTypeOf(md.get()) : -1;
  }
  if (hash_type < 0) return 0;
  std::vector<unsigned char> signature;
  if (!context->key->SignHash(static_cast<X509_Auth_HashType>(hash_type), hash, &signature))
    return 0;
  if (signature.size() > sigsize) {
    context->provider->Raise(k_reason_buffer_too_small, "%zu bytes for a %zu-byte signature",
                             sigsize, signature.size());
    return 0;
  }
  std::memcpy(sig, signature.data(), signature.size());
  *siglen = signature.size();
  return 1;
}

int Sign(void* opaque, unsigned char* sig, size_t* siglen, size_t sigsize,
         const unsigned char* tbs, size_t tbslen) {
  return SignHash(AsContext(opaque), sig, siglen, sigsize, tbs, tbslen);
}

int VerifyHash(SignatureContext* context, const unsigned char* sig, size_t siglen,
               const unsigned char* hash, size_t length) {
  EvpPkeyCtxPtr verifier(
      EVP_PKEY_CTX_new_from_pkey(context->provider->Crypto(), context->key->PublicKey(), nullptr));
  if (verifier == nullptr || EVP_PKEY_verify_init(verifier.get()) <= 0) return 0;
  if (context->algorithm == X509_Auth_Algorithm_Rsa) {
    EvpMdPtr inferred;
    const EVP_MD* md = context->md.get();
    if (md == nullptr) {
      const char* name = DigestNameForLength(length);
      if (name != nullptr) inferred.reset(EVP_MD_fetch(context->provider->Crypto(), name, nullptr));
      md = inferred.get();
    }
    if (md == nullptr || EVP_PKEY_CTX_set_rsa_padding(verifier.get(), RSA_PKCS1_PADDING) <= 0 ||
        EVP_PKEY_CTX_set_signature_md(verifier.get(), md) <= 0)
      return 0;
  }
  return EVP_PKEY_verify(verifier.get(), sig, siglen, hash, length) == 1 ? 1 : 0;
}

int Verify(void* opaque, const unsigned char* sig, size_t siglen, const unsigned char* tbs,
           size_t tbslen) {
  return VerifyHash(AsContext(opaque), sig, siglen, tbs, tbslen);
}

int DigestInit(void* opaque, const char* mdname, void* keydata, const OSSL_PARAM params[]) {
  SignatureContext* context = AsContext(opaque);
  if (!Init(opaque, keydata, params)) return 0;
  if (mdname != nullptr && *mdname != '\0' && !SetDigest(context, mdname)) return 0;
  if (context->md == nullptr && !SetDigest(context, "SHA2-256")) return 0;
  context->digest.reset(EVP_MD_CTX_new());
  return context->digest != nullptr &&
         EVP_DigestInit_ex2(context->digest.get(), context->md.get(), nullptr) == 1;
}

int DigestUpdate(void* opaque, const unsigned char* data, size_t length) {
  SignatureContext* context = AsContext(opaque);
  return context->digest != nullptr && EVP_DigestUpdate(context->digest.get(), data, length) == 1;
}

bool FinishDigest(SignatureContext* context, unsigned char* hash, unsigned int* length) {
  return context->digest != nullptr && EVP_DigestFinal_ex(context->digest.get(), hash, length) == 1;
}

int DigestSignFinal(void* opaque, unsigned char* sig, size_t* siglen, size_t sigsize) {
  SignatureContext* context = AsContext(opaque);
  if (sig == nullptr) {
    // Only the size is asked for: the hash must go on.
    *siglen = MaxSize(context);
    return 1;
  }
  unsigned char hash[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (!FinishDigest(context, hash, &length)) return 0;
  return SignHash(context, sig, siglen, sigsize, hash, length);
}

int DigestVerifyFinal(void* opaque, const unsigned char* sig, size_t siglen) {
  SignatureContext* context = AsContext(opaque);
  unsigned char hash[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (!FinishDigest(context, hash, &length)) return 0;
  return VerifyHash(context, sig, siglen, hash, length);
}

using VoidFunction = void (*)(void);
#define X509AUTH_FN(id, function) {id, reinterpret_cast<VoidFunction>(function)}
#define X509AUTH_SIGNATURE_TABLE(new_function)                                  \
  {X509AUTH_FN(OSSL_FUNC_SIGNATURE_NEWCTX, new_function),                       \
   X509AUTH_FN(OSSL_FUNC_SIGNATURE_FREECTX, FreeContext),                       \
   X509AUTH_FN(OSSL_FUNC_SIGNATURE_DUPCTX, DupContext),                         \
   X509AUTH_FN(OSSL_FUNC_SIGNATURE_SIGN_INIT, Init),                            \
   X509AUTH_FN(OSSL_FUNC_SIGNATURE_SIGN, Sign),                                 \
   X509AUTH_FN(OSSL_FUNC_SIGNATURE_VERIFY_INIT, Init),                          \
   X509AUTH_FN(OSSL_FUNC_SIGNATURE_VERIFY, Verify),                             \
   X509AUTH_FN(OSSL_FUNC_SIGNATURE_DIGEST_SIGN_INIT, DigestInit),               \
   X509AUTH_FN(OSSL_FUNC_SIGNATURE_DIGEST_SIGN_UPDATE, DigestUpdate),           \
   X509AUTH_FN(OSSL_FUNC_SIGNATURE_DIGEST_SIGN_FINAL, DigestSignFinal),         \
   X509AUTH_FN(OSSL_FUNC_SIGNATURE_DIGEST_VERIFY_INIT, DigestInit),             \
   X509AUTH_FN(OSSL_FUNC_SIGNATURE_DIGEST_VERIFY_UPDATE, DigestUpdate),         \
   X509AUTH_FN(OSSL_FUNC_SIGNATURE_DIGEST_VERIFY_FINAL, DigestVerifyFinal),     \
   X509AUTH_FN(OSSL_FUNC_SIGNATURE_GET_CTX_PARAMS, GetParams),                  \
   X509AUTH_FN(OSSL_FUNC_SIGNATURE_GETTABLE_CTX_PARAMS, GettableParams),        \
   X509AUTH_FN(OSSL_FUNC_SIGNATURE_SET_CTX_PARAMS, SetParams),                  \
   X509AUTH_FN(OSSL_FUNC_SIGNATURE_SETTABLE_CTX_PARAMS, SettableParams),        \
   {0, nullptr}}

}  // namespace

const OSSL_DISPATCH k_rsa_signature_functions[] = X509AUTH_SIGNATURE_TABLE(NewRsa);
const OSSL_DISPATCH k_ecdsa_signature_functions[] = X509AUTH_SIGNATURE_TABLE(NewEcdsa);

}  // namespace x509auth_provider
