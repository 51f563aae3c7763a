// RSA decryption with the keys of x509auth certificates, PKCS#1 v1.5 or OAEP
// (SHA-1 and MGF1 with SHA-1, no label: what the library does), through
// X509_Auth_Decrypt. Encryption uses the certificate's public key with
// OpenSSL's default implementation, so a round trip works in one provider.
#include <openssl/core_dispatch.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>
#include <openssl/rsa.h>

#include <cstring>
#include <string>

#include "Dispatch.h"
#include "DispatchCast.h"
#include "ErrorMark.h"
#include "KeyObject.h"

namespace x509auth_provider {
namespace {

// Each entry point has OpenSSL's own type for its slot: a wrong signature
// does not build.
OSSL_FUNC_asym_cipher_newctx_fn NewContext;
OSSL_FUNC_asym_cipher_freectx_fn FreeContext;
OSSL_FUNC_asym_cipher_dupctx_fn DupContext;
OSSL_FUNC_asym_cipher_encrypt_init_fn Init;
OSSL_FUNC_asym_cipher_encrypt_fn Encrypt;
OSSL_FUNC_asym_cipher_decrypt_fn Decrypt;
OSSL_FUNC_asym_cipher_get_ctx_params_fn GetParams;
OSSL_FUNC_asym_cipher_gettable_ctx_params_fn GettableParams;
OSSL_FUNC_asym_cipher_set_ctx_params_fn SetParams;
OSSL_FUNC_asym_cipher_settable_ctx_params_fn SettableParams;

struct CipherContext {
  ProviderContext* provider = nullptr;
  std::shared_ptr<const KeyObject> key;
  int padding = RSA_PKCS1_PADDING;
};

CipherContext* AsContext(void* context) { return static_cast<CipherContext*>(context); }

void* NewContext(void* provctx) {
  auto context = std::make_unique<CipherContext>();
  context->provider = ProviderContext::From(provctx);
  return context.release();  // OpenSSL owns it until FreeContext
}

void FreeContext(void* context) { std::unique_ptr<CipherContext> owned(AsContext(context)); }

void* DupContext(void* context) {
  return std::make_unique<CipherContext>(*AsContext(context)).release();
}

bool IsSha1(CipherContext* context, const OSSL_PARAM* p) {
  const char* name = nullptr;
  if (!OSSL_PARAM_get_utf8_string_ptr(p, &name)) return false;
  EvpMdPtr md;
  {
    // An unknown name is reported by the one error below.
    const ErrorMark mark;
    md = context->provider->Digest(name);
  }
  if (md != nullptr && EVP_MD_is_a(md.get(), "SHA1")) return true;
  X509AUTH_RAISE(context->provider, k_reason_unsupported_digest,
                 "OAEP digest %s: x509auth decrypts OAEP with SHA-1 only", name);
  return false;
}

int SetParams(void* opaque, const OSSL_PARAM params[]) {
  CipherContext* context = AsContext(opaque);
  if (params == nullptr) return 1;
  const OSSL_PARAM* p = OSSL_PARAM_locate_const(params, OSSL_ASYM_CIPHER_PARAM_PAD_MODE);
  if (p != nullptr) {
    int mode = 0;
    const char* name = nullptr;
    if (p->data_type == OSSL_PARAM_UTF8_STRING && OSSL_PARAM_get_utf8_string_ptr(p, &name)) {
      if (std::strcmp(name, OSSL_PKEY_RSA_PAD_MODE_PKCSV15) == 0) mode = RSA_PKCS1_PADDING;
      if (std::strcmp(name, OSSL_PKEY_RSA_PAD_MODE_OAEP) == 0) mode = RSA_PKCS1_OAEP_PADDING;
    } else if (!OSSL_PARAM_get_int(p, &mode)) {
      return 0;
    }
    if (mode != RSA_PKCS1_PADDING && mode != RSA_PKCS1_OAEP_PADDING) {
      X509AUTH_RAISE(context->provider, k_reason_unsupported_padding,
                     "padding %s: x509auth decrypts PKCS#1 v1.5 and OAEP",
                     name != nullptr ? name : std::to_string(mode).c_str());
      return 0;
    }
    context->padding = mode;
  }
  p = OSSL_PARAM_locate_const(params, OSSL_ASYM_CIPHER_PARAM_OAEP_DIGEST);
  if (p != nullptr && !IsSha1(context, p)) return 0;
  p = OSSL_PARAM_locate_const(params, OSSL_ASYM_CIPHER_PARAM_MGF1_DIGEST);
  if (p != nullptr && !IsSha1(context, p)) return 0;
  p = OSSL_PARAM_locate_const(params, OSSL_ASYM_CIPHER_PARAM_OAEP_LABEL);
  if (p != nullptr && p->data_size != 0) {
    X509AUTH_RAISE(context->provider, k_reason_unsupported_padding,
                   "x509auth decrypts OAEP without a label");
    return 0;
  }
  return 1;
}

const OSSL_PARAM* SettableParams(void*, void*) {
  static const OSSL_PARAM params[] = {
      OSSL_PARAM_utf8_string(OSSL_ASYM_CIPHER_PARAM_PAD_MODE, nullptr, 0),
      OSSL_PARAM_utf8_string(OSSL_ASYM_CIPHER_PARAM_OAEP_DIGEST, nullptr, 0),
      OSSL_PARAM_utf8_string(OSSL_ASYM_CIPHER_PARAM_MGF1_DIGEST, nullptr, 0),
      OSSL_PARAM_octet_string(OSSL_ASYM_CIPHER_PARAM_OAEP_LABEL, nullptr, 0), OSSL_PARAM_END};
  return params;
}

int GetParams(void* opaque, OSSL_PARAM params[]) {
  CipherContext* context = AsContext(opaque);
  OSSL_PARAM* p = OSSL_PARAM_locate(params, OSSL_ASYM_CIPHER_PARAM_PAD_MODE);
  if (p != nullptr) {
    const bool oaep = context->padding == RSA_PKCS1_OAEP_PADDING;
    if (p->data_type == OSSL_PARAM_UTF8_STRING
            ? !OSSL_PARAM_set_utf8_string(
                  p, oaep ? OSSL_PKEY_RSA_PAD_MODE_OAEP : OSSL_PKEY_RSA_PAD_MODE_PKCSV15)
            : !OSSL_PARAM_set_int(p, context->padding))
      return 0;
  }
  p = OSSL_PARAM_locate(params, OSSL_ASYM_CIPHER_PARAM_OAEP_DIGEST);
  if (p != nullptr && !OSSL_PARAM_set_utf8_string(p, "SHA1")) return 0;
  return 1;
}

const OSSL_PARAM* GettableParams(void*, void*) {
  static const OSSL_PARAM params[] = {
      OSSL_PARAM_utf8_string(OSSL_ASYM_CIPHER_PARAM_PAD_MODE, nullptr, 0),
      OSSL_PARAM_utf8_string(OSSL_ASYM_CIPHER_PARAM_OAEP_DIGEST, nullptr, 0), OSSL_PARAM_END};
  return params;
}

int Init(void* opaque, void* keydata, const OSSL_PARAM params[]) {
  CipherContext* context = AsContext(opaque);
  const KeyData* data = static_cast<const KeyData*>(keydata);
  if (data == nullptr || data->key == nullptr ||
      data->key->Algorithm() != X509_Auth_Algorithm_Rsa) {
    X509AUTH_RAISE(context->provider, k_reason_bad_argument, "not an RSA key of this provider");
    return 0;
  }
  context->key = data->key;
  context->padding = RSA_PKCS1_PADDING;
  return SetParams(opaque, params);
}

int Decrypt(void* opaque, unsigned char* out, size_t* outlen, size_t outsize,
            const unsigned char* in, size_t inlen) {
  CipherContext* context = AsContext(opaque);
  if (out == nullptr) {
    *outlen = static_cast<std::size_t>(EVP_PKEY_get_size(context->key->PublicKey()));
    return 1;
  }
  std::vector<unsigned char> plaintext;
  const std::uint32_t padding = context->padding == RSA_PKCS1_OAEP_PADDING
                                    ? X509_Auth_DecryptAlgorithm_RsaOaep
                                    : X509_Auth_DecryptAlgorithm_RsaPkcs1;
  if (!context->key->Decrypt(padding, in, inlen, &plaintext)) return 0;
  int result = 0;
  if (plaintext.size() > outsize) {
    X509AUTH_RAISE(context->provider, k_reason_buffer_too_small,
                   "%zu bytes for a %zu-byte plaintext", outsize, plaintext.size());
  } else {
    std::memcpy(out, plaintext.data(), plaintext.size());
    *outlen = plaintext.size();
    result = 1;
  }
  OPENSSL_cleanse(plaintext.data(), plaintext.size());
  return result;
}

int Encrypt(void* opaque, unsigned char* out, size_t* outlen, size_t outsize,
            const unsigned char* in, size_t inlen) {
  CipherContext* context = AsContext(opaque);
  std::size_t length = outsize;
  bool encrypted = false;
  {
    // OpenSSL's lines give way to the provider's one error.
    const ErrorMark mark;
    const ProviderContext::CryptoContext crypto = context->provider->Crypto();
    EvpPkeyCtxPtr encrypter(
        EVP_PKEY_CTX_new_from_pkey(crypto.libctx, context->key->PublicKey(), crypto.properties));
    encrypted = encrypter != nullptr && EVP_PKEY_encrypt_init(encrypter.get()) > 0 &&
                EVP_PKEY_CTX_set_rsa_padding(encrypter.get(), context->padding) > 0 &&
                EVP_PKEY_encrypt(encrypter.get(), out, &length, in, inlen) == 1;
  }
  if (!encrypted) {
    X509AUTH_RAISE(context->provider, k_reason_bad_argument,
                   "%zu bytes could not be encrypted with the certificate's %d-byte key", inlen,
                   EVP_PKEY_get_size(context->key->PublicKey()));
    return 0;
  }
  *outlen = length;
  return 1;
}

}  // namespace

const OSSL_DISPATCH k_rsa_asym_cipher_functions[] = {
    {OSSL_FUNC_ASYM_CIPHER_NEWCTX, DispatchCast<NewContext>()},
    {OSSL_FUNC_ASYM_CIPHER_FREECTX, DispatchCast<FreeContext>()},
    {OSSL_FUNC_ASYM_CIPHER_DUPCTX, DispatchCast<DupContext>()},
    {OSSL_FUNC_ASYM_CIPHER_ENCRYPT_INIT, DispatchCast<Init>()},
    {OSSL_FUNC_ASYM_CIPHER_ENCRYPT, DispatchCast<Encrypt>()},
    {OSSL_FUNC_ASYM_CIPHER_DECRYPT_INIT, DispatchCast<Init>()},
    {OSSL_FUNC_ASYM_CIPHER_DECRYPT, DispatchCast<Decrypt>()},
    {OSSL_FUNC_ASYM_CIPHER_GET_CTX_PARAMS, DispatchCast<GetParams>()},
    {OSSL_FUNC_ASYM_CIPHER_GETTABLE_CTX_PARAMS, DispatchCast<GettableParams>()},
    {OSSL_FUNC_ASYM_CIPHER_SET_CTX_PARAMS, DispatchCast<SetParams>()},
    {OSSL_FUNC_ASYM_CIPHER_SETTABLE_CTX_PARAMS, DispatchCast<SettableParams>()},
    {0, nullptr}};

}  // namespace x509auth_provider
