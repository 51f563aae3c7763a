#include "keystore/CertificateRecords.h"

#include <stdexcept>
#include <variant>

#include "base/SafeCallbacksWrapper.h"
#include "cert/CertFileContext.h"
#include "cert/ICertificate.h"
#include "cert/Libp11CertContext.h"
#include "keystore/OfferDecision.h"

namespace quorvant::shared::x509 {

namespace {

constexpr auto k_warning = X509_Auth_LogPriority_Warning;
constexpr auto k_error = X509_Auth_LogPriority_Error;

}  // namespace

namespace {

// The lines naming a certificate and where it came from.
void LogSource(const CertificateWrapper& wrapper) {
  SafeCallbacksWrapper::Log(k_warning, "cert: [%s]", wrapper.name.c_str());
  if (wrapper.cert_type == X509_Auth_CertificateType_FileBased) {
    SafeCallbacksWrapper::Log(k_warning, "cert type: [%d] FileBased",
                              static_cast<int>(wrapper.cert_type));
  } else if (wrapper.cert_type == X509_Auth_CertificateType_SmartCard) {
    SafeCallbacksWrapper::Log(k_warning,
                              "Keys Path not returned for smart card, request separately");
  } else {
    SafeCallbacksWrapper::Log(k_warning, "cert type: [%d]", static_cast<int>(wrapper.cert_type));
  }
}

// Completes |wrapper| from |decision|; false, after the listing's line,
// when it is not offered.
bool Conclude(const OfferDecision& decision, CertificateWrapper* wrapper) {
  if (!decision.chained) {
    SafeCallbacksWrapper::Log(k_error, "Failed to get CA chain for a certificate");
    return false;
  }
  if (!decision.has_thumbprint) {
    SafeCallbacksWrapper::Log(k_error, "Failed to get thumbprint for a certificate");
    return false;
  }
  wrapper->ca_chain = decision.chain;
  wrapper->thumbprint = decision.thumbprint;
  return true;
}

}  // namespace

void CertificateRecords::DescribeSource(const ICertificate& cert, CertificateWrapper* wrapper) {
  wrapper->name = cert.Name();
  wrapper->issuer_name = cert.IssuerName();
  wrapper->not_before = cert.NotBefore();
  wrapper->not_after = cert.NotAfter();
  wrapper->supports_smart_card = cert.SupportsSmartCard();
  wrapper->encoded = cert.Encode();
  wrapper->key_algorithm_group = static_cast<std::uint32_t>(cert.PublicKeyAlgorithmGroup());
  const CertContext& context = cert.GetContext();
  if (const auto* file = std::get_if<std::unique_ptr<CertFileContext>>(&context)) {
    wrapper->cert_type = X509_Auth_CertificateType_FileBased;
    wrapper->key_path = (*file)->key_path.string();
  } else if (std::holds_alternative<std::unique_ptr<Libp11CertContext>>(context)) {
    wrapper->cert_type = X509_Auth_CertificateType_SmartCard;
  } else {
    wrapper->cert_type = X509_Auth_CertificateType_Other;
  }
  LogSource(*wrapper);
}

bool CertificateRecords::Describe(const ICertificate& cert, const ICertificateStore* added,
                                  ChainBuilder& builder, KeptOfferDecisions& kept,
                                  const std::string& trust, CertificateWrapper* wrapper) {
  if (const KeptOfferDecisions::Kept* found = kept.Find(cert, trust)) {
    *wrapper = found->described;
    LogSource(*wrapper);
    // The chain builder's line, as it wrote it when the decision was taken.
    const ChainBuilder::Failure& failure = found->decision.chain_failure;
    if (!found->decision.chained && failure.verification)
      SafeCallbacksWrapper::Log(k_warning,
                                "Cert::CaChain X509_verify_cert failed. Error code: [%i], Error "
                                "message: [%s], Error depth: [%i]",
                                failure.verify_error, failure.message.c_str(), failure.depth);
    return Conclude(found->decision, wrapper);
  }
  DescribeSource(cert, wrapper);
  const OfferDecision decision =
      DecideOffer(cert, added, builder, OfferDecision::Reasons::k_until_refused);
  kept.Keep(cert, trust, *wrapper, decision, builder);
  return Conclude(decision, wrapper);
}

std::vector<X509_Auth_Certificate> CertificateRecords::Records(
    std::vector<CertificateWrapper>& wrappers) {
  std::vector<X509_Auth_Certificate> records;
  // Sized once: the records' addresses are handed out and must never move.
  records.reserve(wrappers.size());
  for (CertificateWrapper& wrapper : wrappers) {
    wrapper.ca_chain_pointers.clear();
    for (const Thumbprint& member : wrapper.ca_chain)
      wrapper.ca_chain_pointers.push_back(member.data());
    if (wrapper.key_algorithm_group > 2) throw std::invalid_argument("Unimplemented");
    X509_Auth_Certificate record{};
    record.name = wrapper.name.c_str();
    record.issuer_name = wrapper.issuer_name.c_str();
    record.not_before = wrapper.not_before;
    record.not_after = wrapper.not_after;
    record.smart_card = wrapper.supports_smart_card ? 1 : 0;
    record.padding = 0;
    record.thumbprint = wrapper.thumbprint.data();
    record.encoded_length = wrapper.encoded.size();
    record.encoded = wrapper.encoded.data();
    record.ca_chain_count = wrapper.ca_chain_pointers.size();
    record.ca_chain = wrapper.ca_chain_pointers.data();
    record.key_algorithm_group = wrapper.key_algorithm_group;
    record.cert_type = wrapper.cert_type;
    record.key_path = wrapper.key_path.c_str();
    record.reserved = wrapper.reserved;
    records.push_back(record);
  }
  return records;
}

}  // namespace quorvant::shared::x509
