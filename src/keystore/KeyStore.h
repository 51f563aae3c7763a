#pragma once
#include <openssl/evp.h>

#include <map>
#include <memory>
#include <vector>

#include "base/SecretWipe.h"
#include "keystore/ASN1Wrapper.h"
#include "keystore/CertificateWrapper.h"
#include "keystore/IKeyStore.h"
#include "keystore/KeptOfferDecisions.h"
#include "keystore/OpenKey.h"
#include "store/CertStore.h"

namespace quorvant::shared::x509 {

class ICertificate;

// The host's side of the library, not to be confused with store/: store/
// reads certificates from files, tokens and added CAs; the key store decides
// what of that is offered, opens the keys behind it and owns what the host
// was handed. Keeps everything handed to the host until X509_Auth_Free or its
// own destruction, and owns the long-lived store that receives the host's CA
// certificates. No locking: the host serialises its calls.
class KeyStore : public IKeyStore {
 public:
  // A handed-out certificate array; the host gets &records[0].
  struct AllocatedCertificateList {
    std::vector<CertificateWrapper> wrappers;
    std::vector<X509_Auth_Certificate> records;
  };
  // A handed-out signature; the host gets &record.
  struct AllocatedSignature {
    std::uint32_t algorithm = 0;
    std::vector<unsigned char> signature;
    X509_Auth_Signature record{};
  };
  // A handed-out plaintext; the host gets &record.
  struct AllocatedPlaintext {
    // Decrypted data is a secret of the host's: wiped when freed.
    ~AllocatedPlaintext() { SecretWipe::Wipe(plaintext); }
    std::vector<unsigned char> plaintext;
    X509_Auth_ASN_1 record{};
  };
  // A handed-out CA chain; the host gets &records[0].
  struct AllocatedCAChainASN1List {
    std::vector<ASN1Wrapper> blobs;
    std::vector<X509_Auth_ASN_1> records;
  };

  KeyStore() = default;
  ~KeyStore() override = default;

  void Init() override;
  bool AddAdditionalCertificateAuthorityToStore(const unsigned char* data,
                                                unsigned long length) override;
  bool LoadClientCertificates(std::uint64_t* count,
                              const X509_Auth_Certificate** certificates) override;
  KeyStoreResult<X509_Auth_Signature> SignHash(const Thumbprint& thumbprint,
                                               const std::vector<Algorithm>& algorithms,
                                               const std::vector<unsigned char>& hash) override;
  KeyStoreResult<X509_Auth_ASN_1> Decrypt(const Thumbprint& thumbprint, DecryptAlgorithm algorithm,
                                          const std::vector<unsigned char>& data) override;
  void Free(const void* p) override;
  bool ShowCertificateDialog(const X509_Auth_Certificate* certificate, void* parent) override;
  X509_Auth_ResultCode GetPrivateKeyForCertificate(const X509_Auth_Certificate* certificate,
                                                   void** key) override;
  std::int32_t GetChainedCAsForCertificate(const X509_Auth_Certificate* certificate,
                                           unsigned long* count, X509_Auth_ASN_1** asn1) override;

  // RSASSA-PSS over |hash| (made by |digest|) with the key of the
  // certificate |thumbprint| names; found and opened as for SignHash. Never
  // throws: every failure is a result code.
  KeyStoreResult<X509_Auth_Signature> SignHashPss(const Thumbprint& thumbprint,
                                                  const EVP_MD* digest,
                                                  const std::vector<unsigned char>& hash,
                                                  int salt_length);

  // The one certificate |thumbprint| names, as the listing would describe
  // it, found in the listing's order (files, tokens, the host's added
  // certificates) without listing the others: the PKCS#11 module is loaded
  // only when no file holds it. |*certificate| is freed like a listing.
  X509_Auth_ResultCode FindCertificate(const Thumbprint& thumbprint,
                                       const X509_Auth_Certificate** certificate);

  // A number that stays the same while a listing would hand out the same
  // records as the latest one, and is another one otherwise: the users'
  // store is opened and compared with what that listing saw, nothing is
  // listed. False when the store cannot be opened.
  bool ListingVersion(std::uint64_t* version);

  // Opens the key of the certificate |thumbprint| names for the operations
  // below; |*handle| receives a number never given before in this process.
  X509_Auth_Result OpenKeyFor(const Thumbprint& thumbprint, std::uint64_t* handle);
  // The open key |handle| names, or null (with an error line naming
  // |function|) when no such key is open.
  OpenKey* FindOpenKey(std::uint64_t handle, const char* function);
  // False when no such key is open; its key is freed and cleansed now.
  bool CloseKey(std::uint64_t handle);

  // Throws std::invalid_argument("Unimplemented") for an algorithm above 2.
  const X509_Auth_Signature* AllocateSignature(Algorithm algorithm,
                                               std::vector<unsigned char> signature);
  const X509_Auth_ASN_1* AllocatePlaintext(std::vector<unsigned char> plaintext);

  // Whether a certificate's key usage allows TLS client authentication, the
  // first part of the offering decision (keystore/OfferDecision.h).
  static bool IsPermitted(const ICertificate& cert);

  // The key store's own store, holding the CA certificates the host added.
  const CertStore& OwnStore() const { return cert_store; }

 private:
  // One attempt of each key operation; the public operations add the token
  // watch's retry around it.
  KeyStoreResult<X509_Auth_Signature> SignHashOnce(const Thumbprint& thumbprint,
                                                   const std::vector<Algorithm>& algorithms,
                                                   const std::vector<unsigned char>& hash);
  KeyStoreResult<X509_Auth_Signature> SignHashPssOnce(const Thumbprint& thumbprint,
                                                      const EVP_MD* digest,
                                                      const std::vector<unsigned char>& hash,
                                                      int salt_length);
  KeyStoreResult<X509_Auth_ASN_1> DecryptOnce(const Thumbprint& thumbprint,
                                              DecryptAlgorithm algorithm,
                                              const std::vector<unsigned char>& data);

  // Destroyed in reverse: the open keys, the store, then every kept result.
  std::vector<std::unique_ptr<AllocatedCertificateList>> certificate_lists;
  std::vector<std::unique_ptr<AllocatedSignature>> signatures;
  std::vector<std::unique_ptr<AllocatedPlaintext>> plaintexts;
  std::vector<std::unique_ptr<AllocatedCAChainASN1List>> ca_chain_lists;
  CertStore cert_store;
  // Decisions of certificate files, kept between listings.
  KeptOfferDecisions kept_decisions;
  // What the latest listing saw, and until when its records hold.
  std::string listed_trust;
  std::int64_t listed_until = 0;
  std::uint64_t listing_version = 1;
  // Before the store: their keys are freed (and cleansed) first.
  std::map<std::uint64_t, std::unique_ptr<OpenKey>> open_keys;
};

}  // namespace quorvant::shared::x509
