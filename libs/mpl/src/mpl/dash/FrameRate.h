#pragma once

#include <cstdint>

namespace mpl::dash {

// Frames per second as a fraction; -1/1 when absent.
struct FrameRate {
  int32_t numerator = -1;
  int32_t denominator = 1;

  bool isAbsent() const { return numerator < 0; }
  bool operator==(const FrameRate&) const = default;

  // A number, or two with a slash between them (ISO/IEC 23009-1, FrameRateType); digits only, the
  // second not 0. `end` and `defaultValue` as in XSDate::parse.
  static FrameRate parse(const char* text, const char** end, const FrameRate& defaultValue);
};

}  // namespace mpl::dash
