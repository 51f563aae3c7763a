#include "cert/ChainBuilder.h"

#include <openssl/x509.h>

#include <algorithm>
#include <ctime>

#include "base/SafeCallbacksWrapper.h"
#include "cert/DefaultCaPaths.h"
#include "cert/X509StoreBatch.h"
#include "files/CertificateFiles.h"

namespace quorvant::shared::x509 {

namespace {

// Verification errors that a CA of the system's CA file could turn into a
// built chain; other failures (dates, signatures, purposes) it cannot.
bool MoreCasCouldHelp(int error) {
  switch (error) {
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT: return true;
    default: return false;
  }
}

// The seconds since the epoch |time| names; false when it cannot be read.
bool Seconds(const ASN1_TIME* time, std::int64_t* seconds) {
  struct tm fields {};
  if (time == nullptr || ASN1_TIME_to_tm(time, &fields) != 1) return false;
  *seconds = static_cast<std::int64_t>(timegm(&fields));
  return true;
}

// The earliest moment after |now| at which a member of |members| becomes
// valid or expires: a verification then may end otherwise.
std::int64_t NextDateChange(STACK_OF(X509) * members, std::int64_t now) {
  std::int64_t next = ChainBuilder::k_never;
  for (int i = 0; i < sk_X509_num(members); ++i) {
    const X509* member = sk_X509_value(members, i);
    std::int64_t seconds = 0;
    // Unreadable dates leave nothing to keep the outcome by.
    if (!Seconds(X509_get0_notBefore(member), &seconds)) return 0;
    if (seconds > now) next = std::min(next, seconds);
    if (!Seconds(X509_get0_notAfter(member), &seconds)) return 0;
    if (seconds >= now) next = std::min(next, seconds + 1);
  }
  return next;
}

}  // namespace

ChainBuilder::ChainBuilder() = default;

ChainBuilder::~ChainBuilder() = default;

bool ChainBuilder::Prepare(X509_STORE* own, X509_STORE* extra) {
  if (trusted_ && own == own_ && extra == extra_) return true;
  trusted_.reset(X509_STORE_new());
  own_ = nullptr;
  extra_ = nullptr;
  if (!trusted_ || own == nullptr) {
    trusted_.reset();
    last_failure_ = Failure{false, 0, 0, "Cert::CaChain failed to create new X509 store context"};
    LogWithOpenSslErrors(X509_Auth_LogPriority_Error,
                         "Cert::CaChain failed to create new X509 store context");
    return false;
  }
  {
    X509StoreBatch batch(trusted_.get());
    batch.AddCertificatesOf(own);
    if (extra != nullptr) batch.AddCertificatesOf(extra);
  }
  DefaultCaPaths::SetOn(trusted_.get());
  ca_file_added_ = false;
  own_ = own;
  extra_ = extra;
  return true;
}

bool ChainBuilder::InitContext(X509_STORE_CTX* context, X509* cert) {
  if (X509_STORE_CTX_init(context, trusted_.get(), cert, nullptr) == 1) return true;
  last_failure_ = Failure{false, 0, 0, "Cert::CaChain failed to create new X509 store context"};
  LogWithOpenSslErrors(X509_Auth_LogPriority_Error,
                       "Cert::CaChain failed to create new X509 store context");
  return false;
}

bool ChainBuilder::CaChain(X509* cert, X509_STORE* own, X509_STORE* extra,
                           std::vector<Thumbprint>& chain) {
  last_changes_at_ = 0;
  X509StoreCtxPtr context(X509_STORE_CTX_new());
  if (!context) {
    last_failure_ = Failure{false, 0, 0, "Cert::CaChain X509_STORE_CTX_new failed"};
    LogWithOpenSslErrors(X509_Auth_LogPriority_Warning, "Cert::CaChain X509_STORE_CTX_new failed");
    return false;
  }
  if (!Prepare(own, extra)) return false;

  if (!InitContext(context.get(), cert)) return false;
  int verified = X509_verify_cert(context.get());
  if (verified != 1 && !ca_file_added_ &&
      MoreCasCouldHelp(X509_STORE_CTX_get_error(context.get()))) {
    // Built as if the system's CA file had been in the store from the start:
    // it joins now, once for this trusted store, and the chain is built again.
    DefaultCaPaths::AddCaFile(trusted_.get());
    ca_file_added_ = true;
    X509_STORE_CTX_cleanup(context.get());
    if (!InitContext(context.get(), cert)) return false;
    verified = X509_verify_cert(context.get());
  }
  const std::int64_t now = static_cast<std::int64_t>(std::time(nullptr));
  if (STACK_OF(X509)* tried = X509_STORE_CTX_get0_chain(context.get()); tried != nullptr)
    last_changes_at_ = NextDateChange(tried, now);
  if (verified != 1) {
    const int error = X509_STORE_CTX_get_error(context.get());
    const int depth = X509_STORE_CTX_get_error_depth(context.get());
    last_failure_ = Failure{true, error, depth, X509_verify_cert_error_string(error)};
    LogWithOpenSslErrors(X509_Auth_LogPriority_Warning,
                         "Cert::CaChain X509_verify_cert failed. Error code: [%i], Error "
                         "message: [%s], Error depth: [%i]",
                         error, X509_verify_cert_error_string(error), depth);
    return false;
  }
  STACK_OF(X509)* members = X509_STORE_CTX_get0_chain(context.get());
  if (members == nullptr) {
    last_failure_ = Failure{false, 0, 0, "Cert::CaChain failed to extract CA chain"};
    LogWithOpenSslErrors(X509_Auth_LogPriority_Error, "Cert::CaChain failed to extract CA chain");
    return false;
  }
  const int count = sk_X509_num(members);
  // A reservation of the chain's size in total, not of that many more.
  chain.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    Thumbprint thumbprint{};
    if (!GetThumbprintForX509Cert(sk_X509_value(members, i), &thumbprint)) {
      last_failure_ = Failure{false, 0, 0, "Cert::CaChain failed to get certificate thumprint"};
      LogWithOpenSslErrors(X509_Auth_LogPriority_Error,
                           "Cert::CaChain failed to get certificate thumprint");
      return false;
    }
    chain.push_back(thumbprint);
  }
  return true;
}

}  // namespace quorvant::shared::x509
