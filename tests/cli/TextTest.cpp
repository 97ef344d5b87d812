#include <gtest/gtest.h>

#include "cli/DirectoryServer.h"
#include "cli/ManifestLoader.h"
#include "cli/Progress.h"
#include "cli/Text.h"

namespace {

TEST(TextTest, NothingFromOutsideDrivesTheTerminal) {
  const std::pair<std::string, std::string> rows[] = {
      {"plain", "plain"},
      {"", ""},
      {"caf\xC3\xA9 \xE6\x97\xA5 \xF0\x9F\x8E\xAC", "caf\xC3\xA9 \xE6\x97\xA5 \xF0\x9F\x8E\xAC"},
      // Escape sequences, 7 bit and 8 bit; bell, backspace, DEL, NUL.
      {"\x1b[2J\x1b]0;x\x07", "\xEF\xBF\xBD[2J\xEF\xBF\xBD]0;x\xEF\xBF\xBD"},
      {"\xC2\x9B"
       "2J",
       "\xEF\xBF\xBD"
       "2J"},
      {std::string("a\0b\x7f\b", 5),
       "a\xEF\xBF\xBD"
       "b\xEF\xBF\xBD\xEF\xBF\xBD"},
      // One line, without blanks at the end.
      {"a\nb\r\tc\t", "a b  c"},
      {"a\xE2\x80\xA8"
       "b",
       "a b"},
      // Overrides of the writing direction.
      {"a\xE2\x80\xAE"
       "b\xE2\x81\xA6",
       "a\xEF\xBF\xBD"
       "b\xEF\xBF\xBD"},
      // No UTF-8: overlong, surrogate, cut off, lone continuation, above U+10FFFF.
      {"\xC0\xAF", "\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"\xED\xA0\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"\xE2\x82", "\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"\x80x", "\xEF\xBF\xBDx"},
      {"\xF5\x80\x80\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
  };
  for (const auto& [input, expected] : rows)
    EXPECT_EQ(cli::forTerminal(input), expected) << input;
}

TEST(TextTest, LinesFitTheTerminal) {
  EXPECT_EQ(cli::fitted("abcdef", 6), "abcdef");
  EXPECT_EQ(cli::fitted("abcdefg", 6), "abc...");
  EXPECT_EQ(cli::fitted("\xE6\x97\xA5\xE6\x97\xA5\xE6\x97\xA5", 5), "\xE6\x97\xA5...")
      << "wide characters take two";
  EXPECT_EQ(cli::padded("ab", 4), "ab  ");
  EXPECT_EQ(cli::padded("e\xCC\x81", 3), "e\xCC\x81  ");
}

TEST(TextTest, FiguresRead) {
  EXPECT_EQ(cli::formatBytes(-1), "?");
  EXPECT_EQ(cli::formatBytes(0), "0 B");
  EXPECT_EQ(cli::formatBytes(999), "999 B");
  EXPECT_EQ(cli::formatBytes(1000), "1.0 kB");
  EXPECT_EQ(cli::formatBytes(9949), "9.9 kB");
  EXPECT_EQ(cli::formatBytes(9950), "10 kB");
  EXPECT_EQ(cli::formatBytes(999'499), "999 kB");
  EXPECT_EQ(cli::formatBytes(999'500), "1.0 MB");
  EXPECT_EQ(cli::formatBytes(INT64_MAX), "9.2 EB");
  EXPECT_EQ(cli::formatBitrate(110'000), "110 kbit/s");
  EXPECT_EQ(cli::formatSeconds(16), "0:16");
  EXPECT_EQ(cli::formatSeconds(3661.4), "1:01:01");
  EXPECT_EQ(cli::formatSeconds(-1), "?");
  EXPECT_EQ(cli::formatSeconds(1e300), "?");
}

TEST(ProgressTest, ShowsTheWholeAndEveryQuality) {
  using State = cli::QualityFigures::State;
  cli::Figures figures;
  figures.qualities = {{"video 720p", State::Active, 500'000, 2'000'000, true},
                       {"audio en", State::Complete, 300'000, 300'000, false}};
  const auto lines = cli::progressLines(figures, 100'000, 24);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], " 34%  800 kB of ~2.3 MB  100 kB/s  0:15 left");
  EXPECT_EQ(lines[1], "   25%  video 720p                          500 kB of ~2.0 MB");
  EXPECT_EQ(lines[2], "  100%  audio en                            300 kB");

  figures.waiting = "waiting for the network";
  EXPECT_EQ(cli::progressLines(figures, 1, 24)[0],
            " 34%  800 kB of ~2.3 MB  waiting for the network");

  // An expectation that is exceeded, or unknown, is never shown as done.
  figures.waiting.clear();
  figures.qualities[0].bytes = 2'500'000;
  EXPECT_EQ(cli::progressLines(figures, 0, 24)[1],
            "   99%  video 720p                          2.5 MB of ~2.5 MB");
  figures.qualities[0].expected = -1;
  EXPECT_EQ(cli::progressLines(figures, 0, 24)[0], "  ?%  2.8 MB");

  // A small terminal shows what is not done yet.
  EXPECT_EQ(cli::progressLines(figures, 0, 4)[1],
            "    ?%  video 720p                          2.5 MB");
  EXPECT_EQ(cli::progressLines(figures, 0, 4)[2], "  and 1 more");
}

TEST(ProgressTest, RateFollowsTheLastSeconds) {
  cli::RateMeter rate;
  EXPECT_EQ(rate.bytesPerSecond(), 0);
  rate.add(0, 1'000'000);  // stored before: no speed of this run
  rate.add(1, 1'000'100);
  EXPECT_EQ(rate.bytesPerSecond(), 100);
  for (int second = 2; second <= 20; ++second)
    rate.add(second, 1'000'100 + (second - 1) * 1000);
  EXPECT_EQ(rate.bytesPerSecond(), 1000);
  rate.add(21, 0);  // a failed resource counts nothing any more
  EXPECT_EQ(rate.bytesPerSecond(), 0);
}

TEST(ManifestLoaderTest, BaseIsTheDirectoryOfTheManifest) {
  const std::pair<const char*, const char*> rows[] = {
      {"http://h/a/b.mpd", "http://h/a/"},
      {"http://h/a/", "http://h/a/"},
      {"http://h/a/b.mpd?x=/y#/z", "http://h/a/"},
      {"http://h", "http://h/"},
      {"http://h?q", "http://h/"},
      {"http://h/m", "http://h/"},
  };
  for (const auto& [url, base] : rows)
    EXPECT_EQ(cli::baseURLOf(url), base) << url;
}

TEST(DirectoryServerTest, ReadsByteRanges) {
  using Kind = cli::ByteRange::Kind;
  const std::tuple<const char*, Kind, uint64_t, uint64_t> rows[] = {
      {"", Kind::Whole, 0, 100},
      {"bytes=0-0", Kind::Part, 0, 1},
      {"bytes=10-19", Kind::Part, 10, 10},
      {"bytes=90-", Kind::Part, 90, 10},
      {"bytes=90-500", Kind::Part, 90, 10},
      {"bytes=-10", Kind::Part, 90, 10},
      {"bytes=-500", Kind::Part, 0, 100},
      {"bytes=100-", Kind::Unsatisfiable, 0, 0},
      {"bytes=-0", Kind::Unsatisfiable, 0, 0},
      {"bytes=5-4", Kind::Whole, 0, 100},
      {"bytes=a-4", Kind::Whole, 0, 100},
      {"bytes=0-1,5-6", Kind::Whole, 0, 100},
      {"items=0-1", Kind::Whole, 0, 100},
      {"bytes=0-18446744073709551616", Kind::Whole, 0, 100},
      {"bytes=0-18446744073709551615", Kind::Part, 0, 100},
  };
  for (const auto& [header, kind, first, length] : rows) {
    EXPECT_EQ(cli::parseByteRange(header, 100), (cli::ByteRange{kind, first, length})) << header;
  }
  EXPECT_EQ(cli::parseByteRange("bytes=0-", 0).kind, Kind::Unsatisfiable);
}

}  // namespace
