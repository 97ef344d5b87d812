#include <cstdint>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "mpl/Exception.h"
#include "mpl/ReferenceURI.h"
#include "mpl/dash/TemplateURI.h"

namespace mpl::dash {
namespace {

TEST(TemplateURITest, BuildsOrTellsWhy) {
  constexpr int64_t kTime = 9876543210;
  struct Row {
    const char* text;
    const char* expected;  // the URL, or the message after "!"
  };
  const Row rows[] = {
      // Identifiers, with representation "v$1", number 42, bandwidth 800000.
      {"seg-$Number%05d$.m4s", "seg-00042.m4s"},
      {"$Number$", "42"},
      {"$RepresentationID$/$Bandwidth$/$Time$", "v$1/800000/9876543210"},
      {"$Time%014d$_$Bandwidth%07d$", "00009876543210_0800000"},
      {"$Number%01d$$Number%02d$", "4242"},
      {"$Number%00d$", "42"},
      {"$Number%0003d$", "042"},
      {"plain.mp4", "plain.mp4"},
      {"", ""},
      // Dollars: what was put in is not looked at again.
      {"a$$b", "a$b"},
      {"$$$$", "$$"},
      {"$$$Number$$$", "$42$"},
      {"$RepresentationID$Number$", "!Mismatching $-tokens in template URI"},
      {"a$Number", "!Mismatching $-tokens in template URI"},
      {"$", "!Mismatching $-tokens in template URI"},
      {"$$$", "!Mismatching $-tokens in template URI"},
      // Widths.
      {"$Number%5d$", "!Invalid template format: %5d"},
      {"$Number%0d$", "!Invalid template format: %0d"},
      {"$Number%d$", "!Invalid template format: %d"},
      {"$Number%05x$", "!Invalid template format: %05x"},
      {"$Number%05$", "!Invalid template format: %05"},
      {"$Number%$", "!Invalid template format: %"},
      {"$Number%0 5d$", "!Invalid template format: %0 5d"},
      {"$Number%0-5d$", "!Invalid template format: %0-5d"},
      {"$Number%05d%05d$", "!Invalid template format: %05d%05d"},
      {"$Number%05dd$", "!Invalid template format: %05dd"},
      {"$Time%014lld$", "!Invalid template format: %014lld"},
      {"$Number%01001d$", "!Invalid template format: %01001d"},
      {"$Number%09999999999d$", "!Invalid template format: %09999999999d"},
      {"$Foo%5d$", "!Invalid template format: %5d"},
      // Names.
      {"$RepresentationID%02d$", "!Invalid template: $RepresentationID%02d$"},
      {"$Foo$", "!Invalid template: $Foo$"},
      {"$number$", "!Invalid template: $number$"},
      {"$SubNumber$", "!Invalid template: $SubNumber$"},
      {"$%05d$", "!Invalid template: $%05d$"},
      {"x$Number$ $Foo$", "!Invalid template: $Foo$"},
  };
  for (const Row& row : rows) {
    std::string result;
    try {
      result = TemplateURI::build(row.text, "v$1", 42, 800000, kTime).str();
    } catch (const InvalidArgumentException& e) {
      result = std::string("!") + e.what();
    }
    EXPECT_EQ(result, row.expected) << row.text;
  }
}

TEST(TemplateURITest, PrintsExtremeValuesAsPrintf) {
  constexpr int32_t kMin32 = std::numeric_limits<int32_t>::min();
  constexpr int64_t kMin64 = std::numeric_limits<int64_t>::min();
  EXPECT_EQ(TemplateURI::build("$Number$ $Bandwidth$ $Time$", "", kMin32, -1, kMin64),
            "-2147483648 -1 -9223372036854775808");
  EXPECT_EQ(TemplateURI::build("$Number%05d$ $Time%022d$", "", -42, 0, kMin64),
            "-0042 -009223372036854775808");
  EXPECT_EQ(TemplateURI::build("$Number%01000d$", "", 7, 0, 0), std::string(999, '0') + "7");
}

TEST(TemplateURITest, RefusesWhatGrowsWithoutBound) {
  std::string many;
  for (int i = 0; i < 2000; ++i)
    many += "$Number%01000d$";
  EXPECT_THROW((void)TemplateURI::build(many, "", 1, 1, 1), InvalidArgumentException);
  many.clear();
  for (int i = 0; i < 2000; ++i)
    many += "$RepresentationID$";
  EXPECT_THROW((void)TemplateURI::build(many, std::string(1000, 'x'), 1, 1, 1),
               InvalidArgumentException);
  EXPECT_NO_THROW((void)TemplateURI::build(many, std::string(100, 'x'), 1, 1, 1));
}

// Resolving the template once gives what resolving each URL gives.
TEST(TemplateURITest, ResolvesBeforehandAsAfterwards) {
  const char* const texts[] = {
      "seg-$Number$.m4s",
      "../a/$Number$/./$Time%05d$.m4s?x=$Number$#y/../$Time$",
      "$Number$",
      "a$Number$/../b$Number$",
      "$Number$:x",
      "a$Number$:x/../y",
      "/$Number$/../../$Time$",
      "//$Number$/x",
      "http://h/$Number$/../$Time$",
      "?$Number$",
      "#$Number$",
      "",
      "1000000000000000002$Number$",
      "$Number$1000000000000000002",
      "..$Number$/x",
      "../$RepresentationID$/$Number$",
      "$$/$Number$",
      ".$Number$./..",
  };
  const char* const bases[] = {
      "", "d/", "d/e/f.mpd?q#f", "../x", "http://h", "http://h/a/b", "/abs/", "?q", "..", "a:b"};
  for (const char* text : texts) {
    for (const char* base : bases) {
      const TemplateURI relative(text, "..", 800000);
      const auto resolved = relative.resolvedAgainst(base);
      for (const int32_t number : {0, 7, -7, 1234567890}) {
        std::string once;
        std::string each;
        relative.append(each, number, int64_t{number} * 90000);
        if (!resolved) continue;
        resolved->append(once, number, int64_t{number} * 90000);
        EXPECT_EQ(once, ReferenceURI::resolve(each, base)) << text << " against " << base;
      }
      EXPECT_EQ(resolved.has_value(),
                std::string_view(text).find("1000000000000000002") == std::string_view::npos)
          << text;
    }
  }
}

TEST(ReferenceResolverTest, GivesWhatResolvingEachReferenceGives) {
  const char* const references[] = {"a",      "a/b.mp4", "",    ".",     "..",     "./a",
                                    "a/../b", "a/./b",   "/a",  "//h/a", "a:b",    "1:b",
                                    "a?b",    "a#b",     "?b",  "#b",    ".a",     "a/.b",
                                    "a//b",   "a b",     "%zz", "...",   "a/b/..", "http://h/../x",
                                    "{|}",    "a/b:c"};
  const char* const bases[] = {"",     "d",        "d/",           "d/e/f.mpd?q#f",
                               "../x", "http://h", "http://h/a/b", "/a/b",
                               "?q",   "#f",       "..",           "a:b/c"};
  for (const char* base : bases) {
    const ReferenceResolver resolver(base);
    for (const char* reference : references) {
      std::string out = "left over";
      resolver.resolve(reference, out);
      EXPECT_EQ(out, ReferenceURI::resolve(reference, base)) << reference << " against " << base;
    }
  }
}

}  // namespace
}  // namespace mpl::dash
