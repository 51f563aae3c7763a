#include "OpenKeys.h"

namespace x509auth_pkcs11 {

X509_Auth_KeyHandle OpenKeys::Get(const Thumbprint& thumbprint, X509_Auth_Result& failure) {
  const auto found = keys_.find(thumbprint);
  if (found != keys_.end()) return found->second;
  X509_Auth_KeyHandle handle = 0;
  failure = X509_Auth_OpenKey(thumbprint.data(), &handle);
  if (failure.code != X509_Auth_ResultCode_Success || handle == 0) {
    if (failure.code == X509_Auth_ResultCode_Success)
      failure.code = X509_Auth_ResultCode_KeyOpenFailed;
    return 0;
  }
  keys_.emplace(thumbprint, handle);
  return handle;
}

void OpenKeys::CloseIf(const std::function<bool(const Thumbprint&)>& gone) {
  for (auto it = keys_.begin(); it != keys_.end();) {
    if (!gone(it->first)) {
      ++it;
      continue;
    }
    X509_Auth_CloseKey(it->second);
    it = keys_.erase(it);
  }
}

void OpenKeys::CloseAll() {
  CloseIf([](const Thumbprint&) { return true; });
}

}  // namespace x509auth_pkcs11
