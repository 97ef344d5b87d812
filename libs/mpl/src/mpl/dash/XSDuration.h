#pragma once

#include <cstdint>

namespace mpl::dash {

// An xs:duration (XML Schema part 2). Its fraction belongs to the seconds.
struct XSDuration {
  // Mean lengths of the Gregorian calendar, so that "P1Y" and "P1M" have a fixed length.
  static constexpr uint64_t kSecondsPerYear = 31556908;
  static constexpr uint64_t kSecondsPerMonth = 2629739;

  uint32_t years = 0;
  uint32_t months = 0;
  uint32_t days = 0;
  uint32_t hours = 0;
  uint32_t minutes = 0;
  uint32_t seconds = 0;
  float fraction = 0;
  int32_t sign = 1;  // +1 or -1

  // The default of the attribute readers; no parsed value equals it.
  static const XSDuration Invalid;

  // "-"? "P" (n "Y")? (n "M")? (n "D")? ("T" (n "H")? (n "M")? (n ("." digits)? "S")?)?
  //
  // Consumes as much as fits: a number without a designator that may stand there is left, and the
  // caller's whole-text rule rejects it ("P1W"). "P" and "PT" are zero. A fraction of hours or
  // minutes fails as a whole. `end` and `defaultValue` as in XSDate::parse.
  static XSDuration parse(const char* text, const char** end, const XSDuration& defaultValue);

  bool isValid() const { return sign != 0; }
  // Without sign and fraction.
  uint64_t inUnsignedWholeSeconds() const;
  // In units of 1/`unit` second, signed. What 64 bits cannot hold becomes the nearest value they
  // can.
  int64_t inUnits(int64_t unit) const;
  int64_t inMilliseconds() const { return inUnits(1000); }

  bool operator==(const XSDuration&) const = default;
};

inline constexpr XSDuration XSDuration::Invalid{0, 0, 0, 0, 0, 0, 0, 0};

}  // namespace mpl::dash
