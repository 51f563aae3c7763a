#include "cert/ChainBuilder.h"

#include <openssl/x509.h>

#include "api/SafeCallbacksWrapper.h"
#include "cert/DefaultCaPaths.h"
#include "cert/X509StoreBatch.h"
#include "files/CertificateFiles.h"

namespace quorvant::shared::x509 {

ChainBuilder::ChainBuilder() = default;

ChainBuilder::~ChainBuilder() = default;

bool ChainBuilder::Prepare(X509_STORE* own, X509_STORE* extra) {
  if (trusted_ && own == own_ && extra == extra_) return true;
  trusted_.reset(X509_STORE_new());
  own_ = nullptr;
  extra_ = nullptr;
  if (!trusted_ || own == nullptr) {
    trusted_.reset();
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                              "Cert::CaChain failed to create new X509 store context");
    LogAllOpenSslErrors();
    return false;
  }
  {
    X509StoreBatch batch(trusted_.get());
    batch.AddCertificatesOf(own);
    if (extra != nullptr) batch.AddCertificatesOf(extra);
  }
  DefaultCaPaths::SetOn(trusted_.get());
  own_ = own;
  extra_ = extra;
  return true;
}

bool ChainBuilder::CaChain(X509* cert, X509_STORE* own, X509_STORE* extra,
                           std::vector<Thumbprint>& chain) {
  X509StoreCtxPtr context(X509_STORE_CTX_new());
  if (!context) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Warning, "Cert::CaChain X509_STORE_CTX_new failed");
    LogAllOpenSslErrors();
    return false;
  }
  if (!Prepare(own, extra)) return false;

  if (X509_STORE_CTX_init(context.get(), trusted_.get(), cert, nullptr) != 1) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                              "Cert::CaChain failed to create new X509 store context");
    LogAllOpenSslErrors();
    return false;
  }
  if (X509_verify_cert(context.get()) != 1) {
    const int error = X509_STORE_CTX_get_error(context.get());
    const int depth = X509_STORE_CTX_get_error_depth(context.get());
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Warning,
                              "Cert::CaChain X509_verify_cert failed. Error code: [%i], Error "
                              "message: [%s], Error depth: [%i]",
                              error, X509_verify_cert_error_string(error), depth);
    LogAllOpenSslErrors();
    return false;
  }
  STACK_OF(X509)* members = X509_STORE_CTX_get0_chain(context.get());
  if (members == nullptr) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error, "Cert::CaChain failed to extract CA chain");
    LogAllOpenSslErrors();
    return false;
  }
  const int count = sk_X509_num(members);
  // A reservation of the chain's size in total, not of that many more.
  chain.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    Thumbprint thumbprint{};
    if (!GetThumbprintForX509Cert(sk_X509_value(members, i), &thumbprint)) {
      SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                                "Cert::CaChain failed to get certificate thumprint");
      LogAllOpenSslErrors();
      return false;
    }
    chain.push_back(thumbprint);
  }
  return true;
}

}  // namespace quorvant::shared::x509
