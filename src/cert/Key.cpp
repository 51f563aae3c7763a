#include "cert/Key.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <memory>
#include <utility>
#include <variant>

#include "base/SafeCallbacksWrapper.h"
#include "cert/ICertificate.h"
#include "files/PlainKeyCache.h"
#include "smartcard/Libp11Context.h"
#include "smartcard/TokenLoss.h"
#include "smartcard/TokenPrivateKey.h"
#include "smartcard/TokenPssSigner.h"
#include "smartcard/TokenWatch.h"

namespace quorvant::shared::x509 {

namespace {

// The host hands over a finished digest; its length is all that says which
// digest function made it.
const EVP_MD* DigestForHashLength(std::size_t length) {
  switch (length) {
    case 20: return EVP_sha1();
    case 32: return EVP_sha256();
    case 48: return EVP_sha384();
    case 64: return EVP_sha512();
    default: return nullptr;
  }
}

ResultPair Failure() { return ResultPair{X509_Auth_ResultCode_KeyOperationFailed, 0}; }

ResultPair Unsupported() { return ResultPair{X509_Auth_ResultCode_AlgorithmNotSupported, 0}; }

}  // namespace

Key::~Key() {
  // Members then go in reverse order: the key libp11 made before the
  // token context that owns its slot.
  Close();
}

std::int32_t Key::Open(const ICertificate& certificate) {
  const CertContext& context = certificate.GetContext();
  bool success = true;

  if (const auto* file = std::get_if<std::unique_ptr<CertFileContext>>(&context)) {
    const CertFileContext& file_context = **file;
    // An unencrypted key file unchanged since an earlier request is not
    // parsed again; an encrypted one asks for its password every time.
    key = PlainKeyCache::GetInstance().Get(file_context.x509.get(), file_context.cert_path,
                                           file_context.key_path);
    success = key != nullptr;
    if (!success) {
      SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                                "Error loading private key for file system cert: [%s]",
                                file_context.cert_path.c_str());
    }
  } else if (std::holds_alternative<std::unique_ptr<EncodedCertContext>>(context)) {
    // Added certificates come without a key; whatever this object already
    // holds is classified below, as for any other source.
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                              "Cannot load private key for encoded cert: [%s]",
                              certificate.Name().c_str());
  } else if (const auto* token = std::get_if<std::unique_ptr<Libp11CertContext>>(&context)) {
    const Libp11CertContext& token_cert = **token;
    TokenPrivateKey opened =
        TokenPrivateKey::Open(token_cert.libp11_context, token_cert.slot, token_cert.cert,
                              TokenPrivateKey::OnLoginFailure::k_continue);
    if (opened.found != nullptr) {
      key = std::move(opened.key);
      token_context = token_cert.libp11_context;
      token_slots = token_cert.token_slots;
      token_slot = token_cert.slot;
      token_key = opened.found;
    } else {
      success = false;
      SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                                "Error loading private key for smart card cert: [%s]",
                                certificate.Name().c_str());
    }
  }

  if (!success) return 1;
  return Classify();
}

std::int32_t Key::Use(EvpPkeyPtr opened) {
  key = std::move(opened);
  return Classify();
}

std::int32_t Key::Classify() {
  // No key at all (an encoded certificate, or a token that gave none) has
  // no type; it is reported like any key type that cannot be used.
  const int type = key ? EVP_PKEY_base_id(key.get()) : EVP_PKEY_NONE;
  switch (type) {
    case EVP_PKEY_RSA: algorithm = x509::Algorithm::k_rsa; return 0;
    case EVP_PKEY_EC: algorithm = x509::Algorithm::k_ec; return 0;
    default:
      algorithm = x509::Algorithm::k_unknown;
      SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error, "Unknown algorithm: [%i]", type);
      return 1;
  }
}

void Key::Close() { algorithm = x509::Algorithm::k_unknown; }

void Key::NoteTokenLoss(const std::optional<FreshTokenErrors>& fresh) const {
  if (token_context && fresh && fresh->LostOrStale()) token_context->NoteTokenLoss();
}

x509::Algorithm Key::Algorithm() const { return algorithm; }

