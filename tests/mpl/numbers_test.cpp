#include <cstdint>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "mpl/Range.h"
#include "mpl/dash/AttributeReaders.h"
#include "mpl/dash/FrameRate.h"
#include "mpl/dash/Scale.h"

namespace mpl::dash {
namespace {

constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
constexpr int64_t kMin = std::numeric_limits<int64_t>::min();

TEST(RangeTest, ReadsFirstAndLastByteAsOffsetAndLength) {
  struct Row {
    const char* text;
    int64_t offset;
    int64_t length;
  };
  const Row rows[] = {
      {"500-999", 500, 500},
      {"0-0", 0, 1},
      {"500-", 500, -1},
      {"0-9223372036854775806", 0, kMax},
      // Malformed: the whole resource.
      {"", 0, -1},
      {"-500", 0, -1},
      {"999-500", 0, -1},
      {"500", 0, -1},
      {"500-999 ", 0, -1},
      {" 500-999", 0, -1},
      {"+500-999", 0, -1},
      {"0-9,20-29", 0, -1},
      {"0-9223372036854775807", 0, -1},   // a length of 2 to the power of 63
      {"5-18446744073709551615", 0, -1},  // an end of 64 bits
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(parse<Range>(row.text, Range()), (Range{row.offset, row.length}));
  }
}

TEST(FrameRateTest, ReadsNumberOrFraction) {
  struct Row {
    const char* text;
    int32_t numerator;
    int32_t denominator;
  };
  const Row rows[] = {
      {"25", 25, 1},         {"30000/1001", 30000, 1001},
      {"0", 0, 1},           {"", -1, 1},
      {"25/", -1, 1},        {"25/0", -1, 1},
      {"/25", -1, 1},        {"-25", -1, 1},
      {"23.976", -1, 1},     {"25/1/1", -1, 1},
      {"2147483648", -1, 1}, {"25/2147483648", -1, 1},
      {"25 / 1", -1, 1},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(parse<FrameRate>(row.text, FrameRate()), (FrameRate{row.numerator, row.denominator}));
  }
}

TEST(ScaleTest, ScalesExactlyWhereItCanAndNeverOverflows) {
  struct Row {
    int64_t value, multiplier, divisor, expected;
  };
  const Row rows[] = {
      {8000, 1000000, 1000, 8000000},
      {8000, 1000, 1000000, 8},
      {7999, 1000, 1000000, 7},
      {-7999, 1000, 1000000, -7},
      {90000, 1000000, 90000, 1000000},  // through double precision
      {1, 1000000, 3, 333333},
      // Beyond 64 bits, and divisors that nobody means.
      {kMax, 1000000, 1000, kMax},
      {kMin, 1000000, 1, kMin},
      {kMax, 1000000, 7, kMax},
      {kMin, 1000000, 7, kMin},
      {5, 1000000, 0, 0},
      {5, 1000000, -1, -5000000},
      {kMin, 1000000, -1000000, kMax},
      {kMin, kMin, -1, kMin},
      {kMin, -1, 1, kMax},
      {3, kMax, kMin, -3},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(scaleLargeTimestamp(row.value, row.multiplier, row.divisor), row.expected)
        << row.value << " * " << row.multiplier << " / " << row.divisor;
  }
}

TEST(ScaleTest, CeilDivides) {
  struct Row {
    int64_t a, b, expected;
  };
  const Row rows[] = {
      {10, 4, 3},   {8, 4, 2},       {0, 4, 0},       {1, 4, 1},           {10, 0, 0},
      {10, -4, -1}, {kMax, 1, kMax}, {kMax, kMax, 1}, {kMax, kMax - 1, 2}, {kMin, -1, kMax},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(ceilDivide(row.a, row.b), row.expected) << row.a << " / " << row.b;
  }
}

}  // namespace
}  // namespace mpl::dash
