#pragma once

#include <cstdint>
#include <string_view>

namespace mpl {

// A byte range: where it begins and how many bytes it has. A length of -1 reaches to the end of the
// resource; (0, -1) is the whole of it.
struct Range {
  static constexpr int64_t kToEnd = -1;

  int64_t offset = 0;
  int64_t length = kToEnd;

  bool isWhole() const { return offset == 0 && length == kToEnd; }
  bool operator==(const Range&) const = default;

  // Reads the byte-range of RFC 9110 section 14.1.1 as DASH attributes write it, without its unit:
  // "500-999" is (500, 500), "500-" is (500, -1). Digits only; the last byte may not lie before the
  // first, and both must fit. The value type's contract for `end` and `defaultValue` is that of
  // XSDate::parse.
  static Range parse(const char* text, const char** end, const Range& defaultValue);
};

}  // namespace mpl
