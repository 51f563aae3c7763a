#include "KeyObject.h"

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <cstdio>
#include <exception>

#include "CertificatePublicKey.h"
#include "ErrorMark.h"
#include "SharedLibrarySession.h"
#include "x509auth/LibraryOwned.h"

namespace x509auth_provider {
namespace {

using x509auth_common::LibraryOwned;
using x509auth_common::Receive;

std::string Hex(const std::uint8_t* bytes, std::size_t length) {
  std::string text;
  char pair[3];
  for (std::size_t i = 0; i < length; ++i) {
    std::snprintf(pair, sizeof(pair), "%02x", bytes[i]);
    text += pair;
  }
  return text;
}

// The public key of the certificate |der|, made where the provider does its
// public-key work, so that it is never one of this provider's keys; null
// when it is of a kind OpenSSL does not know. False when the certificate
// cannot be parsed.
bool PublicKeyOf(const ProviderContext::CryptoContext& crypto,
                 const std::vector<unsigned char>& der, EvpPkeyPtr* key) {
  // Reported by the caller's one error.
  const ErrorMark mark;
  *key = CertificatePublicKey::Read(der, crypto.libctx, crypto.properties);
  if (*key != nullptr) return true;
  // Any other key: the whole certificate, parsed as OpenSSL does.
  X509Ptr cert(X509_new_ex(crypto.libctx, crypto.properties));
  if (cert == nullptr) return false;
  X509* raw = cert.get();
  const unsigned char* cursor = der.data();
  if (d2i_X509(&raw, &cursor, static_cast<long>(der.size())) == nullptr) {
    // A failed d2i into an existing object frees that object.
    (void)cert.release();
    return false;
  }
  key->reset(X509_get_pubkey(cert.get()));
  return true;
}

}  // namespace

std::shared_ptr<const KeyObject> KeyObject::ForCertificate(
    ProviderContext* provider, const std::vector<unsigned char>& der,
    const std::array<std::uint8_t, X509_AUTH_THUMBPRINT_LENGTH>& thumbprint,
    std::shared_ptr<PassphraseSource> passphrase) {
  const std::string hex = Hex(thumbprint.data(), thumbprint.size());
  EvpPkeyPtr key;
  if (!PublicKeyOf(provider->Crypto(), der, &key)) {
    X509AUTH_RAISE(provider, k_reason_unsupported_key,
                   "thumbprint=%s: the certificate cannot be parsed", hex.c_str());
    return nullptr;
  }
  std::uint32_t algorithm = X509_Auth_Algorithm_Unknown;
  if (key != nullptr && EVP_PKEY_is_a(key.get(), "RSA")) algorithm = X509_Auth_Algorithm_Rsa;
  if (key != nullptr && EVP_PKEY_is_a(key.get(), "EC")) algorithm = X509_Auth_Algorithm_Ec;
  if (algorithm == X509_Auth_Algorithm_Unknown) {
    X509AUTH_RAISE(provider, k_reason_unsupported_key, "thumbprint=%s", hex.c_str());
    return nullptr;
  }
  std::shared_ptr<KeyObject> object(new KeyObject());
  object->provider_ = provider;
  object->algorithm_ = algorithm;
  object->has_private_ = true;
  object->thumbprint_ = thumbprint;
  object->thumbprint_hex_ = hex;
  object->public_key_ = std::move(key);
  object->passphrase_ = std::move(passphrase);
  return object;
}

std::shared_ptr<const KeyObject> KeyObject::PublicOnly(ProviderContext* provider,
                                                       std::uint32_t algorithm, EvpPkeyPtr key) {
  std::shared_ptr<KeyObject> object(new KeyObject());
  object->provider_ = provider;
  object->algorithm_ = algorithm;
  object->public_key_ = std::move(key);
  return object;
}

KeyObject::~KeyObject() {
  if (open_key_ == 0) return;
  try {
    SharedLibrarySession::CloseKey(open_key_, open_generation_);
  } catch (...) {
    // A destructor called from OpenSSL lets nothing through; the key is
    // then freed with the library's end.
  }
}

X509_Auth_Result KeyObject::EnsureOpen() const {
  if (open_key_ != 0 && open_generation_ == SharedLibrarySession::Generation())
    return X509_Auth_Result{X509_Auth_ResultCode_Success, 0, 0};
  open_key_ = 0;
  const X509_Auth_Result opened = X509_Auth_OpenKey(thumbprint_.data(), &open_key_);
  open_generation_ = SharedLibrarySession::Generation();
  return opened;
}

bool KeyObject::OpenPrivate() const {
  if (!has_private_) {
    X509AUTH_RAISE(provider_, k_reason_no_private_key, "a public key has nothing to open");
    return false;
  }
  ProviderContext::CallReport report;
  X509_Auth_Result result{};
  try {
    result = provider_->Run(passphrase_.get(), &report, [&] { return EnsureOpen(); });
  } catch (const std::exception& failure) {
    X509AUTH_RAISE(provider_, k_reason_signing_failed, "thumbprint=%s: %s", thumbprint_hex_.c_str(),
                   failure.what());
    return false;
  }
  if (result.code != X509_Auth_ResultCode_Success) {
    RaiseLibraryFailure(k_reason_signing_failed, "X509_Auth_OpenKey", result, report);
    return false;
  }
  return true;
}

namespace {

// What a result code of a signing or decryption request means to a user.
const char* Meaning(std::int32_t code) {
  switch (code) {
    case X509_Auth_ResultCode_KeyOperationFailed: return "the key operation failed";
    case X509_Auth_ResultCode_StoreOpenFailed: return "the certificate store could not be opened";
    case X509_Auth_ResultCode_CertificateNotFound: return "the certificate is no longer offered";
    case X509_Auth_ResultCode_KeyOpenFailed:
      return "the private key could not be opened (a wrong PIN or password, or no key)";
    case X509_Auth_ResultCode_AlgorithmNotSupported: return "the algorithm is not supported";
    case X509_Auth_ResultCode_InvalidArgument: return "the request is not one the key can serve";
    case X509_Auth_ResultCode_MechanismNotSupported:
      return "the token can do neither RSA-PSS nor raw RSA";
    case X509_Auth_ResultCode_KeyMismatch:
      return "the key file no longer holds the certificate's key";
    default: return "unexpected result";
  }
}

}  // namespace

namespace {

// The library's lines of a failed call, as one error data text.
std::string Joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += (text.empty() ? "" : " | ") + line;
  return text;
}

}  // namespace

