#pragma once

#include <cstdint>

namespace mpl::dash {

// The offset of local time from UTC at the end of an xs:dateTime.
struct XSTimeZone {
  uint32_t hours = 0;
  uint32_t minutes = 0;
  int32_t sign = 1;  // +1 or -1

  static const XSTimeZone UTC;

  // "Z", or a sign, hours below 15 and minutes below 60. `end` and `defaultValue` as in
  // XSDate::parse.
  static XSTimeZone parse(const char* text, const char** end, const XSTimeZone& defaultValue);

  int64_t inWholeSeconds() const;

  bool operator==(const XSTimeZone&) const = default;
};

inline constexpr XSTimeZone XSTimeZone::UTC{0, 0, 1};

}  // namespace mpl::dash
