#include "mpl/dash/XSDateTime.h"

#include "mpl/Numbers.h"
#include "qnc/qncChecked.h"

namespace mpl::dash {

const XSDateTime XSDateTime::Invalid{0, 0, 0, 0, 0, 0, 0, 0, 0, 1};

XSDateTime XSDateTime::parse(const char* text, const char** end, const XSDateTime& defaultValue) {
  if (end) *end = text;
  const char* from = text;
  const char* at = text;
  const XSDate date = XSDate::parse(from, &at, defaultValue.date);
  if (at == from || *at != 'T') return defaultValue;
  from = at + 1;
  const XSTimeOfDay timeOfDay = XSTimeOfDay::parse(from, &at, defaultValue.timeOfDay);
  if (at == from) return defaultValue;
  from = at;
  const XSTimeZone timeZone = XSTimeZone::parse(from, &at, defaultValue.timeZone);
  if (at == from) return defaultValue;
  if (end) *end = at;
  return {date, timeOfDay, timeZone};
}

int64_t XSDateTime::inWholeSecondsSinceEpoch() const {
  const int64_t seconds = date.inWholeSecondsSinceEpoch();
  if (seconds < 0) return -1;
  return seconds + timeOfDay.inWholeSeconds() - timeZone.inWholeSeconds();
}

int64_t XSDateTime::inUnitsSinceEpoch(int64_t unit) const {
  const int64_t seconds = inWholeSecondsSinceEpoch();
  int64_t units = 0;
  if (seconds < 0 || !qnc::checkedMul(seconds, unit, units) ||
      !qnc::checkedAdd(units, scaleFraction(timeOfDay.fraction, unit), units)) {
    return -1;
  }
  return units;
}

}  // namespace mpl::dash
