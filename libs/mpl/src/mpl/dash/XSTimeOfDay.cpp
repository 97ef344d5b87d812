#include "mpl/dash/XSTimeOfDay.h"

#include "mpl/Numbers.h"

namespace mpl::dash {

XSTimeOfDay XSTimeOfDay::parse(const char* text, const char** end,
                               const XSTimeOfDay& defaultValue) {
  if (end) *end = text;
  const char* at = text;
  XSTimeOfDay time;
  if (!readDigits(at, time.hours) || time.hours >= 24 || *at++ != ':') return defaultValue;
  if (!readDigits(at, time.minutes) || time.minutes >= 60 || *at++ != ':') return defaultValue;
  if (!readDigits(at, time.seconds) || time.seconds >= 60) return defaultValue;
  if (*at == '.') {
    const char* digits = at + 1;
    if (readFraction(digits, time.fraction)) at = digits;
    if (time.fraction >= 1) return defaultValue;
  }
  if (end) *end = at;
  return time;
}

int64_t XSTimeOfDay::inWholeSeconds() const {
  return int64_t{hours} * 3600 + int64_t{minutes} * 60 + seconds;
}

}  // namespace mpl::dash
