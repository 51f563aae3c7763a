#pragma once
#include <cstdint>
#include <vector>

#include "base/Algorithm.h"
#include "base/Thumbprint.h"
#include "x509_auth.h"

namespace quorvant::shared::x509 {

// What a key-store request hands back: the kept record (null on failure) and
// the result pair the host receives.
template <typename Record>
struct KeyStoreResult {
  const Record* record = nullptr;
  X509_Auth_Result result{};
};

// The object behind every exported function. Operations are in their fixed
// slot order.
class IKeyStore {
 public:
  IKeyStore() = default;
  virtual ~IKeyStore() = default;
  IKeyStore(const IKeyStore&) = delete;
  IKeyStore& operator=(const IKeyStore&) = delete;

  virtual void Init() = 0;
  virtual bool AddAdditionalCertificateAuthorityToStore(const unsigned char* data,
                                                        unsigned long length) = 0;
  virtual bool LoadClientCertificates(std::uint64_t* count,
                                      const X509_Auth_Certificate** certificates) = 0;
  virtual KeyStoreResult<X509_Auth_Signature> SignHash(const Thumbprint& thumbprint,
                                                       const std::vector<Algorithm>& algorithms,
                                                       const std::vector<unsigned char>& hash) = 0;
  virtual KeyStoreResult<X509_Auth_ASN_1> Decrypt(const Thumbprint& thumbprint,
                                                  DecryptAlgorithm algorithm,
                                                  const std::vector<unsigned char>& data) = 0;
  virtual void Free(const void* p) = 0;
  virtual bool ShowCertificateDialog(const X509_Auth_Certificate* certificate, void* parent) = 0;
  virtual X509_Auth_ResultCode GetPrivateKeyForCertificate(const X509_Auth_Certificate* certificate,
                                                           void** key) = 0;
  virtual std::int32_t GetChainedCAsForCertificate(const X509_Auth_Certificate* certificate,
                                                   unsigned long* count,
                                                   X509_Auth_ASN_1** asn1) = 0;
};

}  // namespace quorvant::shared::x509
