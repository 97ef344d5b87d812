#pragma once

#include <cstdint>

namespace mpl::dash {

// The calendar date of an xs:dateTime (XML Schema part 2).
//
// parse, here and in its sister types, reads from the start of a C string and never throws. On
// success it sets `end`, when given, just past what it consumed; on failure it returns
// `defaultValue` and sets `end` to `text`. Numbers are unsigned decimal; one that does not fit 32
// bits is no number.
struct XSDate {
  uint32_t year = 0;
  uint32_t month = 0;
  uint32_t day = 0;

  // Year, month 1-12, day 1-31. How many days the month has is not looked at.
  static XSDate parse(const char* text, const char** end, const XSDate& defaultValue);

  bool isLeapYear() const { return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0); }
  // Midnight UTC; -1 before 1970.
  int64_t inWholeSecondsSinceEpoch() const;

  bool operator==(const XSDate&) const = default;
};

}  // namespace mpl::dash
