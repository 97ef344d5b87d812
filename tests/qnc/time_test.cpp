// Date and time, time zones, timer, environment, UUIDs.

#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "qnc/qncDateTime.h"
#include "qnc/qncLog.h"
#include "qnc/qncSystem.h"
#include "qnc/qncTimer.h"
#include "qnc/qncUUID.h"
#include "qnc/streams/memoryStream.h"

namespace {

using qnc::DateTime;
using qnc::FastString;
using qnc::System;
using qnc::Timer;
using qnc::TimeZoneInfo;
using qnc::Uuid;

std::string text(const DateTime& t) {
  return t.toXSD(true).str();
}

TEST(DateTime, ClampsItsComponents) {
  const struct {
    DateTime value;
    const char* expected;
  } rows[] = {
      {DateTime(2021, 4, 31), "2021-04-30T00:00:00.000"},
      {DateTime(2000, 2, 30), "2000-02-29T00:00:00.000"},
      {DateTime(1900, 2, 29), "1900-02-28T00:00:00.000"},
      {DateTime(2020, 0, 0), "2020-01-01T00:00:00.000"},
      {DateTime(2020, 13, 99), "2020-12-31T00:00:00.000"},
      {DateTime(0, 1, 1), "1601-01-01T00:00:00.000"},
      {DateTime(99999, 1, 1), "30827-01-01T00:00:00.000"},
      {DateTime(2020, 1, 1, 0, 99, 99, 9999), "2020-01-01T00:59:59.999"},
      // hours are clamped like minutes and not masked: 32 and more reach into the day
      {DateTime(2020, 1, 2, 24), "2020-01-02T24:00:00.000"},
      {DateTime(2020, 1, 2, 33), "2020-01-03T01:00:00.000"},
      {DateTime(2020, 1, 1, 99), "2020-01-01T27:00:00.000"},
      // raw words go through the setters
      {DateTime(uint64_t{0}), "1601-01-01T00:00:00.000"},
      {DateTime(UINT64_MAX), "30827-12-31T31:59:59.999"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(text(row.value), row.expected);
  EXPECT_EQ(DateTime().getRaw(), DateTime::kNullRaw);
  EXPECT_TRUE(DateTime(1601, 1, 1).isNull());
  EXPECT_FALSE(DateTime(1601, 1, 1, 0, 0, 0, 1).isNull());
}

TEST(DateTime, SettersChangeTheirFieldOnly) {
  DateTime t(2020, 3, 4, 5, 6, 7, 89);
  t.setYear(2021);
  t.setMonth(12);
  t.setDay(31);
  t.setHours(23);
  t.setMinutes(58);
  t.setSeconds(57);
  t.setMilliseconds(1);
  EXPECT_EQ(text(t), "2021-12-31T23:58:57.001");
}

TEST(DateTime, CountsMilliseconds) {
  const struct {
    DateTime value;
    uint64_t since1601;
    int64_t sinceEpoch;
  } rows[] = {
      {DateTime(), 0, -11644473600000},
      {DateTime(1601, 3, 1), 59 * 86'400'000ULL, -11644473600000 + 59 * 86'400'000LL},
      {DateTime(1969, 12, 31, 23, 59, 59, 999), 11644473599999, -1},
      {DateTime(1970, 1, 1), 11644473600000, 0},
      {DateTime(2000, 2, 29, 12), 11644473600000 + 951825600000, 951825600000},
      {DateTime(2000, 12, 31), 11644473600000 + 978220800000, 978220800000},
      {DateTime(2020, 3, 1), 11644473600000 + 1583020800000, 1583020800000},
      {DateTime(30827, 12, 31, 23, 59, 59, 999), 922314988799999, 910670515199999},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(text(row.value));
    EXPECT_EQ(row.value.toMilliseconds(), row.since1601);
    EXPECT_EQ(row.value.toMillisecondsSinceEpoch(), row.sinceEpoch);
    EXPECT_EQ(DateTime::fromMilliseconds(row.since1601), row.value);
  }
  EXPECT_EQ(DateTime::getDeltaMs(DateTime(1970, 1, 1), DateTime(1970, 1, 2)), -86'400'000);
  EXPECT_EQ(DateTime::getMsInYear(2000) - DateTime::getMsInYear(1900), 86'400'000U);
}

TEST(DateTime, EveryDayOfFourCenturiesComesBack) {
  uint64_t ms = DateTime(1899, 1, 1).toMilliseconds();
  DateTime before = DateTime::fromMilliseconds(ms);
  for (int day = 1; day < 366 * 402; ++day) {
    ms += 86'400'000;
    const DateTime now = DateTime::fromMilliseconds(ms);
    ASSERT_EQ(now.toMilliseconds(), ms) << text(now);
    ASSERT_TRUE(now > before && now.isAfter(before) && before.isBefore(now)) << text(now);
    ASSERT_TRUE(now.day() == before.day() + 1 || now.day() == 1) << text(now);
    before = now;
  }
}

TEST(DateTime, CountsLeapYears) {
  EXPECT_EQ(DateTime::numLeapYearsBefore(2001, 2000), 1U);
  EXPECT_EQ(DateTime::numLeapYearsBefore(2000, 1601), 96U);
  EXPECT_EQ(DateTime::numLeapYearsBefore(2000, 2000), 0U);
  EXPECT_EQ(DateTime::numLeapYearsBefore(1999, 2000), 0U);
  EXPECT_EQ(DateTime::numLeapYearsBefore(2000, 0), 0U);
  EXPECT_EQ(DateTime::numLeapYearsBefore(0, 0), 0U);
}

TEST(DateTime, AddsSecondsAndSaturates) {
  DateTime t(2019, 12, 31, 23, 59, 59, 5);
  t.addSeconds(1);
  EXPECT_EQ(text(t), "2020-01-01T00:00:00.005");
  t.addSeconds(-86'400LL * 366);
  EXPECT_EQ(text(t), "2018-12-31T00:00:00.005");
  t.addSeconds(INT64_MIN);
  EXPECT_TRUE(t.isNull());
  t.addSeconds(INT64_MAX);
  EXPECT_EQ(t.year(), 30827U);
}

TEST(DateTime, WritesXSD) {
  const DateTime t(2020, 3, 4, 5, 6, 7, 89);
  EXPECT_EQ(t.toXSD(), "2020-03-04T05:06:07");
  EXPECT_EQ(t.toXSD(true), "2020-03-04T05:06:07.089");
  const struct {
    int32_t bias;
    bool daylight;
    int32_t daylightBias;
    const char* expected;
  } rows[] = {
      {0, false, 0, "+00:00"},    {330, false, 60, "+05:30"}, {60, true, 60, "+02:00"},
      {-210, false, 0, "-03:30"}, {-30, false, 0, "+00:30"},  {120, true, -60, "+01:00"},
  };
  for (const auto& row : rows) {
    const TimeZoneInfo zone{row.bias, row.daylight, row.daylightBias, {}, {}};
    EXPECT_EQ(t.toXSD(false, &zone), std::string("2020-03-04T05:06:07") + row.expected);
  }
  std::ostringstream stream;
  stream << t;
  EXPECT_EQ(stream.str(), "2020-03-04T05:06:07");
}

TEST(DateTime, ReadsXSD) {
  const struct {
    const char* text;
    const char* expected;
  } rows[] = {
      {"2020-01-01T10:00:00", "2020-01-01T10:00:00.000"},
      {"2020-01-01T10:00:00Z", "2020-01-01T10:00:00.000"},
      {"2020-01-01T10:00:00.250Z", "2020-01-01T10:00:00.250"},
      {"2020-01-01T10:00:00.5", "2020-01-01T10:00:00.005"},  // digits count as milliseconds
      // the offset is added as written
      {"2020-01-01T10:00:00+02:00", "2020-01-01T12:00:00.000"},
      {"2020-01-01T01:00:00.125-02:30", "2019-12-31T22:30:00.125"},
      {"2020-01-01T10:00:00+02", "2020-01-01T12:00:00.000"},
      // clamped, not refused
      {"2020-02-31T99:99:99", "2020-03-01T03:59:59.000"},
      {"-5-01-01T00:00:00", "1601-01-01T00:00:00.000"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(text(DateTime::fromXSD(row.text)), row.expected) << row.text;
  }
}

TEST(DateTime, LogsTextsThatAreNoDates) {
  using qnc::debug::Log;
  std::vector<std::string> lines;
  const auto former = Log::setSink([&](const Log::Record& record, std::string_view line) {
    EXPECT_EQ(record.level, qnc::debug::Level::ERROR);
    EXPECT_NE(line.find(record.message), line.npos);
    lines.emplace_back(record.message);
  });
  for (const char* bad :
       {"", "yesterday", "2020-01-01", "2020-01-01T10:00", "12345678901-01-01T00:00:00"}) {
    EXPECT_TRUE(DateTime::fromXSD(bad).isNull()) << bad;
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), std::string("Failed to parse date '") + bad + "'");
  }
  Log::setSink(former);
  EXPECT_EQ(lines.size(), 5U);
}

class InTimeZone {
 public:
  explicit InTimeZone(const char* zone)
      : lock_(System::mutex()),
        former_(System::envVar("TZ")),
        existed_(System::envVarExists("TZ")) {
    EXPECT_TRUE(System::setEnv("TZ", zone));
  }
  ~InTimeZone() {
    EXPECT_TRUE(existed_ ? System::setEnv("TZ", former_) : System::deleteEnv("TZ"));
    ::tzset();
  }

 private:
  std::lock_guard<std::recursive_mutex> lock_;
  FastString former_;
  bool existed_;
};

TEST(System, TellsLocalTimeAndItsZone) {
  const InTimeZone zone("CET-1CEST,M3.5.0,M10.5.0/3");
  const std::time_t winter = 1579089600;  // 2020-01-15T12:00:00Z
  const std::time_t summer = 1594814400;  // 2020-07-15T12:00:00Z
  bool daylight = true;
  EXPECT_EQ(System::getLocalDateTime(winter, &daylight), DateTime(2020, 1, 15, 13));
  EXPECT_FALSE(daylight);
  EXPECT_EQ(System::getLocalDateTime(summer, &daylight), DateTime(2020, 7, 15, 14));
  EXPECT_TRUE(daylight);
  EXPECT_EQ(System::getAbsoluteDateTime(summer), DateTime(2020, 7, 15, 12));

  TimeZoneInfo info;
  EXPECT_TRUE(System::timeZoneInfo(info, winter));
  EXPECT_EQ(info.bias, 60);
  EXPECT_FALSE(info.isDaylightTime);
  EXPECT_EQ(info.daylightBias, 0);
  EXPECT_EQ(info.standardName, "CET");
  EXPECT_EQ(info.daylightName, "CEST");
  EXPECT_TRUE(System::timeZoneInfo(info, summer));
  EXPECT_EQ(info.bias, 120);
  EXPECT_TRUE(info.isDaylightTime);
  EXPECT_EQ(info.daylightBias, -60);
}

TEST(System, ATimeWithoutCalendarIsNull) {
  EXPECT_TRUE(System::getLocalDateTime(std::numeric_limits<std::time_t>::max()).isNull());
  EXPECT_TRUE(System::getAbsoluteDateTime(std::numeric_limits<std::time_t>::max()).isNull());
}

TEST(System, ChangesTheEnvironment) {
  const std::lock_guard outer(System::mutex());  // recursive: callers may hold it
  EXPECT_FALSE(System::envVarExists("QNC_TEST"));
  EXPECT_EQ(System::envVar("QNC_TEST"), "");
  EXPECT_TRUE(System::setEnv("QNC_TEST", ""));
  EXPECT_TRUE(System::envVarExists("QNC_TEST"));
  EXPECT_TRUE(System::setEnv("QNC_TEST", "x=y"));
  EXPECT_EQ(System::envVar("QNC_TEST"), "x=y");
  EXPECT_TRUE(System::deleteEnv("QNC_TEST"));
  EXPECT_FALSE(System::envVarExists("QNC_TEST"));
  EXPECT_FALSE(System::setEnv("", "x"));
  EXPECT_EQ(System::getSystemErrorString(ENOENT), "No such file or directory");
}

TEST(Timer, ConvertsTicks) {
  uint64_t now = 1000;
  Timer timer({[&] { return now; }, 1000.0});
  EXPECT_DOUBLE_EQ(timer.getTime(), 1.0);
  EXPECT_EQ(timer.getTimeNS(), 1'000'000'000U);
  EXPECT_EQ(timer.getTimeNS(UINT64_MAX), UINT64_MAX);
  now = 1500;
  Timer copy = timer;  // shares the state
  EXPECT_DOUBLE_EQ(copy.getDeltaTime(), 0.5);
  now = 1501;
  EXPECT_EQ(timer.getDeltaTimeNS(), 1'000'000U);
  EXPECT_EQ(timer.getDeltaTimeNS(), 0U);
}

TEST(Timer, StandsStillWithoutAFirstTickAndCountsSecondsWithoutARate) {
  uint64_t now = 0;
  Timer timer({[&] { return now; }, 0});
  now = 5;
  EXPECT_EQ(timer.getDeltaTime(), 0.0);
  EXPECT_EQ(timer.getDeltaTimeNS(), 0U);
  EXPECT_DOUBLE_EQ(timer.getTime(), 5.0);
}

TEST(Timer, PlatformTicksAreNanoseconds) {
  const Timer timer;
  EXPECT_EQ(timer.getTimeNS(123456789), 123456789U);
  const uint64_t before = timer.getTickCount();
  EXPECT_GT(before, 0U);
  EXPECT_GE(timer.getTickCount(), before);
}

TEST(Uuid, ReadsAndWritesText) {
  const char* canonical = "00112233-4455-6677-8899-aabbccddeeff";
  const struct {
    const char* text;
    const char* expected;
  } rows[] = {
      {"00112233-4455-6677-8899-aabbccddeeff", canonical},
      {"0x00112233-4455-6677-8899-AABBCCDDEEFF", canonical},
      {"00112233445566778899aabbccddeeff", canonical},
      {"00112233-4455-6677-8899-aabbccddeeff-0102", canonical},  // too much
      {"0011", "00110000-0000-0000-0000-000000000000"},
      {"0011-2", "00110000-0000-0000-0000-000000000000"},  // half a byte
      {"", "00000000-0000-0000-0000-000000000000"},
      {"none", "00000000-0000-0000-0000-000000000000"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(Uuid(row.text).toString(), row.expected) << row.text;
  EXPECT_EQ(Uuid(canonical).toHEX(), "00112233445566778899AABBCCDDEEFF");
  EXPECT_EQ(Uuid(canonical).playreadyToCenc().toString(), "33221100-5544-7766-8899-aabbccddeeff");
  EXPECT_EQ(Uuid(canonical).playreadyToCenc().playreadyToCenc(), Uuid(canonical));
}

TEST(Uuid, IsAValue) {
  EXPECT_TRUE(Uuid().isNil());
  EXPECT_EQ(Uuid("\x01\x02", 2).toHEX(), "01020000000000000000000000000000");
  EXPECT_LT(Uuid("7f"), Uuid("80"));  // unsigned
  const Uuid uuid("00112233-4455-6677-8899-aabbccddeeff");
  EXPECT_EQ(Uuid(uuid.toByteArray()), uuid);
  EXPECT_EQ(uuid[15], 0xFF);

  qnc::MemoryStream stream;
  EXPECT_EQ(uuid.writeToStream(stream), qnc::Result::Success);
  EXPECT_EQ(stream.size(), 16U);
  ASSERT_EQ(stream.seek(1), qnc::Result::Success);
  Uuid read = uuid;
  EXPECT_EQ(read.readFromStream(stream), qnc::Result::EndOfFile);
  EXPECT_EQ(read, uuid);  // as it was
  read = Uuid();
  ASSERT_EQ(stream.seek(0), qnc::Result::Success);
  EXPECT_EQ(read.readFromStream(stream), qnc::Result::Success);
  EXPECT_EQ(read, uuid);
}

TEST(Uuid, RandomOnesDifferInEveryByte) {
  std::set<Uuid> seen;
  std::set<unsigned> values[Uuid::kSize];
  for (int i = 0; i < 64; ++i) {
    const Uuid uuid = Uuid::generateRandom();
    EXPECT_TRUE(seen.insert(uuid).second);
    for (size_t b = 0; b < Uuid::kSize; ++b)
      values[b].insert(uuid[b] >> 4);
  }
  // No version and no variant: no byte has a fixed upper half.
  for (const auto& halves : values)
    EXPECT_GT(halves.size(), 4U);
}

}  // namespace