void KeyObject::RaiseLibraryFailure(int reason, const char* what, X509_Auth_Result result,
                                    const ProviderContext::CallReport& report) const {
  const std::string evidence = Joined(report.evidence);
  const char* separator = evidence.empty() ? "" : "; library: ";
  if (report.prompt_refused) {
    X509AUTH_RAISE(provider_, k_reason_passphrase_unavailable,
                   "thumbprint=%s: %s result %d (detail %lu)%s%s", thumbprint_hex_.c_str(), what,
                   result.code, static_cast<unsigned long>(result.detail), separator,
                   evidence.c_str());
    return;
  }
  // A card pulled while its PIN was typed fails like a wrong PIN; the
  // library's line beside the login notice says which it was.
  const bool card_removed =
      evidence.find("was removed while its PIN was entered") != std::string::npos ||
      evidence.find("] went away (CK_RV ") != std::string::npos;
  X509AUTH_RAISE(
      provider_, reason, "thumbprint=%s: %s result %d (detail %lu): %s%s%s",
      thumbprint_hex_.c_str(), what, result.code, static_cast<unsigned long>(result.detail),
      card_removed ? "the card was removed while its PIN was entered" : Meaning(result.code),
      separator, evidence.c_str());
}

void KeyObject::ForgetPassphrase() const {
  if (passphrase_ != nullptr) passphrase_->Forget();
}

template <typename Call>
bool KeyObject::Sign(const char* what, std::vector<unsigned char>* signature, Call&& call) const {
  if (!has_private_) {
    X509AUTH_RAISE(provider_, k_reason_no_private_key, "a public key cannot sign");
    return false;
  }
  ProviderContext::CallReport report;
  X509_Auth_Result result{};
  try {
    result = provider_->Run(passphrase_.get(), &report, [&] {
      LibraryOwned<X509_Auth_Signature> made;
      const X509_Auth_Result r = call(Receive(made));
      if (r.code == X509_Auth_ResultCode_Success && made)
        signature->assign(made->data, made->data + made->length);
      return r;
    });
  } catch (const std::exception& failure) {
    X509AUTH_RAISE(provider_, k_reason_signing_failed, "thumbprint=%s: %s", thumbprint_hex_.c_str(),
                   failure.what());
    return false;
  }
  if (result.code != X509_Auth_ResultCode_Success) {
    RaiseLibraryFailure(k_reason_signing_failed, what, result, report);
    return false;
  }
  return true;
}

bool KeyObject::SignHash(X509_Auth_HashType hash_type, const unsigned char* hash,
                         std::vector<unsigned char>* signature) const {
  return Sign("X509_Auth_SignHash", signature, [&](const X509_Auth_Signature** made) {
    const X509_Auth_Result opened = EnsureOpen();
    if (opened.code != X509_Auth_ResultCode_Success) return opened;
    return X509_Auth_OpenKeySignHash(open_key_, 1, &algorithm_, hash_type, hash, made);
  });
}

bool KeyObject::SignHashPss(X509_Auth_HashType hash_type, const unsigned char* hash,
                            int salt_length, std::vector<unsigned char>* signature) const {
  return Sign("X509_Auth_SignHashPss", signature, [&](const X509_Auth_Signature** made) {
    const X509_Auth_Result opened = EnsureOpen();
    if (opened.code != X509_Auth_ResultCode_Success) return opened;
    return X509_Auth_OpenKeySignHashPss(open_key_, hash_type, hash, salt_length, made);
  });
}

bool KeyObject::Decrypt(std::uint32_t padding, const unsigned char* data, std::size_t length,
                        std::vector<unsigned char>* plaintext) const {
  if (!has_private_) {
    X509AUTH_RAISE(provider_, k_reason_no_private_key, "a public key cannot decrypt");
    return false;
  }
  ProviderContext::CallReport report;
  X509_Auth_Result result{};
  try {
    result = provider_->Run(passphrase_.get(), &report, [&] {
      const X509_Auth_Result opened = EnsureOpen();
      if (opened.code != X509_Auth_ResultCode_Success) return opened;
      LibraryOwned<X509_Auth_ASN_1> made;
      const X509_Auth_Result r =
          X509_Auth_OpenKeyDecrypt(open_key_, padding, length, data, Receive(made));
      if (r.code == X509_Auth_ResultCode_Success && made) {
        plaintext->assign(made->data, made->data + made->length);
        // The plaintext may be a session key: wipe the library's copy too.
        OPENSSL_cleanse(const_cast<std::uint8_t*>(made->data), made->length);
      }
      return r;
    });
  } catch (const std::exception& failure) {
    X509AUTH_RAISE(provider_, k_reason_decryption_failed, "thumbprint=%s: %s",
                   thumbprint_hex_.c_str(), failure.what());
    return false;
  }
  if (result.code != X509_Auth_ResultCode_Success) {
    RaiseLibraryFailure(k_reason_decryption_failed, "X509_Auth_Decrypt", result, report);
    return false;
  }
  return true;
}

}  // namespace x509auth_provider
