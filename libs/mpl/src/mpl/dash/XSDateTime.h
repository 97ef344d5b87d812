#pragma once

#include <cstdint>

#include "mpl/dash/XSDate.h"
#include "mpl/dash/XSTimeOfDay.h"
#include "mpl/dash/XSTimeZone.h"

namespace mpl::dash {

// An xs:dateTime whose time zone is mandatory: without one, a text names no point in time.
struct XSDateTime {
  XSDate date;
  XSTimeOfDay timeOfDay;
  XSTimeZone timeZone;

  // The default of the attribute readers; no parsed value equals it.
  static const XSDateTime Invalid;

  XSDateTime(uint32_t year, uint32_t month, uint32_t day, uint32_t hours, uint32_t minutes,
             uint32_t seconds, float fraction, uint32_t timeZoneHours, uint32_t timeZoneMinutes,
             int32_t timeZoneSign)
      : date{year, month, day},
        timeOfDay{hours, minutes, seconds, fraction},
        timeZone{timeZoneHours, timeZoneMinutes, timeZoneSign} {}
  XSDateTime(const XSDate& d, const XSTimeOfDay& t, const XSTimeZone& z)
      : date(d), timeOfDay(t), timeZone(z) {}

  // `end` and `defaultValue` as in XSDate::parse.
  static XSDateTime parse(const char* text, const char** end, const XSDateTime& defaultValue);

  bool isValid() const { return date.month != 0; }
  // -1 when the date lies before 1970.
  int64_t inWholeSecondsSinceEpoch() const;
  // In units of 1/`unit` second; -1 before the epoch and when 64 bits cannot hold it.
  int64_t inUnitsSinceEpoch(int64_t unit) const;
  int64_t inMillisecondsSinceEpoch() const { return inUnitsSinceEpoch(1000); }

  bool operator==(const XSDateTime&) const = default;
};

}  // namespace mpl::dash
