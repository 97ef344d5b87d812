#include <cstdint>
#include <ctime>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "mpl/dash/AttributeReaders.h"
#include "mpl/dash/XSDateTime.h"
#include "mpl/dash/XSDuration.h"

namespace mpl::dash {
namespace {

constexpr int64_t kRejected = std::numeric_limits<int64_t>::min() + 1;

TEST(XSDurationTest, ReadsWholeTexts) {
  struct Row {
    const char* text;
    int64_t milliseconds;
  };
  const Row rows[] = {
      {"PT1.5S", 1500},
      {"P1DT2H", 93600000},
      {"-PT10S", -10000},
      {"-PT1.5S", -1500},
      {"P1Y", 31556908000},
      {"P1M", 2629739000},
      {"P1Y2M3DT4H5M6.007S", 31556908000 + 2 * 2629739000 + 3 * 86400000 + 14706007},
      {"P0Y0M0DT0H3M30.000S", 210000},
      {"PT36000S", 36000000},
      {"PT10000M", 600000000},
      {"PT", 0},
      {"P", 0},
      {"P1DT", 86400000},
      // The fraction is a float, and so is its product with the unit.
      {"PT0.7S", 700},
      {"PT0.29S", 290},
      {"PT0.001S", 1},
      {"PT2.009999S", 2009},
      {"PT0.00000000000000000000000000000000000000000000000000001S", 0},
      {"PT1.99999999999S", 2000},
      // The largest fields.
      {"PT4294967295S", 4294967295000},
      {"P292277024Y", 292277024LL * 31556908000},
      // Out of 64 bits, as a field of 32 and as a product: not a duration.
      {"PT4294967296S", kRejected},
      {"P4294967295Y", kRejected},
      {"-P4294967295Y", kRejected},
      // Order and number of designators.
      {"PT1M1H", kRejected},
      {"PT1S1S", kRejected},
      {"P1D1M", kRejected},
      {"P1M1Y", kRejected},
      {"P1H", kRejected},
      {"PT1D", kRejected},
      {"P1W", kRejected},
      {"P5", kRejected},
      {"PT5", kRejected},
      {"PT1M5", kRejected},
      // Fractions belong to seconds and have digits.
      {"PT1.5M", kRejected},
      {"PT1.5H", kRejected},
      {"P1.5D", kRejected},
      {"PT1.S", kRejected},
      {"PT.5S", kRejected},
      {"PT1,5S", kRejected},
      {"PT1.5e3S", kRejected},
      // Not a duration at all.
      {"", kRejected},
      {"-", kRejected},
      {"+PT1S", kRejected},
      {"--PT1S", kRejected},
      {"PT-1S", kRejected},
      {" PT1S", kRejected},
      {"PT1S ", kRejected},
      {"pt1s", kRejected},
      {"T1S", kRejected},
      {"10", kRejected},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    qnc::xml::Document document;
    const std::string xml = std::string("<e a=\"") + row.text + "\"/>";
    ASSERT_EQ(document.parse(xml), qnc::Result::Success);
    EXPECT_EQ(parseDuration(document.root(), "a", kRejected), row.milliseconds);
  }
}

TEST(XSDurationTest, StopsAtWhatItCannotUse) {
  struct Row {
    const char* text;
    size_t consumed;
  };
  const Row rows[] = {{"P1DT2H;x", 6}, {"P1Y2W", 3}, {"PT1H2X", 4}, {"PT1.5H", 0}, {"1", 0}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    const char* end = nullptr;
    const XSDuration value = XSDuration::parse(row.text, &end, XSDuration::Invalid);
    EXPECT_EQ(static_cast<size_t>(end - row.text), row.consumed);
    EXPECT_EQ(value.isValid(), row.consumed != 0);
  }
  EXPECT_EQ(parse<XSDuration>("PT2S;", XSDuration::Invalid, ';').inMilliseconds(), 2000);
}

TEST(XSDurationTest, ConvertsToAnyUnitWithoutOverflow) {
  const XSDuration longest{UINT32_MAX, UINT32_MAX, UINT32_MAX, UINT32_MAX,
                           UINT32_MAX, UINT32_MAX, 1.0F,       -1};
  EXPECT_EQ(longest.inUnits(1), -147217339840264861);
  EXPECT_EQ(longest.inUnits(1000000), std::numeric_limits<int64_t>::min());
  EXPECT_EQ(longest.inUnits(std::numeric_limits<int64_t>::min()),
            std::numeric_limits<int64_t>::max());
  const XSDuration half{0, 0, 0, 0, 0, 0, 0.5F, 1};
  EXPECT_EQ(half.inUnits(1000000), 500000);
}

TEST(XSDateTimeTest, ReadsWholeTexts) {
  struct Row {
    const char* text;
    int64_t milliseconds;
  };
  const Row rows[] = {
      {"2020-02-29T12:00:00Z", 1582977600000},
      {"2020-02-29T12:00:00+01:00", 1582977600000 - 3600000},
      {"2020-02-29T12:00:00-01:30", 1582977600000 + 5400000},
      {"2020-02-29T12:00:00.25Z", 1582977600250},
      {"1970-01-01T00:00:00Z", 0},
      {"2020-2-9T1:2:3Z", 1581210123000},
      {"2021-02-31T00:00:00Z", 1614729600000},  // days of the month are not counted
      {"2020-02-29T12:00:00+14:59", 1582977600000 - 53940000},
      // Before the epoch, by date or by zone, and beyond 64 bits.
      {"1969-12-31T23:59:59Z", -1},
      {"1970-01-01T00:00:00+01:00", -1},
      {"4294967295-12-31T00:00:00Z", -1},
      // Without a zone it is no point in time.
      {"2020-02-29T12:00:00", kRejected},
      {"2020-02-29T12:00:00+15:00", kRejected},
      {"2020-02-29T12:00:00+01:60", kRejected},
      {"2020-02-29T12:00:00+0100", kRejected},
      {"2020-02-29T12:00:00z", kRejected},
      // Ranges and shape.
      {"2020-00-29T12:00:00Z", kRejected},
      {"2020-13-29T12:00:00Z", kRejected},
      {"2020-02-00T12:00:00Z", kRejected},
      {"2020-02-32T12:00:00Z", kRejected},
      {"2020-02-29T24:00:00Z", kRejected},
      {"2020-02-29T12:60:00Z", kRejected},
      {"2020-02-29T12:00:60Z", kRejected},
      {"2020-02-29T12:00Z", kRejected},
      {"2020-02-29 12:00:00Z", kRejected},
      {"2020-02-29T12:00:00.Z", kRejected},
      {"2020-02-29T12:00:00.999999999999Z", kRejected},  // 1 as a float
      {"-2020-02-29T12:00:00Z", kRejected},
      {"4294967296-02-29T12:00:00Z", kRejected},
      {"2020-02-29Z", kRejected},
      {"2020-02-29T12:00:00Z ", kRejected},
      {"", kRejected},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    qnc::xml::Document document;
    const std::string xml = std::string("<e a=\"") + row.text + "\"/>";
    ASSERT_EQ(document.parse(xml), qnc::Result::Success);
    EXPECT_EQ(parseDateTime(document.root(), "a", kRejected), row.milliseconds);
  }
}

TEST(XSDateTest, AgreesWithTheCalendarOfTheSystem) {
  for (uint32_t year = 1970; year <= 2405; ++year) {
    for (uint32_t month = 1; month <= 12; ++month) {
      tm calendar{};
      calendar.tm_year = static_cast<int>(year) - 1900;
      calendar.tm_mon = static_cast<int>(month) - 1;
      calendar.tm_mday = 28;
      ASSERT_EQ((XSDate{year, month, 28}.inWholeSecondsSinceEpoch()), timegm(&calendar))
          << year << "-" << month;
    }
  }
}

TEST(XSTimeTest, FailureGivesTheDefaultAndConsumesNothing) {
  const XSDateTime other(2001, 2, 3, 4, 5, 6, 0.5F, 7, 8, -1);
  const char* const text = "2020-02-29T12:00:00";
  const char* end = nullptr;
  EXPECT_EQ(XSDateTime::parse(text, &end, other), other);
  EXPECT_EQ(end, text);
  EXPECT_EQ(XSDateTime::parse(text, nullptr, XSDateTime::Invalid).isValid(), false);
  EXPECT_EQ(XSTimeZone::parse("", &end, XSTimeZone::UTC), XSTimeZone::UTC);
  EXPECT_EQ(XSTimeZone::parse("-01:30", nullptr, XSTimeZone::UTC).inWholeSeconds(), -5400);
}

}  // namespace
}  // namespace mpl::dash
