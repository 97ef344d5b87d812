#include "mpl/dash/Scale.h"

#include <limits>

#include "mpl/Numbers.h"

namespace mpl::dash {

namespace {

int64_t truncated(double value) {
  constexpr double kLimit = 9223372036854775808.0;  // 2 to the power of 63
  if (value >= kLimit) return std::numeric_limits<int64_t>::max();
  if (value < -kLimit) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(value);
}

}  // namespace

int64_t scaleLargeTimestamp(int64_t value, int64_t multiplier, int64_t divisor) {
  if (divisor == 0 || multiplier == 0) return 0;
  const Int128 m = multiplier;
  const Int128 d = divisor;
  if (d >= m && d % m == 0) return clamped(value / (d / m));
  if (d < m && m % d == 0) return clamped(value * (m / d));
  return truncated(static_cast<double>(value) *
                   (static_cast<double>(multiplier) / static_cast<double>(divisor)));
}

int64_t ceilDivide(int64_t a, int64_t b) {
  return b == 0 ? 0 : clamped((static_cast<Int128>(a) + b - 1) / b);
}

}  // namespace mpl::dash
