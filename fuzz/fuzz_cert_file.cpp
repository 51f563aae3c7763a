// The files of a "certs" directory: each input fills the directory with up
// to four files (split at the seeds' separator), then every certificate the
// store reads is asked for everything a host can see of it, and the host's
// listing and chain requests run over the same directory.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzHost.h"
#include "cert/ICertificate.h"
#include "keystore/KeyStore.h"
#include "store/CertStore.h"

using namespace quorvant::shared::x509;

namespace {

void AskEverything(const ICertificate& cert, const ICertificateStore* extra) {
  (void)cert.PublicKeyAlgorithm();
  (void)cert.PublicKeyAlgorithmGroup();
  std::uint32_t usage = 0;
  (void)cert.IntendedKeyUsage(usage);
  (void)cert.EnhancedKeyUsage();
  (void)cert.Name();
  (void)cert.IssuerName();
  (void)cert.NotBefore();
  (void)cert.NotAfter();
  (void)cert.Encode();
  Thumbprint thumbprint{};
  (void)cert.Thumbprint(thumbprint);
  std::vector<Thumbprint> chain;
  (void)cert.CaChain(chain, extra);
  (void)KeyStore::IsPermitted(cert);
}

}  // namespace

// Set-up outside the timed inputs: a slow start on a busy machine is not a
// hang of the first input.
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  x509auth_fuzz::FuzzHost::WarmUp();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const x509auth_fuzz::FuzzHost& host = x509auth_fuzz::FuzzHost::GetInstance();
  const x509auth_fuzz::FuzzHost::InWorkDirectory in_work_directory(host);
  host.EmptyBase();
  const auto parts = x509auth_fuzz::SplitParts(data, size, 4);
  for (std::size_t i = 0; i < parts.size(); ++i) {
    x509auth_fuzz::WriteBytes(host.Base() / "certs" / ("file" + std::to_string(i)), parts[i].data(),
                              parts[i].size());
  }
  host.Init(x509auth_fuzz::PasswordAnswer::k_right);

  {
    CertStore users_store;
    if (users_store.Open(ICertificateStore::k_users_cert_store) == 0) {
      for (const auto& cert : users_store.Certificates()) AskEverything(*cert, &users_store);
    }
  }

  std::uint64_t count = 0;
  const X509_Auth_Certificate* certificates = nullptr;
  if (X509_Auth_LoadClientCertificates(&count, &certificates)) {
    for (std::uint64_t i = 0; i < count; ++i) {
      std::uint64_t chain_count = 0;
      X509_Auth_ASN_1* chain = nullptr;
      if (X509_Auth_GetChainedCAsForCertificate(&certificates[i], &chain_count, &chain) == 0)
        X509_Auth_Free(chain);
    }
    X509_Auth_Free(certificates);
  }
  return 0;
}
