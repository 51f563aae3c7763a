// The bytes a host adds as a CA certificate (PEM or DER), followed by a
// listing and a chain request. The input is the added bytes, then the
// seeds' separator, then a certificate file for the "certs" directory whose
// chain may run through the added CA.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "FuzzHost.h"

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
  const auto parts = x509auth_fuzz::SplitParts(data, size, 2);
  if (parts.size() == 2) {
    x509auth_fuzz::WriteBytes(host.Base() / "certs" / "leaf", parts[1].data(), parts[1].size());
  }
  host.Init(x509auth_fuzz::PasswordAnswer::k_right);

  // An exact copy, so that a read past the given length is seen.
  const std::vector<std::uint8_t> added(parts[0]);
  const int result = X509_Auth_AddAdditionalCertificateAuthorityToStore(added.data(), added.size());
  if (result != 0 && result != 1) __builtin_trap();

  std::uint64_t count = 0;
  const X509_Auth_Certificate* certificates = nullptr;
  if (X509_Auth_LoadClientCertificates(&count, &certificates)) {
    for (std::uint64_t i = 0; i < count; ++i) {
      std::uint64_t chain_count = 0;
      X509_Auth_ASN_1* chain = nullptr;
      if (X509_Auth_GetChainedCAsForCertificate(&certificates[i], &chain_count, &chain) != 0)
        __builtin_trap();
      for (std::uint64_t j = 0; j < chain_count; ++j)
        if (chain[j].length == 0 || chain[j].data == nullptr) __builtin_trap();
      X509_Auth_Free(chain);
    }
    X509_Auth_Free(certificates);
  }
  return 0;
}
