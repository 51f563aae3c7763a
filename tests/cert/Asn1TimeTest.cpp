#include <gtest/gtest.h>

#include <ctime>
#include <memory>
#include <ostream>
#include <string>

#include "LocalTimeZone.h"
#include "base/OpenSslPtr.h"
#include "cert/Asn1Time.h"

namespace quorvant::shared::x509 {
namespace {

using test::East;
using test::k_east;
using test::Utc;

// Central Europe: UTC+1, UTC+2 in summer.
constexpr const char* k_cet = "CET-1CEST,M3.5.0,M10.5.0/3";

struct TimeCase {
  const char* name;
  const char* zone;
  int type;
  const char* text;
  // The expected result: -1, or UTC fields less the zone's offset.
  std::time_t expected;
};

void PrintTo(const TimeCase& c, std::ostream* out) { *out << c.name << " \"" << c.text << "\""; }

const TimeCase k_cases[] = {
    // Times shorter than their layout come from certificates OpenSSL parses
    // all the same; they must give -1 without a byte past their end being
    // read (the sanitizer builds see such a read).
    {"UtcTimeShorterThanItsLayout", k_east, V_ASN1_UTCTIME, "2501", -1},
    {"UtcTimeOneShortOfItsLayout", k_east, V_ASN1_UTCTIME, "25010112000", -1},
    {"EmptyUtcTime", k_east, V_ASN1_UTCTIME, "", -1},
    {"GeneralizedTimeShorterThanItsLayout", k_east, V_ASN1_GENERALIZEDTIME, "2025010112000", -1},
    {"GeneralizedTimeOfOnlyAZone", k_east, V_ASN1_GENERALIZEDTIME, "Z", -1},
    {"OtherTypeShorterThanItsLayout", k_east, V_ASN1_OCTET_STRING, "061512003", -1},
    {"UtcTimeOfExactlyItsLayoutLength", k_east, V_ASN1_UTCTIME, "240229133007",
     East(2024, 2, 29, 13, 30, 7)},
    {"GeneralizedTimeOfExactlyItsLayoutLength", k_east, V_ASN1_GENERALIZEDTIME, "20240229133007",
     East(2024, 2, 29, 13, 30, 7)},
    {"UtcTimeIsReadAsLocalTime", k_east, V_ASN1_UTCTIME, "240229133007Z",
     East(2024, 2, 29, 13, 30, 7)},
    {"UtcTimeYear69IsInThe2000s", k_east, V_ASN1_UTCTIME, "690615120000Z",
     East(2069, 6, 15, 12, 0, 0)},
    {"UtcTimeYear70IsInThe1900s", k_east, V_ASN1_UTCTIME, "700101000000Z",
     East(1970, 1, 1, 0, 0, 0)},
    {"UtcTimeYear50IsIn2050NotIn1950", k_east, V_ASN1_UTCTIME, "500101000000Z",
     East(2050, 1, 1, 0, 0, 0)},
    {"UtcTimeYear99IsIn1999", k_east, V_ASN1_UTCTIME, "991231235959Z",
     East(1999, 12, 31, 23, 59, 59)},
    {"GeneralizedTimeIsReadAsLocalTime", k_east, V_ASN1_GENERALIZEDTIME, "20500102030405Z",
     East(2050, 1, 2, 3, 4, 5)},
    {"GeneralizedTimeBefore1950KeepsItsCentury", k_east, V_ASN1_GENERALIZEDTIME, "19491231235959Z",
     East(1949, 12, 31, 23, 59, 59)},
    // Fractions and zone offsets after the seconds are ignored.
    {"GeneralizedTimeFractionAndOffsetAreIgnored", k_east, V_ASN1_GENERALIZEDTIME,
     "20300405060708.999-0500", East(2030, 4, 5, 6, 7, 8)},
    {"UtcTimeOffsetIsIgnored", k_east, V_ASN1_UTCTIME, "300405060708+1100",
     East(2030, 4, 5, 6, 7, 8)},
    // Other types are read as month, day and time in the year 1900.
    {"OtherTypeIsReadInTheYear1900", k_east, V_ASN1_OCTET_STRING, "0615120030",
     East(1900, 6, 15, 12, 0, 30)},
    {"OtherTypeWithAZoneIsReadInTheYear1900", k_east, V_ASN1_IA5STRING, "1231235959Z",
     East(1900, 12, 31, 23, 59, 59)},
    // Month 13 and second 60 are not validated; mktime carries them over.
    {"FieldsOutOfRangeAreNormalisedNotRejected", k_east, V_ASN1_UTCTIME, "301301000060Z",
     East(2031, 1, 1, 0, 1, 0)},
    // The fields are read as standard time even in July, because the
    // daylight-saving flag starts at zero.
    {"DaylightSavingIsMarkedNotInEffectInSummer", k_cet, V_ASN1_UTCTIME, "300715120000Z",
     Utc(2030, 7, 15, 12, 0, 0) - 3600},
    {"DaylightSavingIsMarkedNotInEffectInWinter", k_cet, V_ASN1_UTCTIME, "300115120000Z",
     Utc(2030, 1, 15, 12, 0, 0) - 3600},
    {"UtcZoneGivesTheUtcValue", "UTC0", V_ASN1_GENERALIZEDTIME, "20380119031408Z",
     Utc(2038, 1, 19, 3, 14, 8)},
};

// Each case runs in its own zone, restored to the process's default after.
class Asn1TimeTest : public ::testing::TestWithParam<TimeCase> {
 protected:
  test::ScopedTimeZone zone_{GetParam().zone};
};

TEST_P(Asn1TimeTest, ConvertsAsTheTableSays) {
  const TimeCase& c = GetParam();
  const std::string text = c.text;
  const Asn1StringPtr time(ASN1_STRING_type_new(c.type));
  ASSERT_TRUE(time);
  ASN1_STRING_set(time.get(), text.data(), static_cast<int>(text.size()));
  EXPECT_EQ(ConvertAsn1TimeToTimeT(time.get()), c.expected);
}

INSTANTIATE_TEST_SUITE_P(Table, Asn1TimeTest, ::testing::ValuesIn(k_cases),
                         [](const ::testing::TestParamInfo<TimeCase>& info) {
                           return std::string(info.param.name);
                         });

}  // namespace
}  // namespace quorvant::shared::x509