ResultPair Key::Sign(const std::vector<unsigned char>& hash,
                     std::vector<unsigned char>* signature) {
  if (signature == nullptr) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                              "null signature vector given to Key::Sign");
    return Failure();
  }
  // With the token watch on, a card pulled under the signature is told
  // from any other failure by what libp11 records during it.
  std::optional<FreshTokenErrors> fresh;
  if (token_context && TokenWatch::Enabled()) fresh.emplace();
  const EvpPkeyCtxPtr context(EVP_PKEY_CTX_new(key.get(), nullptr));
  if (!context) {
    LogWithOpenSslErrors(X509_Auth_LogPriority_Error,
                         "Key::Sign unable to create private key context");
    return Failure();
  }
  if (EVP_PKEY_sign_init(context.get()) <= 0) {
    LogWithOpenSslErrors(X509_Auth_LogPriority_Error,
                         "Key::Sign unable to initialise private key context for signing");
    return Failure();
  }

  switch (algorithm) {
    case x509::Algorithm::k_rsa: {
      if (RSA_pkey_ctx_ctrl(context.get(), -1, EVP_PKEY_CTRL_RSA_PADDING, RSA_PKCS1_PADDING,
                            nullptr) <= 0) {
        LogWithOpenSslErrors(X509_Auth_LogPriority_Error, "couldn't set padding");
        return Failure();
      }
      const EVP_MD* digest = DigestForHashLength(hash.size());
      if (digest == nullptr) {
        LogWithOpenSslErrors(X509_Auth_LogPriority_Error, "couldn't get EVP md");
        return Failure();
      }
      // EVP_PKEY_OP_TYPE_SIG covers every signing and verifying operation;
      // OpenSSL 3.0 renumbered the operation bits, so no literal mask here.
      if (EVP_PKEY_CTX_ctrl(context.get(), -1, EVP_PKEY_OP_TYPE_SIG, EVP_PKEY_CTRL_MD, 0,
                            const_cast<EVP_MD*>(digest)) <= 0) {
        LogWithOpenSslErrors(X509_Auth_LogPriority_Error, "couldn't set signature md");
        return Failure();
      }
      break;
    }
    case x509::Algorithm::k_ec:
      // ECDSA signs the digest as given, whatever its length.
      break;
    default: return Unsupported();
  }

  std::size_t length = 0;
  const int query = EVP_PKEY_sign(context.get(), nullptr, &length, hash.data(), hash.size());
  if (query <= 0) {
    NoteTokenLoss(fresh);
    LogWithOpenSslErrors(X509_Auth_LogPriority_Error, "Signing failed. Error code: [%i]", query);
    return Failure();
  }
  *signature = std::vector<unsigned char>(length);
  if (EVP_PKEY_sign(context.get(), signature->data(), &length, hash.data(), hash.size()) <= 0) {
    NoteTokenLoss(fresh);
    LogAllOpenSslErrors();
    return Failure();
  }
  // The query gives an upper bound; a DER-encoded ECDSA signature is usually
  // shorter.
  signature->resize(length);
  return ResultPair{X509_Auth_ResultCode_Success, 0};
}

namespace {

// The salt a PSS signature gets for |requested|, or -1 when the key cannot
// hold it. The encoded message has one bit less than the modulus.
int ResolveSalt(int requested, const EVP_MD* digest, EVP_PKEY* key) {
  const int digest_length = EVP_MD_size(digest);
  const int encoded_length = (EVP_PKEY_bits(key) - 1 + 7) / 8;
  const int longest = encoded_length - digest_length - 2;
  if (longest < 0) return -1;
  switch (requested) {
    case -1: return digest_length <= longest ? digest_length : -1;
    case -2:
    case -3: return longest;
    default: return requested >= 0 && requested <= longest ? requested : -1;
  }
}

}  // namespace

