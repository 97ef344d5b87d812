#pragma once

#include <compare>
#include <cstdint>
#include <ostream>

#include "qnc/qncFastString.h"

namespace qnc {

struct TimeZoneInfo;

// A calendar date and time from year 1601 to 30827, packed into one 64-bit word: milliseconds in
// bits 0-9, seconds 10-15, minutes 16-21, hours 22-26, day 27-31, month 32-35, year 36-50. Setters
// clamp and never refuse; they depend on what is set already (the day is clamped to the length of
// the month). Hours are clamped to 59 and not masked, so hours of 32 and more reach into the day.
// Comparisons are those of the word.
class DateTime {
 public:
  // 1601-01-01T00:00:00.000, the null date-time.
  static constexpr uint64_t kNullRaw = 0x641108000000;
  static constexpr uint32_t nDaysInMonth[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  static constexpr uint32_t nDaysInYearByBegninningOfMonth[13] = {0,   31,  59,  90,  120, 151, 181,
                                                                  212, 243, 273, 304, 334, 365};

  // Every field of the word is read and set again, so that 0 becomes the null date-time.
  explicit DateTime(uint64_t raw = 0);
  DateTime(uint32_t year, uint32_t month, uint32_t day, uint32_t hours = 0, uint32_t minutes = 0,
           uint32_t seconds = 0, uint32_t milliseconds = 0);

  uint32_t year() const;
  uint32_t month() const;
  uint32_t day() const;
  uint32_t hours() const;
  uint32_t minutes() const;
  uint32_t seconds() const;
  uint32_t milliseconds() const;
  void setYear(uint32_t year);
  void setMonth(uint32_t month);
  void setDay(uint32_t day);
  void setHours(uint32_t hours);
  void setMinutes(uint32_t minutes);
  void setSeconds(uint32_t seconds);
  void setMilliseconds(uint32_t milliseconds);

  uint64_t getRaw() const { return raw_; }
  bool isNull() const { return raw_ == kNullRaw; }

  bool isLeapYear() const { return isLeapYear(year()); }
  static bool isLeapYear(uint64_t year);
  // Leap years from `since` up to but without `year`; 0 when year <= since or either is 0.
  static uint64_t numLeapYearsBefore(uint64_t year, uint64_t since = 1);
  static uint64_t getMsInYear(uint32_t year);

  // Since 1601-01-01T00:00:00.000.
  uint64_t toMilliseconds() const;
  static DateTime fromMilliseconds(uint64_t milliseconds);
  // Since 1970-01-01T00:00:00.000; negative before.
  int64_t toMillisecondsSinceEpoch() const;
  // a - b.
  static int64_t getDeltaMs(const DateTime& a, const DateTime& b);
  // Saturates at both ends of the milliseconds.
  void addSeconds(int64_t seconds);

  // "2020-03-04T05:06:07", with ".089" when asked for, and the offset of `zone` when given (no "Z"
  // without one). An offset of less than an hour west reads "+00:mm".
  FastString toXSD(bool withMilliseconds = false, const TimeZoneInfo* zone = nullptr) const;
  // The null date-time, and a logged error, for a text that is no date-time. The zone's offset is
  // added as written, not subtracted: 10:00:00+02:00 is 12:00:00.
  static DateTime fromXSD(const FastString& text);

  bool isAfter(const DateTime& other) const { return raw_ > other.raw_; }
  bool isBefore(const DateTime& other) const { return raw_ < other.raw_; }
  bool operator==(const DateTime&) const = default;
  auto operator<=>(const DateTime&) const = default;

  friend std::ostream& operator<<(std::ostream& stream, const DateTime& dateTime) {
    return stream << dateTime.toXSD();
  }

 private:
  uint32_t field(unsigned shift, unsigned bits) const;
  void setField(unsigned shift, unsigned bits, uint64_t value);

  uint64_t raw_ = 0;
};

}  // namespace qnc
