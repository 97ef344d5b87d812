#include "mpl/dash/XSDuration.h"

#include "mpl/Numbers.h"
#include "qnc/qncChecked.h"

namespace mpl::dash {

namespace {

// A number, its fraction if any, and the letter after them; `next` is where reading goes on once
// the letter is accepted.
struct Component {
  uint32_t number = 0;
  float fraction = 0;
  bool hasFraction = false;
  char designator = 0;
  const char* next = nullptr;
};

bool readComponent(const char* at, bool fractionAllowed, Component& out) {
  out = {};
  if (!readDigits(at, out.number)) return false;
  if (fractionAllowed && *at == '.') {
    const char* digits = at + 1;
    if (readFraction(digits, out.fraction)) {
      out.hasFraction = true;
      at = digits;
    }
  }
  out.designator = *at;
  out.next = *at ? at + 1 : at;
  return true;
}

const char* readDatePart(const char* at, XSDuration& out) {
  uint32_t* const fields[] = {&out.years, &out.months, &out.days};
  constexpr char kDesignators[] = {'Y', 'M', 'D'};
  int from = 0;
  Component c;
  while (from < 3 && readComponent(at, false, c)) {
    int i = from;
    while (i < 3 && kDesignators[i] != c.designator)
      ++i;
    if (i == 3) break;
    *fields[i] = c.number;
    at = c.next;
    from = i + 1;
  }
  return at;
}

// Null when hours or minutes have a fraction.
const char* readTimePart(const char* at, XSDuration& out) {
  uint32_t* const fields[] = {&out.hours, &out.minutes, &out.seconds};
  constexpr char kDesignators[] = {'H', 'M', 'S'};
  int from = 0;
  Component c;
  while (from < 3 && readComponent(at, true, c)) {
    if (c.hasFraction && (c.designator == 'H' || c.designator == 'M')) return nullptr;
    int i = from;
    while (i < 3 && kDesignators[i] != c.designator)
      ++i;
    if (i == 3) break;
    *fields[i] = c.number;
    out.fraction = c.fraction;
    at = c.next;
    from = i + 1;
  }
  return at;
}

}  // namespace

XSDuration XSDuration::parse(const char* text, const char** end, const XSDuration& defaultValue) {
  if (end) *end = text;
  const char* at = text;
  XSDuration duration;
  if (*at == '-') {
    duration.sign = -1;
    ++at;
  }
  if (*at++ != 'P') return defaultValue;
  at = readDatePart(at, duration);
  if (*at == 'T') at = readTimePart(at + 1, duration);
  if (!at) return defaultValue;
  if (end) *end = at;
  return duration;
}

uint64_t XSDuration::inUnsignedWholeSeconds() const {
  return years * kSecondsPerYear + months * kSecondsPerMonth + uint64_t{days} * 86400 +
         uint64_t{hours} * 3600 + uint64_t{minutes} * 60 + seconds;
}

int64_t XSDuration::inUnits(int64_t unit) const {
  const int64_t scale = qnc::saturatingMul<int64_t>(sign, unit);
  // 32-bit fields: the seconds stay below 2 to the power of 58.
  const auto whole = static_cast<int64_t>(inUnsignedWholeSeconds());
  return mulAdd(whole, scale, scaleFraction(fraction, scale));
}

}  // namespace mpl::dash
