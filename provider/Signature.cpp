// Signatures with the keys of x509auth certificates: RSA with PKCS#1 v1.5 or
// RSASSA-PSS (MGF1 with the signature's digest), and ECDSA, over SHA-1,
// SHA-256, SHA-384 or SHA-512, both on a given hash and as digest-sign (this
// provider hashes, the library signs the hash). Verification uses the
// certificate's public key with OpenSSL's default implementation.
#include <openssl/core_dispatch.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>
#include <openssl/rsa.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "Dispatch.h"
#include "DispatchCast.h"
#include "ErrorMark.h"
#include "KeyObject.h"

namespace x509auth_provider {
namespace {

struct SignatureContext {
  ProviderContext* provider = nullptr;
  std::uint32_t algorithm = X509_Auth_Algorithm_Unknown;  // of the table in use
  std::shared_ptr<const KeyObject> key;
  EvpMdPtr md;         // the digest named by the caller, if any
  EvpMdPtr mgf1_md;    // MGF1's digest when the caller named one
  EvpMdCtxPtr digest;  // running hash of a digest-sign or digest-verify
  int padding = RSA_PKCS1_PADDING;
  // OpenSSL's default for PSS: when signing, the longest salt the key holds.
  int salt_length = RSA_PSS_SALTLEN_AUTO;
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

// OpenSSL's spellings of a PSS salt length (rsa_pss_saltlen): a number, or
// "digest", "max" or "auto".
bool ParseSaltLength(const OSSL_PARAM* p, int* salt_length) {
  if (p->data_type != OSSL_PARAM_UTF8_STRING) return OSSL_PARAM_get_int(p, salt_length) == 1;
  const char* text = nullptr;
  if (!OSSL_PARAM_get_utf8_string_ptr(p, &text)) return false;
  if (std::strcmp(text, OSSL_PKEY_RSA_PSS_SALT_LEN_DIGEST) == 0)
    *salt_length = RSA_PSS_SALTLEN_DIGEST;
  else if (std::strcmp(text, OSSL_PKEY_RSA_PSS_SALT_LEN_MAX) == 0)
    *salt_length = RSA_PSS_SALTLEN_MAX;
  else if (std::strcmp(text, OSSL_PKEY_RSA_PSS_SALT_LEN_AUTO) == 0)
    *salt_length = RSA_PSS_SALTLEN_AUTO;
  else {
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || value < 0 || value > 0x7fffffff) return false;
    *salt_length = static_cast<int>(value);
  }
  return true;
}

const char* SaltLengthName(int salt_length) {
  switch (salt_length) {
    case RSA_PSS_SALTLEN_DIGEST: return OSSL_PKEY_RSA_PSS_SALT_LEN_DIGEST;
    case RSA_PSS_SALTLEN_MAX: return OSSL_PKEY_RSA_PSS_SALT_LEN_MAX;
    case RSA_PSS_SALTLEN_AUTO: return OSSL_PKEY_RSA_PSS_SALT_LEN_AUTO;
    default: return nullptr;
  }
}

OSSL_FUNC_signature_newctx_fn NewRsa;
OSSL_FUNC_signature_newctx_fn NewEcdsa;
OSSL_FUNC_signature_freectx_fn FreeContext;
OSSL_FUNC_signature_dupctx_fn DupContext;
OSSL_FUNC_signature_sign_init_fn Init;
OSSL_FUNC_signature_sign_fn Sign;
OSSL_FUNC_signature_verify_fn Verify;
OSSL_FUNC_signature_digest_sign_init_fn DigestInit;
OSSL_FUNC_signature_digest_sign_update_fn DigestUpdate;
OSSL_FUNC_signature_digest_sign_final_fn DigestSignFinal;
OSSL_FUNC_signature_digest_verify_final_fn DigestVerifyFinal;
OSSL_FUNC_signature_get_ctx_params_fn GetParams;
OSSL_FUNC_signature_gettable_ctx_params_fn GettableParams;
OSSL_FUNC_signature_set_ctx_params_fn SetParams;
OSSL_FUNC_signature_settable_ctx_params_fn SettableParams;

void* NewContext(void* provctx, std::uint32_t algorithm) {
  auto context = std::make_unique<SignatureContext>();
  context->provider = ProviderContext::From(provctx);
  context->algorithm = algorithm;
  return context.release();  // OpenSSL owns it until FreeContext
}
void* NewRsa(void* provctx, const char*) { return NewContext(provctx, X509_Auth_Algorithm_Rsa); }
void* NewEcdsa(void* provctx, const char*) { return NewContext(provctx, X509_Auth_Algorithm_Ec); }

void FreeContext(void* context) { std::unique_ptr<SignatureContext> owned(AsContext(context)); }

bool CopyDigest(const EvpMdPtr& from, EvpMdPtr* to) {
  if (from == nullptr) return true;
  if (EVP_MD_up_ref(from.get()) != 1) return false;
  to->reset(from.get());
  return true;
}

void* DupContext(void* context) {
  const SignatureContext* from = AsContext(context);
  auto copy = std::make_unique<SignatureContext>();
  copy->provider = from->provider;
  copy->algorithm = from->algorithm;
  copy->key = from->key;
  copy->padding = from->padding;
  copy->salt_length = from->salt_length;
  if (!CopyDigest(from->md, &copy->md) || !CopyDigest(from->mgf1_md, &copy->mgf1_md))
    return nullptr;
  if (from->digest != nullptr) {
    copy->digest.reset(EVP_MD_CTX_new());
    if (copy->digest == nullptr || EVP_MD_CTX_copy_ex(copy->digest.get(), from->digest.get()) != 1)
      return nullptr;
  }
  return copy.release();
}

// A digest the library can sign, fetched where the provider hashes
// (ProviderContext::Crypto); null after raising an error.
EvpMdPtr FetchDigest(const SignatureContext* context, const char* name,
                     const char* properties = nullptr) {
  EvpMdPtr md;
  {
    // An unknown name is reported by the one error below.
    const ErrorMark mark;
    md = context->provider->Digest(name, properties);
  }
  if (md == nullptr || HashTypeOf(md.get()) < 0) {
    X509AUTH_RAISE(context->provider, k_reason_unsupported_digest, "digest %s", name);
    return nullptr;
  }
  return md;
}

bool SetPadding(SignatureContext* context, const OSSL_PARAM* p) {
  int mode = 0;
  const char* name = nullptr;
  if (p->data_type == OSSL_PARAM_UTF8_STRING && OSSL_PARAM_get_utf8_string_ptr(p, &name)) {
    if (std::strcmp(name, OSSL_PKEY_RSA_PAD_MODE_PKCSV15) == 0) mode = RSA_PKCS1_PADDING;
    if (std::strcmp(name, OSSL_PKEY_RSA_PAD_MODE_PSS) == 0) mode = RSA_PKCS1_PSS_PADDING;
  } else if (!OSSL_PARAM_get_int(p, &mode)) {
    mode = 0;
  }
  if (context->algorithm != X509_Auth_Algorithm_Rsa ||
      (mode != RSA_PKCS1_PADDING && mode != RSA_PKCS1_PSS_PADDING)) {
    const std::string shown = name != nullptr ? name : std::to_string(mode);
    X509AUTH_RAISE(context->provider, k_reason_unsupported_padding, "padding %s", shown.c_str());
    return false;
  }
  context->padding = mode;
  return true;
}

// The digest named by |p|, fetched with the properties |properties_key| names
// beside it, as OpenSSL's own RSA signature does: properties alone change
// nothing.
bool SetDigest(SignatureContext* context, const OSSL_PARAM* p, const OSSL_PARAM params[],
               const char* properties_key, EvpMdPtr* to) {
  const char* name = nullptr;
  if (!OSSL_PARAM_get_utf8_string_ptr(p, &name)) return false;
  const char* properties = nullptr;
  const OSSL_PARAM* given = OSSL_PARAM_locate_const(params, properties_key);
  if (given != nullptr && !OSSL_PARAM_get_utf8_string_ptr(given, &properties)) return false;
  EvpMdPtr md = FetchDigest(context, name, properties);
  if (md == nullptr) return false;
  *to = std::move(md);
  return true;
}

int SetParams(void* opaque, const OSSL_PARAM params[]) {
  SignatureContext* context = AsContext(opaque);
  if (params == nullptr) return 1;
  const OSSL_PARAM* p = OSSL_PARAM_locate_const(params, OSSL_SIGNATURE_PARAM_DIGEST);
  if (p != nullptr && !SetDigest(context, p, params, OSSL_SIGNATURE_PARAM_PROPERTIES, &context->md))
    return 0;
  p = OSSL_PARAM_locate_const(params, OSSL_SIGNATURE_PARAM_PAD_MODE);
  if (p != nullptr && !SetPadding(context, p)) return 0;
  p = OSSL_PARAM_locate_const(params, OSSL_SIGNATURE_PARAM_PSS_SALTLEN);
  if (p != nullptr) {
    int salt_length = 0;
    if (context->algorithm != X509_Auth_Algorithm_Rsa || !ParseSaltLength(p, &salt_length) ||
        salt_length < RSA_PSS_SALTLEN_MAX) {
      X509AUTH_RAISE(context->provider, k_reason_bad_argument,
                     "PSS salt length: a number of bytes, digest, max or auto");
      return 0;
    }
    context->salt_length = salt_length;
  }
  p = OSSL_PARAM_locate_const(params, OSSL_SIGNATURE_PARAM_MGF1_DIGEST);
  if (p != nullptr &&
      (context->algorithm != X509_Auth_Algorithm_Rsa ||
       !SetDigest(context, p, params, OSSL_SIGNATURE_PARAM_MGF1_PROPERTIES, &context->mgf1_md)))
    return 0;
  return 1;
}

const OSSL_PARAM* SettableParams(void*, void*) {
  static const OSSL_PARAM params[] = {
      OSSL_PARAM_utf8_string(OSSL_SIGNATURE_PARAM_DIGEST, nullptr, 0),
      OSSL_PARAM_utf8_string(OSSL_SIGNATURE_PARAM_PROPERTIES, nullptr, 0),
      OSSL_PARAM_utf8_string(OSSL_SIGNATURE_PARAM_PAD_MODE, nullptr, 0),
      OSSL_PARAM_utf8_string(OSSL_SIGNATURE_PARAM_PSS_SALTLEN, nullptr, 0),
      OSSL_PARAM_utf8_string(OSSL_SIGNATURE_PARAM_MGF1_DIGEST, nullptr, 0),
      OSSL_PARAM_utf8_string(OSSL_SIGNATURE_PARAM_MGF1_PROPERTIES, nullptr, 0),
      OSSL_PARAM_END};
  return params;
}

int GetParams(void* opaque, OSSL_PARAM params[]) {
  SignatureContext* context = AsContext(opaque);
  OSSL_PARAM* p = OSSL_PARAM_locate(params, OSSL_SIGNATURE_PARAM_DIGEST);
  if (p != nullptr && context->md != nullptr &&
      !OSSL_PARAM_set_utf8_string(p, EVP_MD_get0_name(context->md.get())))
    return 0;
  if (context->algorithm != X509_Auth_Algorithm_Rsa) return 1;
  const bool pss = context->padding == RSA_PKCS1_PSS_PADDING;
  p = OSSL_PARAM_locate(params, OSSL_SIGNATURE_PARAM_PAD_MODE);
  if (p != nullptr) {
    const char* name = pss ? OSSL_PKEY_RSA_PAD_MODE_PSS : OSSL_PKEY_RSA_PAD_MODE_PKCSV15;
    if (p->data_type == OSSL_PARAM_UTF8_STRING ? !OSSL_PARAM_set_utf8_string(p, name)
                                               : !OSSL_PARAM_set_int(p, context->padding))
      return 0;
  }
  p = OSSL_PARAM_locate(params, OSSL_SIGNATURE_PARAM_PSS_SALTLEN);
  if (p != nullptr) {
    const char* name = SaltLengthName(context->salt_length);
    if (p->data_type == OSSL_PARAM_UTF8_STRING) {
      const std::string text = name != nullptr ? name : std::to_string(context->salt_length);
      if (!OSSL_PARAM_set_utf8_string(p, text.c_str())) return 0;
    } else if (!OSSL_PARAM_set_int(p, context->salt_length)) {
      return 0;
    }
  }
  p = OSSL_PARAM_locate(params, OSSL_SIGNATURE_PARAM_MGF1_DIGEST);
  const EVP_MD* mgf1 = context->mgf1_md != nullptr ? context->mgf1_md.get() : context->md.get();
  if (p != nullptr && mgf1 != nullptr && !OSSL_PARAM_set_utf8_string(p, EVP_MD_get0_name(mgf1)))
    return 0;
  return 1;
}

const OSSL_PARAM* GettableParams(void*, void*) {
  static const OSSL_PARAM params[] = {
      OSSL_PARAM_utf8_string(OSSL_SIGNATURE_PARAM_DIGEST, nullptr, 0),
      OSSL_PARAM_utf8_string(OSSL_SIGNATURE_PARAM_PAD_MODE, nullptr, 0),
      OSSL_PARAM_utf8_string(OSSL_SIGNATURE_PARAM_PSS_SALTLEN, nullptr, 0),
      OSSL_PARAM_utf8_string(OSSL_SIGNATURE_PARAM_MGF1_DIGEST, nullptr, 0), OSSL_PARAM_END};
  return params;
}

int Init(void* opaque, void* keydata, const OSSL_PARAM params[]) {
  SignatureContext* context = AsContext(opaque);
  const KeyData* data = static_cast<const KeyData*>(keydata);
  if (data == nullptr || data->key == nullptr || data->key->Algorithm() != context->algorithm) {
    X509AUTH_RAISE(context->provider, k_reason_bad_argument, "not a key of this provider's kind");
    return 0;
  }
  context->key = data->key;
  context->md.reset();
  context->mgf1_md.reset();
  context->digest.reset();
  context->padding = RSA_PKCS1_PADDING;
  context->salt_length = RSA_PSS_SALTLEN_AUTO;
  return SetParams(opaque, params);
}

std::size_t MaxSize(const SignatureContext* context) {
  return static_cast<std::size_t>(EVP_PKEY_get_size(context->key->PublicKey()));
}

// The digest a signature over |length| bytes is made with, or null after
// raising an error. An RSA signature names its digest (in the DigestInfo,
// or for MGF1), so for RSA it must have been set: the raw PKCS#1 signature
// OpenSSL would make without one is not what the library makes.
const EVP_MD* DigestForSignature(SignatureContext* context, std::size_t length,
                                 EvpMdPtr* inferred) {
  if (context->md != nullptr) {
    if (static_cast<std::size_t>(EVP_MD_get_size(context->md.get())) != length) {
      X509AUTH_RAISE(context->provider, k_reason_bad_argument, "a %s hash has %d bytes, not %zu",
                     EVP_MD_get0_name(context->md.get()), EVP_MD_get_size(context->md.get()),
                     length);
      return nullptr;
    }
    return context->md.get();
  }
  if (context->algorithm == X509_Auth_Algorithm_Rsa) {
    X509AUTH_RAISE(context->provider, k_reason_bad_argument,
                   "an RSA signature needs its digest set (for example -pkeyopt "
                   "digest:sha256); x509auth makes no raw RSA signatures");
    return nullptr;
  }
  const char* name = DigestNameForLength(length);
  if (name == nullptr) {
    X509AUTH_RAISE(context->provider, k_reason_unsupported_digest, "no digest has %zu bytes",
                   length);
    return nullptr;
  }
  *inferred = FetchDigest(context, name);
  return inferred->get();
}

int SignHash(SignatureContext* context, unsigned char* sig, size_t* siglen, size_t sigsize,
             const unsigned char* hash, size_t length) {
  if (sig == nullptr) {
    *siglen = MaxSize(context);
    return 1;
  }
  EvpMdPtr inferred;
  const EVP_MD* md = DigestForSignature(context, length, &inferred);
  if (md == nullptr) return 0;
  const auto hash_type = static_cast<X509_Auth_HashType>(HashTypeOf(md));
  std::vector<unsigned char> signature;
  if (context->padding == RSA_PKCS1_PSS_PADDING) {
    if (context->mgf1_md != nullptr && !EVP_MD_is_a(context->mgf1_md.get(), EVP_MD_get0_name(md))) {
      X509AUTH_RAISE(context->provider, k_reason_unsupported_digest,
                     "MGF1 with %s under a %s signature: x509auth uses the signature's "
                     "digest for MGF1",
                     EVP_MD_get0_name(context->mgf1_md.get()), EVP_MD_get0_name(md));
      return 0;
    }
    if (!context->key->SignHashPss(hash_type, hash, context->salt_length, &signature)) return 0;
  } else if (!context->key->SignHash(hash_type, hash, &signature)) {
    return 0;
  }
  if (signature.size() > sigsize) {
    X509AUTH_RAISE(context->provider, k_reason_buffer_too_small,
                   "%zu bytes for a %zu-byte signature", sigsize, signature.size());
    return 0;
  }
  std::memcpy(sig, signature.data(), signature.size());
  *siglen = signature.size();
  return 1;
}

int Sign(void* opaque, unsigned char* sig, size_t* siglen, size_t sigsize, const unsigned char* tbs,
         size_t tbslen) {
  return SignHash(AsContext(opaque), sig, siglen, sigsize, tbs, tbslen);
}

int VerifyHash(SignatureContext* context, const unsigned char* sig, size_t siglen,
               const unsigned char* hash, size_t length) {
  // A signature that does not verify is an answer, not an error.
  const ErrorMark mark;
  const ProviderContext::CryptoContext crypto = context->provider->Crypto();
  EvpPkeyCtxPtr verifier(
      EVP_PKEY_CTX_new_from_pkey(crypto.libctx, context->key->PublicKey(), crypto.properties));
  if (verifier == nullptr || EVP_PKEY_verify_init(verifier.get()) <= 0) return 0;
  if (context->algorithm == X509_Auth_Algorithm_Rsa) {
    EvpMdPtr inferred;
    const EVP_MD* md = context->md.get();
    if (md == nullptr) {
      const char* name = DigestNameForLength(length);
      if (name != nullptr) inferred = context->provider->Digest(name);
      md = inferred.get();
    }
    if (md == nullptr || EVP_PKEY_CTX_set_rsa_padding(verifier.get(), context->padding) <= 0 ||
        EVP_PKEY_CTX_set_signature_md(verifier.get(), md) <= 0)
      return 0;
    if (context->padding == RSA_PKCS1_PSS_PADDING &&
        (EVP_PKEY_CTX_set_rsa_mgf1_md(
             verifier.get(), context->mgf1_md != nullptr ? context->mgf1_md.get() : md) <= 0 ||
         EVP_PKEY_CTX_set_rsa_pss_saltlen(verifier.get(), context->salt_length) <= 0))
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
  if (mdname != nullptr && *mdname != '\0') {
    context->md = FetchDigest(context, mdname);
    if (context->md == nullptr) return 0;
  }
  if (context->md == nullptr && (context->md = FetchDigest(context, "SHA2-256")) == nullptr)
    return 0;
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

}  // namespace

// The two tables differ in their first entry only: the algorithm a new
// context is for.
const OSSL_DISPATCH k_rsa_signature_functions[] = {
    {OSSL_FUNC_SIGNATURE_NEWCTX, DispatchCast<NewRsa>()},
    {OSSL_FUNC_SIGNATURE_FREECTX, DispatchCast<FreeContext>()},
    {OSSL_FUNC_SIGNATURE_DUPCTX, DispatchCast<DupContext>()},
    {OSSL_FUNC_SIGNATURE_SIGN_INIT, DispatchCast<Init>()},
    {OSSL_FUNC_SIGNATURE_SIGN, DispatchCast<Sign>()},
    {OSSL_FUNC_SIGNATURE_VERIFY_INIT, DispatchCast<Init>()},
    {OSSL_FUNC_SIGNATURE_VERIFY, DispatchCast<Verify>()},
    {OSSL_FUNC_SIGNATURE_DIGEST_SIGN_INIT, DispatchCast<DigestInit>()},
    {OSSL_FUNC_SIGNATURE_DIGEST_SIGN_UPDATE, DispatchCast<DigestUpdate>()},
    {OSSL_FUNC_SIGNATURE_DIGEST_SIGN_FINAL, DispatchCast<DigestSignFinal>()},
    {OSSL_FUNC_SIGNATURE_DIGEST_VERIFY_INIT, DispatchCast<DigestInit>()},
    {OSSL_FUNC_SIGNATURE_DIGEST_VERIFY_UPDATE, DispatchCast<DigestUpdate>()},
    {OSSL_FUNC_SIGNATURE_DIGEST_VERIFY_FINAL, DispatchCast<DigestVerifyFinal>()},
    {OSSL_FUNC_SIGNATURE_GET_CTX_PARAMS, DispatchCast<GetParams>()},
    {OSSL_FUNC_SIGNATURE_GETTABLE_CTX_PARAMS, DispatchCast<GettableParams>()},
    {OSSL_FUNC_SIGNATURE_SET_CTX_PARAMS, DispatchCast<SetParams>()},
    {OSSL_FUNC_SIGNATURE_SETTABLE_CTX_PARAMS, DispatchCast<SettableParams>()},
    {0, nullptr}};

const OSSL_DISPATCH k_ecdsa_signature_functions[] = {
    {OSSL_FUNC_SIGNATURE_NEWCTX, DispatchCast<NewEcdsa>()},
    {OSSL_FUNC_SIGNATURE_FREECTX, DispatchCast<FreeContext>()},
    {OSSL_FUNC_SIGNATURE_DUPCTX, DispatchCast<DupContext>()},
    {OSSL_FUNC_SIGNATURE_SIGN_INIT, DispatchCast<Init>()},
    {OSSL_FUNC_SIGNATURE_SIGN, DispatchCast<Sign>()},
    {OSSL_FUNC_SIGNATURE_VERIFY_INIT, DispatchCast<Init>()},
    {OSSL_FUNC_SIGNATURE_VERIFY, DispatchCast<Verify>()},
    {OSSL_FUNC_SIGNATURE_DIGEST_SIGN_INIT, DispatchCast<DigestInit>()},
    {OSSL_FUNC_SIGNATURE_DIGEST_SIGN_UPDATE, DispatchCast<DigestUpdate>()},
    {OSSL_FUNC_SIGNATURE_DIGEST_SIGN_FINAL, DispatchCast<DigestSignFinal>()},
    {OSSL_FUNC_SIGNATURE_DIGEST_VERIFY_INIT, DispatchCast<DigestInit>()},
    {OSSL_FUNC_SIGNATURE_DIGEST_VERIFY_UPDATE, DispatchCast<DigestUpdate>()},
    {OSSL_FUNC_SIGNATURE_DIGEST_VERIFY_FINAL, DispatchCast<DigestVerifyFinal>()},
    {OSSL_FUNC_SIGNATURE_GET_CTX_PARAMS, DispatchCast<GetParams>()},
    {OSSL_FUNC_SIGNATURE_GETTABLE_CTX_PARAMS, DispatchCast<GettableParams>()},
    {OSSL_FUNC_SIGNATURE_SET_CTX_PARAMS, DispatchCast<SetParams>()},
    {OSSL_FUNC_SIGNATURE_SETTABLE_CTX_PARAMS, DispatchCast<SettableParams>()},
    {0, nullptr}};

}  // namespace x509auth_provider
