#pragma once

#include <cstdint>

namespace mpl::dash {

// value * multiplier / divisor, where an exact factor is used when one divides the other and double
// precision otherwise; truncated. 0 when the divisor is 0; what 64 bits cannot hold becomes the
// nearest value they can.
int64_t scaleLargeTimestamp(int64_t value, int64_t multiplier, int64_t divisor);

// (a + b - 1) / b in integers, 0 when b is 0; saturates likewise.
int64_t ceilDivide(int64_t a, int64_t b);

}  // namespace mpl::dash
