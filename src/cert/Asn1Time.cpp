#include "cert/Asn1Time.h"

namespace quorvant::shared::x509 {

namespace {

int TwoDigits(const unsigned char* data, int at) {
  return (data[at] - '0') * 10 + (data[at + 1] - '0');
}

}  // namespace

std::time_t ConvertAsn1TimeToTimeT(const ASN1_TIME* time) {
  const int type = ASN1_STRING_type(time);
  const unsigned char* data = ASN1_STRING_get0_data(time);
  // OpenSSL parses a certificate whose time is shorter than its layout; the
  // digits that are not there are never read, and the time is mktime's own
  // "not representable" value instead.
  const int needed = type == V_ASN1_UTCTIME ? 12 : type == V_ASN1_GENERALIZEDTIME ? 14 : 10;
  if (data == nullptr || ASN1_STRING_length(time) < needed) return static_cast<std::time_t>(-1);
  // All fields zero: daylight saving is marked as not in effect, so mktime
  // reads the fields as standard local time.
  std::tm fields{};
  if (type == V_ASN1_UTCTIME) {
    // Years up to 69 belong to this century; the pivot is 70 on purpose,
    // not RFC 5280's 50.
    const int year = TwoDigits(data, 0);
    fields.tm_year = year <= 69 ? year + 100 : year;
    fields.tm_mon = TwoDigits(data, 2) - 1;
    fields.tm_mday = TwoDigits(data, 4);
    fields.tm_hour = TwoDigits(data, 6);
    fields.tm_min = TwoDigits(data, 8);
    fields.tm_sec = TwoDigits(data, 10);
  } else if (type == V_ASN1_GENERALIZEDTIME) {
    fields.tm_year = TwoDigits(data, 0) * 100 + TwoDigits(data, 2) - 1900;
    fields.tm_mon = TwoDigits(data, 4) - 1;
    fields.tm_mday = TwoDigits(data, 6);
    fields.tm_hour = TwoDigits(data, 8);
    fields.tm_min = TwoDigits(data, 10);
    fields.tm_sec = TwoDigits(data, 12);
  } else {
    // Anything else is read without a year, which therefore stays 1900.
    fields.tm_mon = TwoDigits(data, 0) - 1;
    fields.tm_mday = TwoDigits(data, 2);
    fields.tm_hour = TwoDigits(data, 4);
    fields.tm_min = TwoDigits(data, 6);
    fields.tm_sec = TwoDigits(data, 8);
  }
  return std::mktime(&fields);
}

}  // namespace quorvant::shared::x509
