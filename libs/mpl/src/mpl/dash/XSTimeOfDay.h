#pragma once

#include <cstdint>

namespace mpl::dash {

// The time of day of an xs:dateTime.
struct XSTimeOfDay {
  uint32_t hours = 0;
  uint32_t minutes = 0;
  uint32_t seconds = 0;
  float fraction = 0;  // of a second, in [0, 1)

  // Hours below 24, minutes and seconds below 60, an optional fraction that is below 1 as a float.
  // `end` and `defaultValue` as in XSDate::parse.
  static XSTimeOfDay parse(const char* text, const char** end, const XSTimeOfDay& defaultValue);

  int64_t inWholeSeconds() const;

  bool operator==(const XSTimeOfDay&) const = default;
};

}  // namespace mpl::dash
