#include "mpl/dash/XSDate.h"

#include "mpl/Numbers.h"

namespace mpl::dash {

XSDate XSDate::parse(const char* text, const char** end, const XSDate& defaultValue) {
  if (end) *end = text;
  const char* at = text;
  XSDate date;
  if (!readDigits(at, date.year) || *at++ != '-') return defaultValue;
  if (!readDigits(at, date.month) || date.month < 1 || date.month > 12) return defaultValue;
  if (*at++ != '-') return defaultValue;
  if (!readDigits(at, date.day) || date.day < 1 || date.day > 31) return defaultValue;
  if (end) *end = at;
  return date;
}

int64_t XSDate::inWholeSecondsSinceEpoch() const {
  if (year < 1970) return -1;
  const int64_t y = year;
  const int64_t m = month;
  int64_t days = (y - 1970) * 365 + (y - 1969) / 4 - (y - 1901) / 100 + (y - 1601) / 400;
  if (month >= 3) {
    days += (isLeapYear() ? 60 : 59) + ((489 * m - 1456) >> 4);
  } else {
    days += (489 * m - 481) >> 4;
  }
  return (days + day - 1) * 86400;
}

}  // namespace mpl::dash
