#pragma once

#include <concepts>
#include <cstdint>

namespace mpl {

// Reads decimal digits from `text` on; false, with nothing consumed, when there is none or when the
// value does not fit.
template <std::integral T>
[[nodiscard]] bool readDigits(const char*& text, T& out) {
  T value = 0;
  const char* at = text;
  for (; *at >= '0' && *at <= '9'; ++at) {
    if (__builtin_mul_overflow(value, 10, &value)) return false;
    if (__builtin_add_overflow(value, *at - '0', &value)) return false;
  }
  if (at == text) return false;
  text = at;
  out = value;
  return true;
}

// Reads the digits of a decimal fraction, which follow the point, as a float in [0, 1]; false, with
// nothing consumed, when there is none.
[[nodiscard]] bool readFraction(const char*& text, float& out);

// The product of a fraction and a unit, computed in float and truncated.
int64_t scaleFraction(float fraction, int64_t unit);

// Room for the exact product or sum of 64-bit values.
__extension__ using Int128 = __int128;

// The nearest value that 64 bits can hold.
int64_t clamped(Int128 value);

// a * b + c and a * b / c, truncated towards zero and clamped; a division by zero gives 0.
inline int64_t mulAdd(int64_t a, int64_t b, int64_t c) {
  return clamped(static_cast<Int128>(a) * b + c);
}
inline int64_t mulDiv(int64_t a, int64_t b, int64_t c) {
  return c == 0 ? 0 : clamped(static_cast<Int128>(a) * b / c);
}

}  // namespace mpl
