#pragma once
// Text forms shared by the commands' human and JSON output.
#include <cstddef>
#include <cstdint>
#include <string>

#include "x509_auth.h"

namespace x509auth_tool {

// |text| as it may be shown to a person: control characters (C0, DEL, C1),
// bytes that are not UTF-8, and the marks that reverse the direction of
// text are written as escapes (\x1b, \n, \u202e), and a backslash as \\,
// so a name taken from a certificate, a token or a file name can neither
// move the cursor, repaint the terminal nor start a line of its own. Text
// for programs (JSON) escapes in its own way and does not go through here.
std::string Printable(const std::string& text);

// Lowercase hex of |length| bytes.
std::string Hex(const uint8_t* bytes, std::size_t length);
// The record's 40-digit thumbprint.
std::string ThumbprintHex(const X509_Auth_Certificate& record);
// Seconds since the epoch as "YYYY-MM-DDThh:mm:ssZ" (UTC).
std::string IsoTime(int64_t seconds);
// "file", "smartcard" or "other".
const char* SourceName(X509_Auth_CertificateType type);
// "rsa", "ec" or "other".
const char* KeyAlgorithmName(X509_Auth_KeyAlgorithmGroup group);
// What a key-operation result code of the library means, in a few words.
std::string ResultCodeMeaning(X509_Auth_ResultCode code);

}  // namespace x509auth_tool
