#include "mpl/Numbers.h"

#include <charconv>
#include <limits>

namespace mpl {

bool readFraction(const char*& text, float& out) {
  const char* end = text;
  while (*end >= '0' && *end <= '9')
    ++end;
  if (end == text) return false;
  float value = 0;
  // The point stands before the digits. Too small a value stays 0.
  (void)std::from_chars(text - 1, end, value, std::chars_format::fixed);
  out = value;
  text = end;
  return true;
}

int64_t scaleFraction(float fraction, int64_t unit) {
  const float product = fraction * static_cast<float>(unit);
  constexpr float kLimit = 9223372036854775808.0F;  // 2 to the power of 63
  if (product >= kLimit) return std::numeric_limits<int64_t>::max();
  if (product < -kLimit) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(product);
}

int64_t clamped(Int128 value) {
  if (value > std::numeric_limits<int64_t>::max()) return std::numeric_limits<int64_t>::max();
  if (value < std::numeric_limits<int64_t>::min()) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(value);
}

}  // namespace mpl