ResultPair Key::SignPss(const EVP_MD* digest, const std::vector<unsigned char>& hash,
                        int salt_length, std::vector<unsigned char>* signature) {
  if (algorithm != x509::Algorithm::k_rsa || !key) return Unsupported();
  if (digest == nullptr || static_cast<std::size_t>(EVP_MD_size(digest)) != hash.size()) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                              "Key::SignPss the hash does not fit its digest");
    return ResultPair{X509_Auth_ResultCode_InvalidArgument, 0};
  }
  const int salt = ResolveSalt(salt_length, digest, key.get());
  if (salt < 0) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                              "Key::SignPss salt length %d does not fit a %d-bit key", salt_length,
                              EVP_PKEY_bits(key.get()));
    return ResultPair{X509_Auth_ResultCode_InvalidArgument, 0};
  }
  if (token_key != nullptr && token_context) {
    const TokenPssSigner signer(*token_context, token_slot, token_key, key.get());
    const ResultPair result = signer.Sign(digest, hash, salt, signature);
    const auto rv = static_cast<CK_RV>(result.detail);
    if (result.code != 0 && (TokenLoss::IsLossResult(rv) || TokenLoss::IsStaleHandleResult(rv)))
      token_context->NoteTokenLoss();
    return result;
  }

  const EvpPkeyCtxPtr context(EVP_PKEY_CTX_new(key.get(), nullptr));
  std::size_t length = 0;
  const bool ready = context && EVP_PKEY_sign_init(context.get()) > 0 &&
                     EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PSS_PADDING) > 0 &&
                     EVP_PKEY_CTX_set_signature_md(context.get(), digest) > 0 &&
                     EVP_PKEY_CTX_set_rsa_mgf1_md(context.get(), digest) > 0 &&
                     EVP_PKEY_CTX_set_rsa_pss_saltlen(context.get(), salt) > 0 &&
                     EVP_PKEY_sign(context.get(), nullptr, &length, hash.data(), hash.size()) > 0;
  if (ready) {
    signature->assign(length, 0);
    if (EVP_PKEY_sign(context.get(), signature->data(), &length, hash.data(), hash.size()) > 0) {
      signature->resize(length);
      return ResultPair{X509_Auth_ResultCode_Success, 0};
    }
  }
  LogWithOpenSslErrors(X509_Auth_LogPriority_Error, "Key::SignPss signing failed");
  signature->clear();
  return Failure();
}

ResultPair Key::Decrypt(DecryptAlgorithm decrypt_algorithm,
                        const std::vector<unsigned char>& ciphertext,
                        std::vector<unsigned char>* plaintext) {
  if (algorithm != x509::Algorithm::k_rsa) return Unsupported();
  // Not reachable from the key store, which always passes a buffer; refused
  // rather than dereferenced.
  if (plaintext == nullptr) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                              "null plaintext vector given to Key::Decrypt");
    return Failure();
  }
  std::optional<FreshTokenErrors> fresh;
  if (token_context && TokenWatch::Enabled()) fresh.emplace();
  const EvpPkeyCtxPtr context(EVP_PKEY_CTX_new(key.get(), nullptr));
  if (!context) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error, "Error creating EVP_PKEY_CTX");
    return Failure();
  }
  const int init = EVP_PKEY_decrypt_init(context.get());
  if (init <= 0) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error, "EVP_PKEY_decrypt_init error code: [%i]",
                              init);
    return Failure();
  }

  int padding = 0;
  switch (decrypt_algorithm) {
    case DecryptAlgorithm::k_rsa_pkcs1: padding = RSA_PKCS1_PADDING; break;
    case DecryptAlgorithm::k_rsa_oaep:
      // OpenSSL's OAEP defaults (SHA-1 and MGF1 with SHA-1) are what hosts
      // expect; no OAEP parameters are set.
      padding = RSA_PKCS1_OAEP_PADDING;
      break;
    default:
      SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                                "Unable to determine padding scheme for algorithm: [%u]",
                                static_cast<unsigned int>(decrypt_algorithm));
      return Unsupported();
  }
  const int set_padding =
      RSA_pkey_ctx_ctrl(context.get(), -1, EVP_PKEY_CTRL_RSA_PADDING, padding, nullptr);
  if (set_padding <= 0) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                              "Error setting padding. Error code: [%i]", set_padding);
    return Failure();
  }

  std::size_t length = 0;
  const int query =
      EVP_PKEY_decrypt(context.get(), nullptr, &length, ciphertext.data(), ciphertext.size());
  if (query <= 0) {
    NoteTokenLoss(fresh);
    SafeCallbacksWrapper::Log(
        X509_Auth_LogPriority_Error,
        "Error calling EVP_PKEY_decrypt to get the plaintext length. Error code: [%i]", query);
    return Failure();
  }
  *plaintext = std::vector<unsigned char>(length);
  const int decrypted = EVP_PKEY_decrypt(context.get(), plaintext->data(), &length,
                                         ciphertext.data(), ciphertext.size());
  if (decrypted <= 0) {
    NoteTokenLoss(fresh);
    // OpenSSL's reason first, so the host sees why before the summary.
    LogAllOpenSslErrors();
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                              "Error calling EVP_PKEY_decrypt. Error code: [%i]", decrypted);
    return Failure();
  }
  // The query gave the modulus size; the padding removed leaves less.
  plaintext->resize(length);
  return ResultPair{X509_Auth_ResultCode_Success, 0};
}

}  // namespace quorvant::shared::x509
