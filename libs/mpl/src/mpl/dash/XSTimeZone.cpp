#include "mpl/dash/XSTimeZone.h"

#include "mpl/Numbers.h"

namespace mpl::dash {

XSTimeZone XSTimeZone::parse(const char* text, const char** end, const XSTimeZone& defaultValue) {
  if (end) *end = text;
  const char* at = text;
  XSTimeZone zone = UTC;
  if (*at == 'Z') {
    ++at;
  } else {
    if (*at != '+' && *at != '-') return defaultValue;
    zone.sign = *at++ == '-' ? -1 : 1;
    if (!readDigits(at, zone.hours) || zone.hours >= 15 || *at++ != ':') return defaultValue;
    if (!readDigits(at, zone.minutes) || zone.minutes >= 60) return defaultValue;
  }
  if (end) *end = at;
  return zone;
}

int64_t XSTimeZone::inWholeSeconds() const {
  return sign * (int64_t{hours} * 3600 + int64_t{minutes} * 60);
}

}  // namespace mpl::dash
