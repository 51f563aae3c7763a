#pragma once
#include <openssl/asn1.h>

#include <ctime>

namespace quorvant::shared::x509 {

// ConvertAsn1TimeToTimeT reads a certificate validity time by hand and returns
// mktime of it, so the fields count as local time. UTCTime years pivot at 70;
// any type other than UTCTime or GeneralizedTime is read as MMDDhhmmss in the
// year 1900. No digit is checked; a time shorter than its layout (12, 14 or
// 10 characters) gives -1 without being read.
std::time_t ConvertAsn1TimeToTimeT(const ASN1_TIME* time);

}  // namespace quorvant::shared::x509
