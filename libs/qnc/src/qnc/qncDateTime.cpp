#include "qnc/qncDateTime.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "qnc/qncChecked.h"
#include "qnc/qncLog.h"
#include "qnc/qncSystem.h"

namespace qnc {
namespace {

constexpr char kSource[] = "libs/qnc/src/qnc/qncDateTime";

constexpr uint32_t kFirstYear = 1601;
constexpr uint32_t kLastYear = 30827;
constexpr uint32_t kEpochYear = 1970;
constexpr uint64_t kMsPerDay = 86'400'000;

uint64_t leapYearsUpTo(uint64_t year) {
  return year / 4 - year / 100 + year / 400;
}

// Days from January 1st of 1601 to January 1st of the year that lies `years` later.
uint64_t daysInYears(uint64_t years) {
  return years * 365 + DateTime::numLeapYearsBefore(kFirstYear + years, kFirstYear);
}

uint32_t daysBeforeMonth(uint32_t month, bool leap) {
  return DateTime::nDaysInYearByBegninningOfMonth[month - 1] + (leap && month > 2 ? 1 : 0);
}

uint32_t daysInMonth(uint32_t month, bool leap) {
  return DateTime::nDaysInMonth[month - 1] + (leap && month == 2 ? 1 : 0);
}

uint64_t msOfDay(const DateTime& t) {
  return ((t.hours() * 60ULL + t.minutes()) * 60 + t.seconds()) * 1000 + t.milliseconds();
}

uint32_t dayOfYear(const DateTime& t) {
  return daysBeforeMonth(t.month(), t.isLeapYear()) + t.day() - 1;
}

// A date-time text as scanned; what is missing stays 0.
struct Scan {
  int year = 0, month = 0, day = 0, hours = 0, minutes = 0, seconds = 0, milliseconds = 0;
  char sign = 0;
  int zoneHours = 0, zoneMinutes = 0;
};

// The width of the year keeps the number within an int.
int scanWithMilliseconds(const char* text, Scan& s) {
  // NOLINTNEXTLINE: widths bound every number
  return std::sscanf(text, "%9d-%2d-%2dT%2d:%2d:%2d.%3d%c%2d:%2d", &s.year, &s.month, &s.day,
                     &s.hours, &s.minutes, &s.seconds, &s.milliseconds, &s.sign, &s.zoneHours,
                     &s.zoneMinutes);
}

int scanWithoutMilliseconds(const char* text, Scan& s) {
  // NOLINTNEXTLINE: widths bound every number
  return std::sscanf(text, "%9d-%2d-%2dT%2d:%2d:%2d%c%2d:%2d", &s.year, &s.month, &s.day, &s.hours,
                     &s.minutes, &s.seconds, &s.sign, &s.zoneHours, &s.zoneMinutes);
}

uint32_t component(int value) {
  return static_cast<uint32_t>(std::max(value, 0));
}

}  // namespace

DateTime::DateTime(uint64_t raw) {
  raw_ = raw;
  *this = DateTime(year(), month(), day(), hours(), minutes(), seconds(), milliseconds());
}

DateTime::DateTime(uint32_t year, uint32_t month, uint32_t day, uint32_t hours, uint32_t minutes,
                   uint32_t seconds, uint32_t milliseconds) {
  setYear(year);
  setMonth(month);
  setDay(day);
  setHours(hours);
  setMinutes(minutes);
  setSeconds(seconds);
  setMilliseconds(milliseconds);
}

uint32_t DateTime::field(unsigned shift, unsigned bits) const {
  return static_cast<uint32_t>(raw_ >> shift & ((uint64_t{1} << bits) - 1));
}

void DateTime::setField(unsigned shift, unsigned bits, uint64_t value) {
  const uint64_t mask = ((uint64_t{1} << bits) - 1) << shift;
  raw_ = (raw_ & ~mask) | value << shift;
}

uint32_t DateTime::year() const {
  return std::clamp(field(36, 15), kFirstYear, kLastYear);
}
uint32_t DateTime::month() const {
  return field(32, 4);
}
uint32_t DateTime::day() const {
  return field(27, 5);
}
uint32_t DateTime::hours() const {
  return field(22, 5);
}
uint32_t DateTime::minutes() const {
  return field(16, 6);
}
uint32_t DateTime::seconds() const {
  return field(10, 6);
}
uint32_t DateTime::milliseconds() const {
  return field(0, 10);
}

void DateTime::setYear(uint32_t year) {
  setField(36, 15, std::clamp(year, kFirstYear, kLastYear));
}
void DateTime::setMonth(uint32_t month) {
  setField(32, 4, std::clamp(month, 1U, 12U));
}
void DateTime::setDay(uint32_t day) {
  setField(27, 5, std::clamp(day, 1U, daysInMonth(month(), isLeapYear())));
}
void DateTime::setHours(uint32_t hours) {
  setField(22, 5, std::min(hours, 59U));
}
void DateTime::setMinutes(uint32_t minutes) {
  setField(16, 6, std::min(minutes, 59U));
}
void DateTime::setSeconds(uint32_t seconds) {
  setField(10, 6, std::min(seconds, 59U));
}
void DateTime::setMilliseconds(uint32_t ms) {
  setField(0, 10, std::min(ms, 999U));
}

bool DateTime::isLeapYear(uint64_t year) {
  return year % 400 == 0 || (year % 4 == 0 && year % 100 != 0);
}

uint64_t DateTime::numLeapYearsBefore(uint64_t year, uint64_t since) {
  if (year <= since || year == 0 || since == 0) return 0;
  return leapYearsUpTo(year - 1) - leapYearsUpTo(since - 1);
}

uint64_t DateTime::getMsInYear(uint32_t year) {
  return (isLeapYear(year) ? 366 : 365) * kMsPerDay;
}

uint64_t DateTime::toMilliseconds() const {
  return (daysInYears(year() - kFirstYear) + dayOfYear(*this)) * kMsPerDay + msOfDay(*this);
}

int64_t DateTime::toMillisecondsSinceEpoch() const {
  return static_cast<int64_t>(toMilliseconds()) -
         static_cast<int64_t>(daysInYears(kEpochYear - kFirstYear) * kMsPerDay);
}

DateTime DateTime::fromMilliseconds(uint64_t milliseconds) {
  const auto ms = static_cast<uint32_t>(milliseconds % 1000);
  const auto seconds = static_cast<uint32_t>(milliseconds / 1000 % 60);
  const auto minutes = static_cast<uint32_t>(milliseconds / 60'000 % 60);
  const auto hours = static_cast<uint32_t>(milliseconds / 3'600'000 % 24);
  uint64_t days = milliseconds / kMsPerDay;
  uint64_t years = days / 365;
  while (daysInYears(years) > days)
    --years;
  days -= daysInYears(years);

  const bool leap = isLeapYear(kFirstYear + years);
  uint32_t month = 1;
  while (month < 12 && days >= daysBeforeMonth(month + 1, leap))
    ++month;
  days -= daysBeforeMonth(month, leap);
  return DateTime(static_cast<uint32_t>(kFirstYear + years), month, static_cast<uint32_t>(days) + 1,
                  hours, minutes, seconds, ms);
}

int64_t DateTime::getDeltaMs(const DateTime& a, const DateTime& b) {
  return static_cast<int64_t>(a.toMilliseconds()) - static_cast<int64_t>(b.toMilliseconds());
}

void DateTime::addSeconds(int64_t seconds) {
  const uint64_t magnitude =
      seconds < 0 ? 0 - static_cast<uint64_t>(seconds) : static_cast<uint64_t>(seconds);
  const uint64_t delta = saturatingMul(magnitude, uint64_t{1000});
  const uint64_t now = toMilliseconds();
  *this = fromMilliseconds(seconds < 0 ? saturatingSub(now, delta) : saturatingAdd(now, delta));
}

FastString DateTime::toXSD(bool withMilliseconds, const TimeZoneInfo* zone) const {
  FastString text = FastString::format("%.4u-%.2u-%.2uT%.2u:%.2u:%.2u", year(), month(), day(),
                                       hours(), minutes(), seconds());
  if (withMilliseconds) text += FastString::format(".%.3u", milliseconds());
  if (zone) {
    const int offset = saturatingAdd(zone->bias, zone->isDaylightTime ? zone->daylightBias : 0);
    text +=
        FastString::format("%+.2d:%.2u", offset / 60, static_cast<unsigned>(std::abs(offset % 60)));
  }
  return text;
}

DateTime DateTime::fromXSD(const FastString& text) {
  Scan s;
  int fields = scanWithMilliseconds(text.c_str(), s);
  if (fields < 7) {
    s = Scan();
    fields = scanWithoutMilliseconds(text.c_str(), s);
  }
  if (fields < 6) {
    QNC_LOG(debug::Level::ERROR, Result::InvalidFormat, kSource,
            "Failed to parse date '" + text.str() + "'");
    return DateTime();
  }
  DateTime result(component(s.year), component(s.month), component(s.day), component(s.hours),
                  component(s.minutes), component(s.seconds), component(s.milliseconds));
  const int64_t offset = s.zoneHours * int64_t{3600} + s.zoneMinutes * int64_t{60};
  result.addSeconds(s.sign == '-' ? -offset : offset);
  return result;
}

}  // namespace qnc
