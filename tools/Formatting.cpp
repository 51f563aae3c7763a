#include "Formatting.h"

#include <cstdio>
#include <ctime>

namespace x509auth_tool {

namespace {

// The length of the UTF-8 sequence at |at| and its code point; 0 when the
// bytes there are not one (bad lead, bad continuation, overlong, surrogate,
// beyond U+10FFFF).
std::size_t Utf8Sequence(const std::string& text, std::size_t at, uint32_t& code) {
  const unsigned char lead = static_cast<unsigned char>(text[at]);
  std::size_t length;
  uint32_t minimum;
  if (lead >= 0xc2 && lead <= 0xdf) {
    length = 2, minimum = 0x80, code = lead & 0x1fu;
  } else if (lead >= 0xe0 && lead <= 0xef) {
    length = 3, minimum = 0x800, code = lead & 0x0fu;
  } else if (lead >= 0xf0 && lead <= 0xf4) {
    length = 4, minimum = 0x10000, code = lead & 0x07u;
  } else {
    return 0;
  }
  if (at + length > text.size()) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    const unsigned char next = static_cast<unsigned char>(text[at + i]);
    if ((next & 0xc0) != 0x80) return 0;
    code = (code << 6) | (next & 0x3fu);
  }
  if (code < minimum || code > 0x10ffff || (code >= 0xd800 && code <= 0xdfff)) return 0;
  return length;
}

// Embedding, override and isolate marks: they reorder what follows them.
bool ReordersText(uint32_t code) {
  return (code >= 0x202a && code <= 0x202e) || (code >= 0x2066 && code <= 0x2069);
}

void AppendByteEscape(std::string& out, unsigned char byte) {
  static const char digits[] = "0123456789abcdef";
  out += "\\x";
  out += digits[byte >> 4];
  out += digits[byte & 15];
}

}  // namespace

std::string Printable(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const unsigned char byte = static_cast<unsigned char>(text[at]);
    if (byte >= 0x20 && byte < 0x7f) {
      if (byte == '\\') out += '\\';
      out += static_cast<char>(byte);
      ++at;
      continue;
    }
    switch (byte) {
      case '\n': out += "\\n", ++at; continue;
      case '\r': out += "\\r", ++at; continue;
      case '\t': out += "\\t", ++at; continue;
      default: break;
    }
    uint32_t code = 0;
    const std::size_t length = byte >= 0x80 ? Utf8Sequence(text, at, code) : 0;
    if (length == 0 || code < 0xa0) {
      // A C0 or C1 control, DEL, or a byte that starts no UTF-8 character.
      for (std::size_t i = 0; i < (length == 0 ? 1 : length); ++i)
        AppendByteEscape(out, static_cast<unsigned char>(text[at + i]));
      at += length == 0 ? 1 : length;
    } else if (ReordersText(code)) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(code));
      out += escape;
      at += length;
    } else {
      out.append(text, at, length);
      at += length;
    }
  }
  return out;
}

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
