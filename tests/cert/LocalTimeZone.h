#pragma once
// Certificate times are read as local time: these tests read them in a zone
// of their choosing and compute what they expect without mktime.
#include <cstdlib>
#include <ctime>

namespace quorvant::shared::x509::test {

// Seconds since the epoch of these fields read as UTC, computed without mktime.
inline std::time_t Utc(int year, int month, int day, int hour, int minute, int second) {
  std::tm fields{};
  fields.tm_year = year - 1900;
  fields.tm_mon = month - 1;
  fields.tm_mday = day;
  fields.tm_hour = hour;
  fields.tm_min = minute;
  fields.tm_sec = second;
  return timegm(&fields);
}

// A zone three hours east of UTC without daylight saving, so that a
// conversion that used UTC would be off by 10800 seconds.
constexpr const char* k_east = "XST-3";
constexpr std::time_t k_east_offset = 3 * 3600;

// These fields read as local time in |k_east|.
inline std::time_t East(int year, int month, int day, int hour, int minute, int second) {
  return Utc(year, month, day, hour, minute, second) - k_east_offset;
}

// TZ set to |zone| for its lifetime, then back to the process's default.
class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
  ~ScopedTimeZone() {
    unsetenv("TZ");
    tzset();
  }
  ScopedTimeZone(const ScopedTimeZone&) = delete;
  ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;
};

}  // namespace quorvant::shared::x509::test
