// A text as xs:duration, xs:dateTime and their parts, range and frame rate. Nothing is consumed
// beyond the text; failure gives the default and consumes nothing; what was consumed, taken alone,
// gives the same value; whole numbers survive being printed and read again.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "mpl/Range.h"
#include "mpl/dash/AttributeReaders.h"
#include "mpl/dash/FrameRate.h"
#include "mpl/dash/XSDateTime.h"
#include "mpl/dash/XSDuration.h"

namespace {

using mpl::dash::XSDateTime;
using mpl::dash::XSDuration;

void require(bool holds) {
  if (!holds) std::abort();
}

template <class T>
T checkedParse(const std::string& text, const T& defaultValue) {
  const char* const begin = text.c_str();
  const char* end = nullptr;
  const T value = T::parse(begin, &end, defaultValue);
  require(end >= begin && end <= begin + text.size());
  const T whole = mpl::dash::parse<T>(begin, defaultValue);
  if (end == begin) {
    require(value == defaultValue && whole == defaultValue);
    return value;
  }
  require(whole == (*end == '\0' ? value : defaultValue));
  const std::string consumed(begin, end);
  require(mpl::dash::parse<T>(consumed.c_str(), defaultValue) == value);
  return value;
}

void checkDuration(const XSDuration& d) {
  if (!d.isValid()) return;
  (void)d.inMilliseconds();
  (void)d.inUnits(INT64_MAX);
  (void)d.inUnits(INT64_MIN);
  char text[128];
  std::snprintf(text, sizeof text, "%sP%uY%uM%uDT%uH%uM%uS", d.sign < 0 ? "-" : "", d.years,
                d.months, d.days, d.hours, d.minutes, d.seconds);
  XSDuration expected = d;
  expected.fraction = 0;
  require(mpl::dash::parse<XSDuration>(text, XSDuration::Invalid) == expected);
}

void checkDateTime(const XSDateTime& t) {
  if (!t.isValid()) return;
  require(t.timeOfDay.fraction >= 0 && t.timeOfDay.fraction < 1);
  (void)t.inUnitsSinceEpoch(INT64_MAX);
  const int64_t ms = t.inMillisecondsSinceEpoch();
  require(ms >= -1);
  if (t.date.year < 1970 || t.date.year > 9999 || t.date.day > 28) return;
  tm calendar{};
  calendar.tm_year = static_cast<int>(t.date.year) - 1900;
  calendar.tm_mon = static_cast<int>(t.date.month) - 1;
  calendar.tm_mday = static_cast<int>(t.date.day);
  require(t.date.inWholeSecondsSinceEpoch() == timegm(&calendar));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  checkDuration(checkedParse(text, XSDuration::Invalid));
  checkDateTime(checkedParse(text, XSDateTime::Invalid));
  checkedParse(text, mpl::dash::XSDate{});
  checkedParse(text, mpl::dash::XSTimeOfDay{});
  checkedParse(text, mpl::dash::XSTimeZone{0, 0, 0});
  checkedParse(text, mpl::dash::FrameRate{});
  const mpl::Range range = checkedParse(text, mpl::Range{});
  require(range.offset >= 0 && range.length >= -1 && range.length != 0);
  return 0;
}
