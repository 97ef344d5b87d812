#include "mpl/dash/FrameRate.h"

#include "mpl/Numbers.h"

namespace mpl::dash {

FrameRate FrameRate::parse(const char* text, const char** end, const FrameRate& defaultValue) {
  if (end) *end = text;
  const char* at = text;
  FrameRate rate;
  if (!readDigits(at, rate.numerator)) return defaultValue;
  if (*at == '/') {
    ++at;
    if (!readDigits(at, rate.denominator) || rate.denominator == 0) return defaultValue;
  }
  if (end) *end = at;
  return rate;
}

}  // namespace mpl::dash
