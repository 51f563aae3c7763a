#include "cert/Asn1Time.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>

namespace quorvant::shared::x509 {
namespace {

struct Asn1StringFree {
  void operator()(ASN1_STRING* p) const { ASN1_STRING_free(p); }
};
using Asn1StringPtr = std::unique_ptr<ASN1_STRING, Asn1StringFree>;

Asn1StringPtr MakeTime(int type, const std::string& text) {
  Asn1StringPtr time(ASN1_STRING_type_new(type));
  ASN1_STRING_set(time.get(), text.data(), static_cast<int>(text.size()));
  return time;
}

// Seconds since the epoch of these fields read as UTC, computed without mktime.
std::time_t Utc(int year, int month, int day, int hour, int minute, int second) {
  std::tm fields{};
  fields.tm_year = year - 1900;
  fields.tm_mon = month - 1;
  fields.tm_mday = day;
  fields.tm_hour = hour;
  fields.tm_min = minute;
  fields.tm_sec = second;
  return timegm(&fields);
}

// Every test runs in a zone three hours east of UTC without daylight saving,
// so a conversion that used UTC would be off by 10800 seconds.
class Asn1TimeTest : public ::testing::Test {
 protected:
  static constexpr std::time_t k_offset = 3 * 3600;
  void SetUp() override { SetZone("XST-3"); }
  void TearDown() override {
    unsetenv("TZ");
    tzset();
  }
  static void SetZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
};

// Times shorter than their layout come from certificates OpenSSL parses all
// the same; they must give -1 without a byte past their end being read
// (the sanitizer builds see such a read).
TEST_F(Asn1TimeTest, UtcTimeShorterThanItsLayoutGivesMinusOne) {
  EXPECT_EQ(ConvertAsn1TimeToTimeT(MakeTime(V_ASN1_UTCTIME, "2501").get()), -1);
  EXPECT_EQ(ConvertAsn1TimeToTimeT(MakeTime(V_ASN1_UTCTIME, "25010112000").get()), -1);
  EXPECT_EQ(ConvertAsn1TimeToTimeT(MakeTime(V_ASN1_UTCTIME, "").get()), -1);
}

TEST_F(Asn1TimeTest, GeneralizedTimeShorterThanItsLayoutGivesMinusOne) {
  EXPECT_EQ(ConvertAsn1TimeToTimeT(MakeTime(V_ASN1_GENERALIZEDTIME, "2025010112000").get()), -1);
  EXPECT_EQ(ConvertAsn1TimeToTimeT(MakeTime(V_ASN1_GENERALIZEDTIME, "Z").get()), -1);
}

TEST_F(Asn1TimeTest, OtherTypeShorterThanItsLayoutGivesMinusOne) {
  EXPECT_EQ(ConvertAsn1TimeToTimeT(MakeTime(V_ASN1_OCTET_STRING, "061512003").get()), -1);
}

TEST_F(Asn1TimeTest, TimesOfExactlyTheirLayoutLengthAreRead) {
  EXPECT_EQ(ConvertAsn1TimeToTimeT(MakeTime(V_ASN1_UTCTIME, "240229133007").get()),
            Utc(2024, 2, 29, 13, 30, 7) - k_offset);
  EXPECT_EQ(ConvertAsn1TimeToTimeT(MakeTime(V_ASN1_GENERALIZEDTIME, "20240229133007").get()),
            Utc(2024, 2, 29, 13, 30, 7) - k_offset);
}

TEST_F(Asn1TimeTest, UtcTimeIsReadAsLocalTime) {
  EXPECT_EQ(ConvertAsn1TimeToTimeT(MakeTime(V_ASN1_UTCTIME, "240229133007Z").get()),
            Utc(2024, 2, 29, 13, 30, 7) - k_offset);
}

TEST_F(Asn1TimeTest, UtcTimeYear69IsInThe2000s) {
  EXPECT_EQ(ConvertAsn1TimeToTimeT(MakeTime(V_ASN1_UTCTIME, "690615120000Z").get()),
            Utc(2069, 6, 15, 12, 0, 0) - k_offset);
}

TEST_F(Asn1TimeTest, UtcTimeYear70IsInThe1900s) {
  EXPECT_EQ(ConvertAsn1TimeToTimeT(MakeTime(V_ASN1_UTCTIME, "700101000000Z").get()),
            Utc(1970, 1, 1, 0, 0, 0) - k_offset);
}

TEST_F(Asn1TimeTest, UtcTimeYear50IsIn2050NotIn1950) {
  EXPECT_EQ(ConvertAsn1TimeToTimeT(MakeTime(V_ASN1_UTCTIME, "500101000000Z").get()),
            Utc(2050, 1, 1, 0, 0, 0) - k_offset);
}

TEST_F(Asn1TimeTest, UtcTimeYear99IsIn1999) {
  EXPECT_EQ(ConvertAsn1TimeToTimeT(MakeTime(V_ASN1_UTCTIME, "991231235959Z").get()),
            Utc(1999, 12, 31, 23, 59, 59) - k_offset);
}

TEST_F(Asn1TimeTest, GeneralizedTimeIsReadAsLocalTime) {
  EXPECT_EQ(ConvertAsn1TimeToTimeT(MakeTime(V_ASN1_GENERALIZEDTIME, "20500102030405Z").get()),
            Utc(2050, 1, 2, 3, 4, 5) - k_offset);
}

TEST_F(Asn1TimeTest, GeneralizedTimeBefore1950KeepsItsCentury) {
  EXPECT_EQ(ConvertAsn1TimeToTimeT(MakeTime(V_ASN1_GENERALIZEDTIME, "19491231235959Z").get()),
            Utc(1949, 12, 31, 23, 59, 59) - k_offset);
}

TEST_F(Asn1TimeTest, FractionsAndZoneOffsetsAfterTheSecondsAreIgnored) {
  EXPECT_EQ(ConvertAsn1TimeToTimeT(MakeTime(V_ASN1_GENERALIZEDTIME, "20300405060708.999-0500").get()),
            Utc(2030, 4, 5, 6, 7, 8) - k_offset);
  EXPECT_EQ(ConvertAsn1TimeToTimeT(MakeTime(V_ASN1_UTCTIME, "300405060708+1100").get()),
            Utc(2030, 4, 5, 6, 7, 8) - k_offset);
}

TEST_F(Asn1TimeTest, OtherTypesAreReadAsMonthDayTimeInTheYear1900) {
  EXPECT_EQ(ConvertAsn1TimeToTimeT(MakeTime(V_ASN1_OCTET_STRING, "0615120030").get()),
            Utc(1900, 6, 15, 12, 0, 30) - k_offset);
  EXPECT_EQ(ConvertAsn1TimeToTimeT(MakeTime(V_ASN1_IA5STRING, "1231235959Z").get()),
            Utc(1900, 12, 31, 23, 59, 59) - k_offset);
}

TEST_F(Asn1TimeTest, FieldsOutOfRangeAreNormalisedNotRejected) {
  // Month 13 and second 60 are not validated; mktime carries them over.
  EXPECT_EQ(ConvertAsn1TimeToTimeT(MakeTime(V_ASN1_UTCTIME, "301301000060Z").get()),
            Utc(2031, 1, 1, 0, 1, 0) - k_offset);
}

TEST_F(Asn1TimeTest, DaylightSavingIsMarkedNotInEffect) {
  // Central Europe: UTC+1, UTC+2 in summer. The fields are read as standard
  // time even in July, because the daylight-saving flag starts at zero.
  SetZone("CET-1CEST,M3.5.0,M10.5.0/3");
  EXPECT_EQ(ConvertAsn1TimeToTimeT(MakeTime(V_ASN1_UTCTIME, "300715120000Z").get()),
            Utc(2030, 7, 15, 12, 0, 0) - 3600);
  EXPECT_EQ(ConvertAsn1TimeToTimeT(MakeTime(V_ASN1_UTCTIME, "300115120000Z").get()),
            Utc(2030, 1, 15, 12, 0, 0) - 3600);
}

TEST_F(Asn1TimeTest, UtcZoneGivesTheUtcValue) {
  SetZone("UTC0");
  EXPECT_EQ(ConvertAsn1TimeToTimeT(MakeTime(V_ASN1_GENERALIZEDTIME, "20380119031408Z").get()),
            Utc(2038, 1, 19, 3, 14, 8));
}

}  // namespace
}  // namespace quorvant::shared::x509
