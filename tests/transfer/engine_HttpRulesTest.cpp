#include <gtest/gtest.h>

#include "platform/transfer/HttpRules.h"
#include "platform/transfer/RateLimiter.h"
#include "platform/transfer/RetryPolicy.h"

namespace {

using namespace platform;

HTTPHeaders headers(const std::vector<std::pair<std::string, std::string>>& fields) {
  HTTPHeaders result;
  for (const auto& [name, value] : fields)
    result.set(name, value);
  return result;
}

TEST(HttpRules, ReadsRanges) {
  const std::pair<const char*, std::string> rows[] = {
      {"bytes=0-", "bytes=0-"},
      {"bytes=5-9", "bytes=5-9"},
      {" Bytes=5 - 9 ", "bytes=5-9"},
      {"bytes=7-7", "bytes=7-7"},
      {"bytes=18446744073709551615-", "bytes=18446744073709551615-"},
      // No single range with a first position.
      {"bytes=-500", ""},
      {"bytes=0-1,4-5", ""},
      {"bytes=9-5", ""},
      {"bytes=18446744073709551616-", ""},
      {"bytes=a-b", ""},
      {"bytes=+1-2", ""},
      {"items=0-5", ""},
      {"bytes", ""},
      {"", ""},
  };
  for (const auto& [text, expected] : rows) {
    const auto range = parseRange(text);
    EXPECT_EQ(expected, range ? formatRange(*range) : "") << text;
  }
}

TEST(HttpRules, ReadsContentRanges) {
  struct Row {
    const char* text;
    std::optional<ContentRange> expected;
  };
  const Row rows[] = {
      {"bytes 0-9/10", ContentRange{ByteRange{0, 9}, 10}},
      {"bytes 5-9/*", ContentRange{ByteRange{5, 9}, std::nullopt}},
      {"bytes */10", ContentRange{std::nullopt, 10}},
      {"bytes 0-10/10", std::nullopt},  // ends behind the end
      {"bytes 9-5/10", std::nullopt},
      {"bytes 5-/10", std::nullopt},
      {"bytes */*", std::nullopt},
      {"bytes 0-18446744073709551615/*", std::nullopt},  // its length has no number
      {"bytes=0-9/10", std::nullopt},
      {"bytes 0-9", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& row : rows)
    EXPECT_EQ(row.expected, parseContentRange(row.text)) << row.text;
}

TEST(HttpRules, TrustsStrongValidatorsOnly) {
  const std::string monday = "Mon, 06 Nov 2023 10:00:00 GMT";
  const std::string secondLater = "Mon, 06 Nov 2023 10:00:01 GMT";
  const std::pair<HTTPHeaders, std::string> rows[] = {
      {headers({{"ETag", "\"abc\""}}), "\"abc\""},
      {headers({{"etag", " \"\" "}}), "\"\""},
      {headers({{"ETag", "W/\"abc\""}}), ""},
      {headers({{"ETag", "abc"}}), ""},
      {headers({{"Last-Modified", monday}, {"Date", secondLater}}), monday},
      {headers({{"Last-Modified", monday}, {"Date", monday}}), ""},
      {headers({{"Last-Modified", monday}}), ""},
      {headers({{"Last-Modified", "yesterday"}, {"Date", monday}}), ""},
      // A weak tag says that there may be another version of the same second.
      {headers({{"ETag", "W/\"a\""}, {"Last-Modified", monday}, {"Date", secondLater}}), ""},
      {headers({{"ETag", "\"a\""}, {"Last-Modified", monday}, {"Date", secondLater}}), "\"a\""},
      {headers({}), ""},
  };
  for (const auto& [fields, expected] : rows)
    EXPECT_EQ(expected, strongValidator(fields));
}

TEST(HttpRules, ReadsRetryAfterInBothForms) {
  const int64_t now = *parseHTTPDate("Mon, 06 Nov 2023 10:00:00 GMT");
  const std::pair<const char*, std::optional<int64_t>> rows[] = {
      {"120", 120},
      {" 0 ", 0},
      {"Mon, 06 Nov 2023 10:00:30 GMT", 30},
      {"Monday, 06-Nov-23 10:00:30 GMT", 30},
      {"Mon, 06 Nov 2023 09:00:00 GMT", 0},
      {"-5", std::nullopt},
      {"soon", std::nullopt},
      {"99999999999999999999", std::nullopt},
  };
  for (const auto& [text, expected] : rows) {
    auto fields = headers({{"Retry-After", text}});
    EXPECT_EQ(expected, retryAfterSeconds(fields, now)) << text;
    fields.set("Date", "Mon, 06 Nov 2023 10:00:00 GMT");
    EXPECT_EQ(expected, retryAfterSeconds(fields, now + 3600)) << text << " by the server's clock";
  }
}

struct JudgeRow {
  const char* what;
  RangeAsked asked;
  int status;
  HTTPHeaders fields;
  Verdict expected;
};

RangeAsked resumed(uint64_t offset, int64_t expected, std::optional<ByteRange> own = {}) {
  RangeAsked asked;
  asked.hasOwnRange = own.has_value();
  asked.own = own;
  asked.offset = offset;
  asked.validator = "\"v1\"";
  asked.expected = expected;
  if (!own && expected >= 0) asked.total = static_cast<uint64_t>(expected);
  return asked;
}

RangeAsked ranged(uint64_t first, std::optional<uint64_t> last) {
  RangeAsked asked;
  asked.hasOwnRange = true;
  asked.own = ByteRange{first, last};
  return asked;
}

HTTPHeaders part(const std::string& range, const std::string& tag = "",
                 const std::string& date = "") {
  auto result = headers({{"Content-Range", "bytes " + range}});
  if (!date.empty()) result.set("Last-Modified", date);
  if (!tag.empty()) result.set("ETag", tag);
  return result;
}

TEST(HttpRules, JudgesWhatAResponseMeansForTheBytes) {
  RangeAsked unread;
  unread.hasOwnRange = true;
  const std::string kDate = "Mon, 06 Nov 2023 10:00:00 GMT";
  RangeAsked dated = resumed(40, 100);
  dated.validator = kDate;
  const JudgeRow rows[] = {
      // Nothing is there.
      {"whole", {}, 200, {}, Verdict::StartOver},
      {"error page", {}, 404, {}, Verdict::StartOver},
      {"416 to a range of its own", ranged(50, 60), 416, part("*/10"), Verdict::StartOver},
      {"206 to a range of its own", ranged(10, 19), 206, part("10-19/100"), Verdict::StartOver},
      {"range ends at the end", ranged(90, 199), 206, part("90-99/100"), Verdict::StartOver},
      {"open range", ranged(10, {}), 206, part("10-99/100"), Verdict::StartOver},
      {"open range, total unknown", ranged(10, {}), 206, part("10-99/*"), Verdict::StartOver},
      {"open range cut short", ranged(10, {}), 206, part("10-50/100"), Verdict::Bad},
      {"another start", ranged(10, 19), 206, part("11-19/100"), Verdict::Bad},
      {"another end", ranged(10, 19), 206, part("10-18/100"), Verdict::Bad},
      {"more than asked", ranged(10, 19), 206, part("10-20/100"), Verdict::Bad},
      {"more to be asked for", ranged(10, 19), 206, part("10-15/*"), Verdict::StartOver},
      {"two lengths", {}, 200, headers({{"Content-Length", "9, 10"}}), Verdict::Bad},
      {"a length twice", {}, 200, headers({{"Content-Length", "9, 9"}}), Verdict::StartOver},
      {"206 without Content-Range", ranged(10, 19), 206, {}, Verdict::Bad},
      {"206 nobody asked for", {}, 206, part("5-9/10"), Verdict::Bad},
      {"206 of everything", {}, 206, part("0-9/10"), Verdict::StartOver},
      {"200 to a range", ranged(10, 19), 200, {}, Verdict::StartOver},
      {"a range that is the application's matter", unread, 206, {}, Verdict::StartOver},
      // A part is there.
      {"continues", resumed(40, 100), 206, part("40-99/100", "\"v1\""), Verdict::Continue},
      {"no tag told", resumed(40, 100), 206, part("40-99/100"), Verdict::FromZero},
      {"total unknown", resumed(40, -1), 206, part("40-99/100", "\"v1\""), Verdict::Continue},
      {"total unknown now", resumed(40, 100), 206, part("40-79/*", "\"v1\""), Verdict::Continue},
      {"beyond the end", resumed(40, 100), 206, part("40-100/*", "\"v1\""), Verdict::FromZero},
      {"date", dated, 206, part("40-99/100", "", kDate), Verdict::Continue},
      {"no date, length known", dated, 206, part("40-99/100"), Verdict::Continue},
      {"no date, length not told", dated, 206, part("40-99/*"), Verdict::FromZero},
      {"another date", dated, 206, part("40-99/100", "", "yesterday"), Verdict::FromZero},
      {"tag beside a date", dated, 206, part("40-99/100", "\"v1\"", kDate), Verdict::FromZero},
      {"another version", resumed(40, 100), 206, part("40-99/100", "\"v2\""), Verdict::FromZero},
      {"weaker version", resumed(40, 100), 206, part("40-99/100", "W/\"v1\""), Verdict::FromZero},
      {"another start", resumed(40, 100), 206, part("0-99/100"), Verdict::FromZero},
      {"another total", resumed(40, 100), 206, part("40-119/120"), Verdict::FromZero},
      {"another end", resumed(40, 100), 206, part("40-98/100"), Verdict::FromZero},
      {"no Content-Range", resumed(40, 100), 206, {}, Verdict::FromZero},
      {"starts over", resumed(40, 100), 200, {}, Verdict::StartOver},
      {"range gone", resumed(40, 100), 401, {}, Verdict::StartOver},
      {"range of a range", resumed(5, 10, ByteRange{10, 19}), 206, part("15-19/100", "\"v1\""),
       Verdict::Continue},
      {"range of a range, from its start", resumed(5, 10, ByteRange{10, 19}), 206,
       part("10-19/100"), Verdict::FromZero},
      // 416
      {"nothing is missing", resumed(100, -1), 416, part("*/100"), Verdict::Whole},
      {"of another version", resumed(100, -1), 416, part("*/100", "\"v2\""), Verdict::FromZero},
      {"it became shorter", resumed(100, -1), 416, part("*/50"), Verdict::FromZero},
      {"no length told", resumed(100, -1), 416, {}, Verdict::FromZero},
      {"range whole at the end of the file", resumed(10, -1, ByteRange{90, 199}), 416,
       part("*/100"), Verdict::Whole},
  };
  for (const auto& row : rows)
    EXPECT_EQ(row.expected, judgeResponse(row.asked, row.status, row.fields))
        << row.what << " " << row.status;
}

TEST(HttpRules, RefusesPartsThatContradictThemselves) {
  auto fields = part("10-19/100");
  fields.set("Content-Length", "11");
  EXPECT_EQ(Verdict::Bad, judgeResponse(ranged(10, 19), 206, fields));
  fields.set("Content-Length", "10");
  EXPECT_EQ(Verdict::StartOver, judgeResponse(ranged(10, 19), 206, fields));
  fields.set("Content-Encoding", "gzip");
  EXPECT_EQ(Verdict::Bad, judgeResponse(ranged(10, 19), 206, fields));
}

TEST(HttpRules, MovesAnOwnRangeOn) {
  const std::optional<std::string> none;
  EXPECT_EQ(none, RangeAsked().header(none));
  EXPECT_EQ("bytes=-5", RangeAsked().header("bytes=-5"));
  EXPECT_EQ("bytes=40-", resumed(40, 100).header(none));
  EXPECT_EQ("bytes=15-19", resumed(5, 10, ByteRange{10, 19}).header("bytes=10-19"));
  EXPECT_EQ("bytes=15-", resumed(5, 10, ByteRange{10, {}}).header("bytes=10-"));
}

TEST(RetryPolicy, BacksOffExponentiallyWithJitter) {
  EXPECT_EQ(500, backOffMs(1, 0));
  EXPECT_EQ(1000, backOffMs(2, 0));
  EXPECT_EQ(16000, backOffMs(6, 0));
  EXPECT_EQ(30000, backOffMs(7, 0));
  EXPECT_EQ(30000, backOffMs(1000000, 0));
  EXPECT_EQ(251, backOffMs(1, 0.999));
  EXPECT_EQ(15000, backOffMs(20, 1));
}

TEST(RetryPolicy, StallClockRunsOnlyWhileStarted) {
  StallClock clock(100);
  EXPECT_EQ(100, clock.elapsed(5000));
  clock.start(5000);
  clock.start(6000);  // it runs already
  EXPECT_EQ(2100, clock.elapsed(7000));
  clock.stop(7000);
  EXPECT_EQ(2100, clock.elapsed(9000));
  clock.start(9000);
  clock.reset(9500);
  EXPECT_EQ(500, clock.elapsed(10000));
}

TEST(RetryPolicy, HostIsSharedByItsTasks) {
  HostHealth host;
  host.taskStarted(0);
  host.taskStarted(100);
  host.failed(700, false);
  host.taskStopped(1000);
  EXPECT_EQ(2000, host.stalledMs(2000));
  EXPECT_EQ(700, host.retryAtMs());
  host.madeProgress(2000);
  EXPECT_EQ(0, host.retryAtMs());
  EXPECT_EQ(0, host.failures());
  host.taskStopped(2500);
  EXPECT_EQ(500, host.stalledMs(9000));  // nobody tries
  // What a server asked for stands although others succeed.
  host.failed(12000, true);
  host.madeProgress(9000);
  EXPECT_EQ(12000, host.retryAtMs());
  host.madeProgress(12000);
  EXPECT_EQ(0, host.retryAtMs());
}

TEST(RateLimiter, HoldsTheRateWhateverThePieces) {
  for (const int64_t piece : {100, 1000, 16384, 65536}) {
    RateLimiter limiter(10000);
    int64_t now = 0;
    int64_t total = 0;
    while (total < 500000) {
      now = limiter.nextReadMs(now);
      limiter.take(piece, now);
      total += piece;
    }
    // The last piece is not paid back yet.
    const double rate = double(total - piece) * 1000 / double(now);
    EXPECT_NEAR(10000, rate, 500) << piece;
  }
  RateLimiter none(0);
  none.take(1 << 30, 0);
  EXPECT_TRUE(none.mayRead(0));
}

}  // namespace
