#include "Formatting.h"

#include <cstdio>
#include <ctime>

namespace x509auth_tool {

std::string Hex(const uint8_t* bytes, std::size_t length) {
  static const char digits[] = "0123456789abcdef";
  std::string text;
  text.reserve(length * 2);
  for (std::size_t i = 0; i < length; ++i) {
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 15];
  }
  return text;
}

std::string ThumbprintHex(const X509_Auth_Certificate& record) {
  return Hex(record.thumbprint, X509_AUTH_THUMBPRINT_LENGTH);
}

std::string IsoTime(int64_t seconds) {
  const std::time_t time = static_cast<std::time_t>(seconds);
  std::tm parts{};
  if (gmtime_r(&time, &parts) == nullptr) return "";
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02dZ", parts.tm_year + 1900,
                parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
  return text;
}

const char* SourceName(X509_Auth_CertificateType type) {
  switch (type) {
    case X509_Auth_CertificateType_FileBased: return "file";
    case X509_Auth_CertificateType_SmartCard: return "smartcard";
    default: return "other";
  }
}

const char* KeyAlgorithmName(X509_Auth_KeyAlgorithmGroup group) {
  switch (group) {
    case X509_Auth_KeyAlgorithmGroup_Rsa: return "rsa";
    case X509_Auth_KeyAlgorithmGroup_Ec: return "ec";
    default: return "other";
  }
}

std::string ResultCodeMeaning(X509_Auth_ResultCode code) {
  switch (code) {
    case X509_Auth_ResultCode_Success: return "success";
    case X509_Auth_ResultCode_KeyOperationFailed: return "the private-key operation failed";
    case X509_Auth_ResultCode_StoreOpenFailed: return "the certificate store could not be opened";
    case X509_Auth_ResultCode_CertificateNotFound: return "no certificate with this thumbprint";
    case X509_Auth_ResultCode_KeyOpenFailed:
      return "the private key could not be opened (missing key file, wrong password or PIN, or "
             "no answer)";
    case X509_Auth_ResultCode_AlgorithmNotSupported:
      return "the key's algorithm is not supported for this operation";
    default: return "unknown result code";
  }
}

}  // namespace x509auth_tool
