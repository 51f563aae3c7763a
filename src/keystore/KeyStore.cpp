#include "keystore/KeyStore.h"

#include <libp11.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <optional>
#include <stdexcept>
#include <string>
#include <variant>

#include "base/SafeCallbacksWrapper.h"
#include "base/WipeOnExit.h"
#include "cert/ChainBuilder.h"
#include "cert/ICertificate.h"
#include "cert/Key.h"
#include "files/CertificateFiles.h"
#include "keystore/CertificateRecords.h"
#include "keystore/KeyOperation.h"
#include "keystore/OfferDecision.h"
#include "keystore/TokenLossRetry.h"
#include "smartcard/Libp11Context.h"
#include "smartcard/TokenPrivateKey.h"
#include "smartcard/TokenWatch.h"

namespace quorvant::shared::x509 {

namespace {

constexpr auto k_info = X509_Auth_LogPriority_Info;
constexpr auto k_warning = X509_Auth_LogPriority_Warning;
constexpr auto k_error = X509_Auth_LogPriority_Error;

// X509_Auth_GetChainedCAsForCertificate's own results (x509_auth.h), which
// are not key-operation result codes.
constexpr std::int32_t k_chain_null_certificate = 2;
constexpr std::int32_t k_chain_null_count = 3;
constexpr std::int32_t k_chain_null_output = 4;

// The client-authentication bit of X509_get_extended_key_usage.
constexpr std::uint32_t k_eku_client_auth = 0x2;
// The digital-signature bit of X509_get_key_usage.
constexpr std::uint32_t k_ku_digital_signature = 0x80;

Thumbprint ThumbprintOf(const X509_Auth_Certificate* certificate) {
  Thumbprint thumbprint{};
  std::memcpy(thumbprint.data(), certificate->thumbprint, thumbprint.size());
  return thumbprint;
}

// Removes every entry for which |matches| holds, keeping the others' order;
// returns how many were removed.
template <typename List, typename Matches>
std::size_t EraseMatching(List& list, Matches matches) {
  const auto first = std::remove_if(list.begin(), list.end(), matches);
  const auto removed = static_cast<std::size_t>(list.end() - first);
  list.erase(first, list.end());
  return removed;
}

// Opens a users' store, finds the certificate and opens its key: the steps
// signing and decryption share. Returns the failure result, or nothing when
// all three are ready. The caller declares store, certificate and key in
// that order so they are released key first.
std::optional<X509_Auth_Result> OpenForKeyOperation(const Thumbprint& thumbprint,
                                                    CertStore& users_store,
                                                    std::unique_ptr<ICertificate>& cert, Key& key) {
  const std::uint32_t store_error = users_store.Open(ICertificateStore::k_users_cert_store);
  if (store_error != 0) {
    SafeCallbacksWrapper::Log(k_error, "Failed to open cert store (error: %d)",
                              static_cast<int>(store_error));
    return X509_Auth_Result{X509_Auth_ResultCode_StoreOpenFailed, 0, store_error};
  }
  // The request only reads the certificate and ends before the store does.
  const std::uint32_t find_error = users_store.FindThumbprintShared(thumbprint, &cert);
  if (find_error != 0) {
    SafeCallbacksWrapper::Log(k_error, "Failed to find certificate thumbprint (error: %d)",
                              static_cast<int>(find_error));
    return X509_Auth_Result{X509_Auth_ResultCode_CertificateNotFound, 0, find_error};
  }
  const std::int32_t open_result = key.Open(*cert);
  if (open_result != 0) {
    SafeCallbacksWrapper::Log(k_error, "Failed to open private key for certificate (error: %d)",
                              open_result);
    return X509_Auth_Result{X509_Auth_ResultCode_KeyOpenFailed, 0,
                            static_cast<std::uint64_t>(open_result)};
  }
  return std::nullopt;
}

// Runs a key operation; with the token watch on, one that met a token or
// session gone away (the context's note) runs once more on a fresh slot
// listing. Each attempt owns its store, certificate and key, so the first
// attempt's hold on the old listing is gone before the second lists again.
template <typename Attempt>
auto WithOneRetryAfterTokenLoss(Attempt attempt) {
  return RetryOnceAfterTokenLoss(TokenWatch::Enabled() ? Libp11Context::GetInstance() : nullptr,
                                 attempt, attempt);
}

// Opens a users' store and finds the certificate of a handed-out record, for
// the viewer and the key export, which share their failure wording on
// purpose. Returns false after logging when either step fails; |store_failed|
// tells which.
bool FindForDialogOrExport(const X509_Auth_Certificate* certificate, CertStore& users_store,
                           std::unique_ptr<ICertificate>& cert, bool& store_failed) {
  const std::uint32_t store_error = users_store.Open(ICertificateStore::k_users_cert_store);
  if (store_error != 0) {
    SafeCallbacksWrapper::Log(
        k_error, "Failed to show certificate dialog. Failed to open cert store (error: %d)",
        static_cast<int>(store_error));
    store_failed = true;
    return false;
  }
  const std::uint32_t find_error = users_store.FindThumbprint(ThumbprintOf(certificate), &cert);
  if (find_error != 0) {
    SafeCallbacksWrapper::Log(
        k_error,
        "Failed to show certificate dialog. Failed to find certificate thumbprint (error: %d)",
        static_cast<int>(find_error));
    store_failed = false;
    return false;
  }
  return true;
}

}  // namespace

void KeyStore::Init() {
  SafeCallbacksWrapper::Log(k_info, "Initialised");
  if (!cert_store.IsOpen()) {
    // Any kind but the users' gives an empty store for the host's CAs.
    cert_store.Open(static_cast<ICertificateStore::CertStoreType>(1));
  }
}

const X509_Auth_Signature* KeyStore::AllocateSignature(Algorithm algorithm,
                                                       std::vector<unsigned char> signature) {
  if (static_cast<std::uint32_t>(algorithm) > 2) throw std::invalid_argument("Unimplemented");
  auto kept = std::make_unique<AllocatedSignature>();
  kept->algorithm = static_cast<std::uint32_t>(algorithm);
  kept->signature = std::move(signature);
  kept->record.algorithm = kept->algorithm;
  kept->record.length = kept->signature.size();
  kept->record.data = kept->signature.data();
  const X509_Auth_Signature* record = &kept->record;
  signatures.push_back(std::move(kept));
  return record;
}

const X509_Auth_ASN_1* KeyStore::AllocatePlaintext(std::vector<unsigned char> plaintext) {
  auto kept = std::make_unique<AllocatedPlaintext>();
  kept->plaintext = std::move(plaintext);
  kept->record.length = kept->plaintext.size();
  kept->record.data = kept->plaintext.data();
  const X509_Auth_ASN_1* record = &kept->record;
  plaintexts.push_back(std::move(kept));
  return record;
}

void KeyStore::Free(const void* p) {
  if (EraseMatching(certificate_lists, [p](const auto& list) {
        return static_cast<const void*>(list->records.data()) == p;
      }) > 0)
    return;
  if (EraseMatching(signatures, [p](const auto& kept) {
        return static_cast<const void*>(&kept->record) == p;
      }) > 0)
    return;
  if (EraseMatching(plaintexts, [p](const auto& kept) {
        return static_cast<const void*>(&kept->record) == p;
      }) > 0)
    return;
  EraseMatching(ca_chain_lists, [p](const auto& list) {
    if (static_cast<const void*>(list->records.data()) != p) return false;
    SafeCallbacksWrapper::Log(k_info, "asn1s ptr freed (ptr: %p)", p);
    return true;
  });
}

bool KeyStore::IsPermitted(const ICertificate& cert) {
  const std::uint32_t eku = cert.EnhancedKeyUsage();
  if ((eku & k_eku_client_auth) != 0) return true;
  std::uint32_t ku = 0;
  if (!cert.IntendedKeyUsage(ku)) return false;
  if ((ku & k_ku_digital_signature) != 0) return true;
  return eku == 0 && ku == 0;
}

bool KeyStore::LoadClientCertificates(std::uint64_t* count,
                                      const X509_Auth_Certificate** certificates) {
  SafeCallbacksWrapper::Log(k_info, "Loading client certificates from OS store");
  CertStore users_store;
  const std::uint32_t error = users_store.Open(ICertificateStore::k_users_cert_store);
  if (error != 0) {
    SafeCallbacksWrapper::Log(k_error, "Failed to open cert store (error: %d)",
                              static_cast<int>(error));
    return false;
  }

  // Only read, and gone before the store is. The key usage is checked first
  // and on its own, so that a refused certificate is never logged; the
  // decision below repeats that check, which costs nothing.
  std::vector<std::unique_ptr<ICertificate>> certs = users_store.SharedCertificates();
  certs.erase(
      std::remove_if(certs.begin(), certs.end(),
                     [](const std::unique_ptr<ICertificate>& cert) { return !IsPermitted(*cert); }),
      certs.end());

  std::vector<CertificateWrapper> wrappers;
  // Every chain of this listing is built against the same trust, so the
  // trusted store is made once for all of them.
  ChainBuilder chain_builder;
  const std::string trust = KeptOfferDecisions::TrustOf(users_store, cert_store);
  kept_decisions.BeginListing();
  for (const std::unique_ptr<ICertificate>& cert : certs) {
    CertificateWrapper wrapper;
    // Chains are built against the store holding the host's added CAs, not
    // this request's users' store.
    if (CertificateRecords::Describe(*cert, &cert_store, chain_builder, kept_decisions, trust,
                                     &wrapper))
      wrappers.push_back(std::move(wrapper));
  }
  kept_decisions.EndListing();
  const std::int64_t now = static_cast<std::int64_t>(std::time(nullptr));
  if (trust.empty() || trust != listed_trust || now >= listed_until) ++listing_version;
  listed_trust = trust;
  listed_until = kept_decisions.ListingChangesAt();
  SafeCallbacksWrapper::Log(k_warning, "Total Client Certificates picked: %d",
                            static_cast<int>(wrappers.size()));

  auto list = std::make_unique<AllocatedCertificateList>();
  list->wrappers = std::move(wrappers);
  list->records = CertificateRecords::Records(list->wrappers);

  *count = list->records.size();
  *certificates = list->records.data();
  const int returned = static_cast<int>(list->records.size());
  certificate_lists.push_back(std::move(list));
  SafeCallbacksWrapper::Log(k_warning, "Total Client Certificates returned: %d", returned);
  return true;
}

bool KeyStore::AddAdditionalCertificateAuthorityToStore(const unsigned char* data,
                                                        unsigned long length) {
  const std::string marker = "-----BEGIN CERTIFICATE-----";
  std::vector<unsigned char> der;
  const unsigned char* bytes = data;
  unsigned long size = length;
  if (length >= marker.size() && std::memcmp(data, marker.data(), marker.size()) == 0) {
    if (!ConvertPemDataToDer(data, length, der)) {
      SafeCallbacksWrapper::Log(
          k_info, "KeyStore::AddAdditionalCertificateAuthorityToStore ConvertPemDataToDer failed.");
      return false;
    }
    bytes = der.data();
    size = der.size();
  }
  const std::uint32_t error = cert_store.AddEncodedCertificate(bytes, size);
  if (error != 0) {
    SafeCallbacksWrapper::Log(k_warning, "AddAdditionalCertificateAuthorityToStore error (%lu)",
                              static_cast<unsigned long>(error));
    return false;
  }
  return true;
}

std::int32_t KeyStore::GetChainedCAsForCertificate(const X509_Auth_Certificate* certificate,
                                                   unsigned long* count, X509_Auth_ASN_1** asn1) {
  if (certificate == nullptr) {
    SafeCallbacksWrapper::Log(k_error, "KeyStore::GetChainedCAsForCertificate Cert is null");
    return k_chain_null_certificate;
  }
  if (count == nullptr) {
    SafeCallbacksWrapper::Log(k_error, "KeyStore::GetChainedCAsForCertificate total is null");
    return k_chain_null_count;
  }
  if (asn1 == nullptr) {
    SafeCallbacksWrapper::Log(k_error, "KeyStore::GetChainedCAsForCertificate asn1 is null");
    return k_chain_null_output;
  }

  std::vector<ASN1Wrapper> blobs;
  for (std::uint64_t i = 0; i < certificate->ca_chain_count; ++i) {
    Thumbprint thumbprint{};
    std::memcpy(thumbprint.data(), certificate->ca_chain[i], thumbprint.size());
    std::unique_ptr<ICertificate> found;
    // Only encoded: no copy of the certificate is needed.
    const std::uint32_t error = cert_store.FindThumbprintShared(thumbprint, &found);
    if (error != 0) {
      SafeCallbacksWrapper::Log(k_error, "Failed to find certificate thumbprint (error: %d)",
                                static_cast<int>(error));
      continue;
    }
    blobs.push_back(ASN1Wrapper{found->Encode()});
  }

  auto list = std::make_unique<AllocatedCAChainASN1List>();
  list->blobs = std::move(blobs);
  list->records.reserve(list->blobs.size());
  for (const ASN1Wrapper& blob : list->blobs)
    list->records.push_back(X509_Auth_ASN_1{blob.data.size(), blob.data.data()});
  *count = list->records.size();
  *asn1 = list->records.data();
  ca_chain_lists.push_back(std::move(list));
  return 0;
}

KeyStoreResult<X509_Auth_Signature> KeyStore::SignHash(const Thumbprint& thumbprint,
                                                       const std::vector<Algorithm>& algorithms,
                                                       const std::vector<unsigned char>& hash) {
  SafeCallbacksWrapper::Log(k_info, "Signing hash... (this might require user input)");
  return WithOneRetryAfterTokenLoss([&] { return SignHashOnce(thumbprint, algorithms, hash); });
}

KeyStoreResult<X509_Auth_Signature> KeyStore::SignHashOnce(const Thumbprint& thumbprint,
                                                           const std::vector<Algorithm>& algorithms,
                                                           const std::vector<unsigned char>& hash) {
  CertStore users_store;
  std::unique_ptr<ICertificate> cert;
  Key key;
  if (auto failure = OpenForKeyOperation(thumbprint, users_store, cert, key))
    return {nullptr, *failure};
  const Algorithm group = cert->PublicKeyAlgorithmGroup();
  if (group == Algorithm::k_unknown ||
      std::find(algorithms.begin(), algorithms.end(), group) == algorithms.end()) {
    SafeCallbacksWrapper::Log(k_error, "Certificate does not support requested algorithm");
    return {nullptr, {X509_Auth_ResultCode_AlgorithmNotSupported, 0, 0}};
  }
  KeyStoreResult<X509_Auth_Signature> signed_hash = KeyOperation::Sign(*this, key, group, hash);
  if (signed_hash.record != nullptr) SafeCallbacksWrapper::Log(k_info, "Successfully signed hash");
  return signed_hash;
}

KeyStoreResult<X509_Auth_Signature> KeyStore::SignHashPss(const Thumbprint& thumbprint,
                                                          const EVP_MD* digest,
                                                          const std::vector<unsigned char>& hash,
                                                          int salt_length) {
  SafeCallbacksWrapper::Log(k_info, "Signing hash with RSA-PSS... (this might require user input)");
  return WithOneRetryAfterTokenLoss(
      [&] { return SignHashPssOnce(thumbprint, digest, hash, salt_length); });
}

KeyStoreResult<X509_Auth_Signature> KeyStore::SignHashPssOnce(
    const Thumbprint& thumbprint, const EVP_MD* digest, const std::vector<unsigned char>& hash,
    int salt_length) {
  CertStore users_store;
  std::unique_ptr<ICertificate> cert;
  Key key;
  if (auto failure = OpenForKeyOperation(thumbprint, users_store, cert, key))
    return {nullptr, *failure};
  if (cert->PublicKeyAlgorithmGroup() != Algorithm::k_rsa || key.Algorithm() != Algorithm::k_rsa) {
    SafeCallbacksWrapper::Log(k_error, "Certificate does not support RSA-PSS signatures");
    return {nullptr, {X509_Auth_ResultCode_AlgorithmNotSupported, 0, 0}};
  }
  KeyStoreResult<X509_Auth_Signature> signed_hash =
      KeyOperation::SignPss(*this, key, digest, hash, salt_length);
  if (signed_hash.record != nullptr)
    SafeCallbacksWrapper::Log(k_info, "Successfully signed hash with RSA-PSS");
  return signed_hash;
}

KeyStoreResult<X509_Auth_ASN_1> KeyStore::Decrypt(const Thumbprint& thumbprint,
                                                  DecryptAlgorithm algorithm,
                                                  const std::vector<unsigned char>& data) {
  return WithOneRetryAfterTokenLoss([&] { return DecryptOnce(thumbprint, algorithm, data); });
}

KeyStoreResult<X509_Auth_ASN_1> KeyStore::DecryptOnce(const Thumbprint& thumbprint,
                                                      DecryptAlgorithm algorithm,
                                                      const std::vector<unsigned char>& data) {
  CertStore users_store;
  std::unique_ptr<ICertificate> cert;
  Key key;
  if (auto failure = OpenForKeyOperation(thumbprint, users_store, cert, key))
    return {nullptr, *failure};
  if (cert->PublicKeyAlgorithmGroup() != Algorithm::k_rsa) {
    SafeCallbacksWrapper::Log(k_error, "Certificate does not support RSA decryption");
    return {nullptr, {X509_Auth_ResultCode_AlgorithmNotSupported, 0, 0}};
  }
  KeyStoreResult<X509_Auth_ASN_1> decrypted = KeyOperation::Decrypt(*this, key, algorithm, data);
  if (decrypted.record != nullptr) SafeCallbacksWrapper::Log(k_info, "Successfully decrypted data");
  return decrypted;
}

X509_Auth_ResultCode KeyStore::GetPrivateKeyForCertificate(const X509_Auth_Certificate* certificate,
                                                           void** key) {
  if (certificate == nullptr) {
    SafeCallbacksWrapper::Log(k_error, "Failed to GetPrivateKeyForCertificate Cert is null");
    return X509_Auth_ResultCode_NullCertificate;
  }
  if (key == nullptr) {
    SafeCallbacksWrapper::Log(k_error, "Failed to GetPrivateKeyForCertificate pvt_key ptr is null");
    return X509_Auth_ResultCode_NullKeyOutput;
  }
  CertStore users_store;
  std::unique_ptr<ICertificate> cert;
  bool store_failed = false;
  if (!FindForDialogOrExport(certificate, users_store, cert, store_failed))
    return store_failed ? X509_Auth_ResultCode_KeyExportStoreOpenFailed
                        : X509_Auth_ResultCode_KeyExportCertificateNotFound;

  const CertContext& context = cert->GetContext();
  if (std::holds_alternative<std::unique_ptr<CertFileContext>>(context)) {
    SafeCallbacksWrapper::Log(k_warning,
                              "cert type is CertFileContext: Use Pvt Key Path not this function");
    return X509_Auth_ResultCode_UseKeyPath;
  }
  if (std::holds_alternative<std::unique_ptr<EncodedCertContext>>(context)) {
    SafeCallbacksWrapper::Log(k_warning, "cert type is EncodedCertContext, can not get pvt key");
    return X509_Auth_ResultCode_EncodedCertificateHasNoKey;
  }
  const Libp11CertContext& token = *std::get<std::unique_ptr<Libp11CertContext>>(context);
  TokenPrivateKey opened =
      TokenPrivateKey::Open(token.libp11_context, token.slot, token.cert,
                            TokenPrivateKey::OnLoginFailure::k_stop, [&token] {
                              SafeCallbacksWrapper::Log(k_warning, "cert type: Libp11CertContext");
                              SafeCallbacksWrapper::Log(k_error, "PKCS11_CERT* cert_ptr: [%p]",
                                                        static_cast<void*>(token.cert));
                            });
  if (opened.login != 0) return X509_Auth_ResultCode_TokenLoginFailed;
  if (opened.found == nullptr) {
    SafeCallbacksWrapper::Log(k_error,
                              "Error loading private key for smart card cert: [%s] find key null",
                              cert->Name().c_str());
    return X509_Auth_ResultCode_TokenKeyNotFound;
  }
  // The host owns the key from here and frees it with EVP_PKEY_free.
  if (token.token_slots) token.token_slots->KeepForExportedKey();
  EVP_PKEY* private_key = opened.key.release();
  *key = private_key;
  if (private_key == nullptr) {
    SafeCallbacksWrapper::Log(
        k_error, "Error loading private key for smart card cert: [%s] get returned null",
        cert->Name().c_str());
  }
  return X509_Auth_ResultCode_Success;
}

bool KeyStore::ListingVersion(std::uint64_t* version) {
  CertStore users_store;
  const std::uint32_t error = users_store.Open(ICertificateStore::k_users_cert_store);
  if (error != 0) {
    SafeCallbacksWrapper::Log(k_error, "Failed to open cert store (error: %d)",
                              static_cast<int>(error));
    return false;
  }
  const std::string trust = KeptOfferDecisions::TrustOf(users_store, cert_store);
  const std::int64_t now = static_cast<std::int64_t>(std::time(nullptr));
  if (trust.empty() || trust != listed_trust || now >= listed_until) {
    // The next listing gives another number again.
    listed_trust.clear();
    ++listing_version;
  }
  *version = listing_version;
  return true;
}

X509_Auth_ResultCode KeyStore::FindCertificate(const Thumbprint& thumbprint,
                                               const X509_Auth_Certificate** certificate) {
  CertStore users_store;
  std::unique_ptr<ICertificate> cert;
  std::uint32_t token_status = 0;
  const CertStore::Lookup found = users_store.OpenFor(thumbprint, &cert, &token_status);
  if (found == CertStore::Lookup::k_tokens_failed) {
    SafeCallbacksWrapper::Log(k_error, "Failed to open cert store (error: %d)",
                              static_cast<int>(token_status));
    return X509_Auth_ResultCode_StoreOpenFailed;
  }
  // Then the host's added certificates, the listing's last source.
  const bool added = found == CertStore::Lookup::k_absent;
  if (added) {
    const std::uint32_t find_error = cert_store.FindThumbprintShared(thumbprint, &cert);
    if (find_error != 0) {
      SafeCallbacksWrapper::Log(k_error, "Failed to find certificate thumbprint (error: %d)",
                                static_cast<int>(find_error));
      return X509_Auth_ResultCode_CertificateNotFound;
    }
  }
  // A file or token certificate the listing would leave out is not handed
  // out here either; an added one is the host's own CA, handed as it is.
  if (!added && !IsPermitted(*cert)) {
    SafeCallbacksWrapper::Log(k_error,
                              "X509_Auth_FindCertificate: [%s] is not offered for client "
                              "authentication (key usage)",
                              cert->Name().c_str());
    return X509_Auth_ResultCode_CertificateNotFound;
  }
  ChainBuilder chain_builder;
  std::vector<CertificateWrapper> wrappers(1);
  CertificateWrapper& wrapper = wrappers[0];
  if (!added) {
    const std::string trust = KeptOfferDecisions::TrustOf(users_store, cert_store);
    if (!CertificateRecords::Describe(*cert, &cert_store, chain_builder, kept_decisions, trust,
                                      &wrapper))
      return X509_Auth_ResultCode_CertificateNotFound;
  } else {
    // An added CA is no offer: its chain when it verifies, else none.
    CertificateRecords::DescribeSource(*cert, &wrapper);
    if (!cert->CaChain(wrapper.ca_chain, &cert_store, chain_builder)) wrapper.ca_chain.clear();
    if (!cert->Thumbprint(wrapper.thumbprint)) return X509_Auth_ResultCode_CertificateNotFound;
  }
  auto list = std::make_unique<AllocatedCertificateList>();
  list->wrappers = std::move(wrappers);
  list->records = CertificateRecords::Records(list->wrappers);
  *certificate = list->records.data();
  certificate_lists.push_back(std::move(list));
  return X509_Auth_ResultCode_Success;
}

X509_Auth_Result KeyStore::OpenKeyFor(const Thumbprint& thumbprint, std::uint64_t* handle) {
  // Process-wide, so that a handle kept across X509_Auth_Init never names
  // a key opened later.
  static std::uint64_t last_handle = 0;
  X509_Auth_Result failure{};
  std::unique_ptr<OpenKey> opened = OpenKey::Open(thumbprint, failure);
  if (!opened) return failure;
  *handle = ++last_handle;
  open_keys.emplace(*handle, std::move(opened));
  return X509_Auth_Result{X509_Auth_ResultCode_Success, 0, 0};
}

OpenKey* KeyStore::FindOpenKey(std::uint64_t handle, const char* function) {
  const auto found = open_keys.find(handle);
  if (found != open_keys.end()) return found->second.get();
  SafeCallbacksWrapper::Log(k_error, "%s: no open key has handle %llu", function,
                            static_cast<unsigned long long>(handle));
  return nullptr;
}

bool KeyStore::CloseKey(std::uint64_t handle) { return open_keys.erase(handle) > 0; }

bool KeyStore::ShowCertificateDialog(const X509_Auth_Certificate* certificate, void* parent) {
  CertStore users_store;
  std::unique_ptr<ICertificate> cert;
  bool store_failed = false;
  if (!FindForDialogOrExport(certificate, users_store, cert, store_failed)) return false;
  return cert->ShowDialog(parent);
}

}  // namespace quorvant::shared::x509
