#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "mpl/Exception.h"
#include "mpl/dash/MediaPresentationDescription.h"
#include "mpl/dash/MultiSegmentRepresentation.h"
#include "mpl/dash/Parsers.h"
#include "mpl/dash/SingleSegmentRepresentation.h"

namespace mpl::dash {
namespace {

constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
constexpr int64_t kUnknown = -1;

// The first Representation of a set with the given content, against the base URL "b/".
std::shared_ptr<Representation> firstOf(const std::string& content) {
  const auto mpd = MediaPresentationDescription::parse(
      "<MPD mediaPresentationDuration='PT10S'><Period><AdaptationSet mimeType='video/mp4'>" +
          content + "</AdaptationSet></Period></MPD>",
      "b/");
  return mpd->periods().at(0)->adaptationSets().at(0)->representations().at(0);
}

std::shared_ptr<Representation> representation(const std::string& segmentElement) {
  return firstOf(segmentElement + "<Representation id='v' bandwidth='5'/>");
}

std::string print(const RangedURI& uri) {
  std::string out = uri.resolve().str();
  if (!uri.range().isWhole()) {
    out += "@" + std::to_string(uri.range().offset) + "+" + std::to_string(uri.range().length);
  }
  return out;
}

// "initialisation | number:start+duration URL | ...", times in microseconds.
std::string print(const Representation& r, int64_t periodUs) {
  std::string out = r.getInitialization().isEmpty() ? "-" : print(r.getInitialization());
  const SegmentIndex& index = r.getIndex();
  int64_t listed = 0;
  index.forEachSegment(
      index.getFirstSegmentNum(), index.getLastSegmentNum(periodUs), [&](const ListedSegment& s) {
        const RangedURI uri = index.getSegmentURL(s.number);
        EXPECT_EQ(uri.resolve(), s.uri);
        EXPECT_EQ(uri.range(), s.range);
        out += " | " + std::to_string(s.number) + ":" +
               std::to_string(index.getSegmentTimeUs(s.number)) + "+" +
               std::to_string(index.getSegmentDurationUs(s.number, periodUs)) + " " + print(uri);
        ++listed;
      });
  EXPECT_EQ(listed, index.getSegmentCount(periodUs));
  return out;
}

std::string timeline(const std::string& s) {
  qnc::xml::Document document;
  EXPECT_EQ(document.parse("<SegmentTimeline>" + s + "</SegmentTimeline>"), qnc::Result::Success);
  const SegmentTimeline timeline = parseSegmentTimeline(document.root());
  std::string out;
  uint64_t i = 0;
  for (auto cursor = timeline.cursor(); !cursor.atEnd() && i < 100; ++cursor, ++i) {
    EXPECT_EQ(cursor.index(), i);
    EXPECT_EQ(*cursor, timeline[i]);
    EXPECT_EQ(*timeline.cursor(i), timeline[i]);
    out += std::to_string((*cursor).startTime) + "+" + std::to_string((*cursor).duration) + " ";
  }
  return out + "#" + std::to_string(timeline.size());
}

TEST(SegmentTimelineTest, ExpandsRepeats) {
  struct Row {
    const char* s;
    const char* expected;
  };
  const Row rows[] = {
      {"", "#0"},
      {"<S t='100' d='10' r='2'/><S d='5'/>", "100+10 110+10 120+10 130+5 #4"},
      {"<S d='4'/><S d='6' r='1'/><S t='50' d='1'/>", "0+4 4+6 10+6 50+1 #4"},
      // The open-ended repeat adds nothing, but its time counts.
      {"<S t='7' d='2' r='-1'/>", "#0"},
      {"<S d='2'/><S t='9' d='2' r='-1'/><S d='3'/>", "0+2 9+3 #2"},
      // Malformed or out of range: the default.
      {"<S t='x' d='2' r='1.5'/><S t='99999999999999999999' d='1' r='2147483648'/>", "0+2 2+1 #2"},
      {"<S t='+5' d='-3' r='+1'/>", "5+-3 2+-3 #2"},
      {"<S/><S/>", "0+-1 -1+-1 #2"},
      {"<T d='1'/><x:S d='2'/>", "0+2 #1"},
      // Beyond 64 bits: stays at the limit.
      {"<S t='9223372036854775806' d='1' r='2'/><S d='5'/>",
       "9223372036854775806+1 9223372036854775807+1 9223372036854775807+1 9223372036854775807+5 "
       "#4"},
      {"<S t='-9223372036854775808' d='-9223372036854775808' r='1'/>",
       "-9223372036854775808+-9223372036854775808 -9223372036854775808+-9223372036854775808 #2"},
  };
  for (const Row& row : rows)
    EXPECT_EQ(timeline(row.s), row.expected) << row.s;
}

TEST(SegmentTimelineTest, AHugeRepeatCostsNothing) {
  qnc::xml::Document document;
  std::string xml = "<SegmentTimeline>";
  for (int i = 0; i < 1000; ++i)
    xml += "<S d='3' r='2147483646'/>";
  ASSERT_EQ(document.parse(xml + "</SegmentTimeline>"), qnc::Result::Success);
  const SegmentTimeline timeline = parseSegmentTimeline(document.root());
  EXPECT_EQ(timeline.size(), 2147483647000U);
  EXPECT_EQ(timeline.runCount(), 1000U);
  EXPECT_EQ(timeline[2147483646999U].startTime, 2147483646999 * 3);
}

TEST(SegmentAddressingTest, ListsSegments) {
  struct Row {
    const char* element;
    const char* expected;
  };
  const int64_t periodUs = 10000000;
  const Row rows[] = {
      // By number: the last segment lasts to the end of the period.
      {"<SegmentTemplate timescale='1000' duration='4000' media='$Number$' initialization='i'/>",
       "b/i | 1:0+4000000 b/1 | 2:4000000+4000000 b/2 | 3:8000000+2000000 b/3"},
      {"<SegmentTemplate duration='5' startNumber='0' presentationTimeOffset='3' media='$Time$'/>",
       "- | 0:0+5000000 b/0 | 1:5000000+5000000 b/5"},
      {"<SegmentTemplate duration='10' startNumber='-3' media='$Number%03d$'/>",
       "- | -3:0+10000000 b/-03"},
      {"<SegmentTemplate duration='10' startNumber='2147483647' media='$Number$'/>",
       "- | 2147483647:0+10000000 b/2147483647"},
      {"<SegmentTemplate duration='10' startNumber='2147483648' media='$Number$'/>",
       "- | 1:0+10000000 b/1"},
      // No usable duration.
      {"<SegmentTemplate media='$Number$'/>", "-"},
      {"<SegmentTemplate duration='4' timescale='0' media='$Number$'/>", "-"},
      {"<SegmentTemplate duration='4' timescale='-1' media='$Number$'/>", "-"},
      // By time: the presentation time offset is subtracted, but not in addresses.
      {"<SegmentTemplate timescale='10' startNumber='5' presentationTimeOffset='100' "
       "media='$Number$-$Time$.mp4'><SegmentTimeline><S t='100' d='20' r='1'/><S d='7'/>"
       "</SegmentTimeline></SegmentTemplate>",
       "- | 5:0+2000000 b/5-100.mp4 | 6:2000000+2000000 b/6-120.mp4 | 7:4000000+700000 "
       "b/7-140.mp4"},
      {"<SegmentTemplate timescale='0' media='$Time$'><SegmentTimeline><S d='2'/>"
       "</SegmentTimeline></SegmentTemplate>",
       "- | 1:0+0 b/0"},
      // Lists: as many as there are, whatever the duration says.
      {"<SegmentList duration='4'><Initialization sourceURL='i' range='0-99'/>"
       "<SegmentURL media='1' mediaRange='5-9'/><SegmentURL/><SegmentURL mediaRange='7-'/>"
       "</SegmentList>",
       "b/i@0+100 | 1:0+4000000 b/1@5+5 | 2:4000000+4000000 b/ | 3:8000000+2000000 b/@7+-1"},
      {"<SegmentList/>", "-"},
      // One resource.
      {"<SegmentBase indexRange='100-199'><Initialization range='0-99'/></SegmentBase>",
       "b/@0+100 | 0:0+10000000 b/"},
      {"", "- | 0:0+10000000 b/"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(print(*representation(row.element), periodUs), row.expected) << row.element;
  }
}

TEST(SegmentAddressingTest, ListsNothingThatDependsOnAnUnknownDuration) {
  const auto number = representation("<SegmentTemplate duration='4' media='$Number$'/>");
  EXPECT_EQ(number->getIndex().getLastSegmentNum(kUnknown), -1);
  EXPECT_EQ(number->getIndex().getSegmentCount(kUnknown), 0);
  // -1 is also a number: the count tells them apart.
  const auto negative =
      representation("<SegmentTemplate duration='4' startNumber='-9' media='$Number$'/>");
  EXPECT_EQ(negative->getIndex().getSegmentCount(kUnknown), 0);
  const auto list = representation(
      "<SegmentList startNumber='-2'><SegmentURL/><SegmentURL/>"
      "</SegmentList>");
  EXPECT_EQ(list->getIndex().getLastSegmentNum(kUnknown), -1);
  EXPECT_EQ(list->getIndex().getSegmentCount(kUnknown), 2);
}

TEST(SegmentAddressingTest, FindsTheSegmentOfATime) {
  struct Row {
    const char* element;
    int64_t periodUs;
    std::vector<std::pair<int64_t, int64_t>> numberOfTimeUs;
  };
  const char* const lines =
      "<SegmentTemplate startNumber='10'><SegmentTimeline><S t='5' d='10' r='2'/>"
      "</SegmentTimeline></SegmentTemplate>";
  const Row rows[] = {
      {"<SegmentTemplate duration='4'/>",
       10000000,
       {{kMin, 1}, {-1, 1}, {0, 1}, {3999999, 1}, {4000000, 2}, {9000000, 3}, {kMax, 3}}},
      {"<SegmentTemplate duration='4'/>", kUnknown, {{kMin, 1}, {100000000, 26}}},
      {"<SegmentTemplate duration='4' timescale='0'/>", 10000000, {{5000000, 0}}},
      {lines, 0, {{kMin, 10}, {0, 10}, {5000000, 10}, {14999999, 10}, {15000000, 11}, {kMax, 12}}},
      // More addresses than times.
      {"<SegmentList><SegmentTimeline><S d='1' r='1'/></SegmentTimeline><SegmentURL/><SegmentURL/>"
       "<SegmentURL/><SegmentURL/></SegmentList>",
       0,
       {{0, 1}, {1000000, 2}, {9000000, 2}}},
      {"", 10000000, {{5000000, 0}}},
  };
  for (const Row& row : rows) {
    const auto r = representation(row.element);
    for (const auto& [timeUs, number] : row.numberOfTimeUs) {
      EXPECT_EQ(r->getIndex().getSegmentNum(timeUs, row.periodUs), number)
          << row.element << " at " << timeUs;
    }
  }
}

TEST(SegmentAddressingTest, RefusesNumbersThatDoNotExist) {
  struct Row {
    const char* element;
    std::vector<int64_t> numbers;
  };
  const Row rows[] = {
      {"<SegmentTemplate media='a'><SegmentTimeline><S d='1' r='1'/></SegmentTimeline>"
       "</SegmentTemplate>",
       {0, 3, -1, kMin, kMax}},
      {"<SegmentList><SegmentURL/></SegmentList>", {0, 2, kMin, kMax}},
      {"<SegmentTemplate duration='1' media='a'/>", {2147483648, -2147483649, kMin, kMax}},
  };
  const auto none = [](const ListedSegment& segment) { ADD_FAILURE() << segment.number; };
  for (const Row& row : rows) {
    const auto r = representation(row.element);
    for (const int64_t n : row.numbers) {
      EXPECT_THROW((void)r->getIndex().getSegmentURL(n), InvalidArgumentException) << n;
      EXPECT_THROW(r->getIndex().forEachSegment(n, n, none), InvalidArgumentException) << n;
      if (n < 1) continue;
      EXPECT_THROW(r->getIndex().forEachSegment(1, n, none), InvalidArgumentException)
          << "a list that reaches " << n << " is not cut short";
    }
    EXPECT_NO_THROW(r->getIndex().forEachSegment(5, 4, none));
  }
}

// Counts are told without listing, times saturate.
TEST(SegmentAddressingTest, SurvivesExtremeNumbers) {
  const auto tick = representation("<SegmentTemplate timescale='1000000' duration='1'/>");
  EXPECT_EQ(tick->getIndex().getSegmentCount(kMax), kMax);
  const auto huge =
      representation("<SegmentTemplate duration='9223372036854775807' startNumber='-2147483648'/>");
  EXPECT_EQ(huge->getIndex().getSegmentCount(kMax), 1);
  EXPECT_EQ(huge->getIndex().getSegmentTimeUs(2147483647), kMax);
  EXPECT_EQ(huge->getIndex().getSegmentDurationUs(5, 1), kMax);
  const auto line = representation(
      "<SegmentTemplate timescale='1' presentationTimeOffset='9223372036854775807'>"
      "<SegmentTimeline><S t='-9223372036854775808' d='-9223372036854775808' r='5'/>"
      "</SegmentTimeline></SegmentTemplate>");
  EXPECT_EQ(line->getIndex().getSegmentTimeUs(3), kMin);
  EXPECT_EQ(line->getIndex().getSegmentDurationUs(3, 1), kMin);
  EXPECT_EQ(line->getPresentationTimeOffsetUs(), kMax);
  for (const char* scale : {"-9223372036854775808", "-1", "0", "9223372036854775807"}) {
    const auto r = representation(std::string("<SegmentTemplate duration='-9223372036854775808' "
                                              "timescale='") +
                                  scale + "'/>");
    for (const int64_t period : {kMin, int64_t{-1}, int64_t{0}, kMax}) {
      (void)r->getIndex().getSegmentCount(period);
      (void)r->getIndex().getSegmentNum(kMin, period);
      (void)r->getIndex().getSegmentDurationUs(kMax, period);
      (void)r->getIndex().getSegmentTimeUs(kMin);
    }
  }
}

TEST(SegmentInheritanceTest, TakesFromTheParentWhatTheElementLacks) {
  struct Row {
    const char* content;
    const char* expected;
  };
  const int64_t periodUs = 10000000;
  const Row rows[] = {
      {"<SegmentTemplate timescale='10' duration='50' startNumber='7' media='$Number$' "
       "initialization='i-$RepresentationID$'/><Representation id='v'><SegmentTemplate "
       "media='x-$Number$'/></Representation>",
       "b/i-v | 7:0+5000000 b/x-7 | 8:5000000+5000000 b/x-8"},
      {"<SegmentTemplate media='$Time$'><Initialization sourceURL='i'/><SegmentTimeline><S d='3'/>"
       "</SegmentTimeline></SegmentTemplate><Representation><SegmentTemplate timescale='3'>"
       "<SegmentTimeline/></SegmentTemplate></Representation>",
       "b/i | 1:0+1000000 b/0"},
      // An own timeline replaces the parent's; of two, the last counts.
      {"<SegmentTemplate media='$Time$'><SegmentTimeline><S d='3'/></SegmentTimeline>"
       "</SegmentTemplate><Representation><SegmentTemplate><SegmentTimeline><S t='8' d='1'/>"
       "</SegmentTimeline><SegmentTimeline><S t='9' d='1'/></SegmentTimeline></SegmentTemplate>"
       "</Representation>",
       "- | 1:9000000+1000000 b/9"},
      // Another kind is no parent.
      {"<SegmentTemplate timescale='10' duration='50' media='$Number$' initialization='i'/>"
       "<Representation><SegmentList duration='2'><SegmentURL media='s'/></SegmentList>"
       "</Representation>",
       "- | 1:0+10000000 b/s"},
      // Listed segments are the element's own.
      {"<SegmentList duration='5'><Initialization sourceURL='i'/><SegmentURL media='s'/>"
       "</SegmentList><Representation><SegmentList/></Representation>",
       "b/i"},
      {"<SegmentBase indexRange='10-19'><Initialization range='0-9'/></SegmentBase><Representation>"
       "<SegmentBase/></Representation>",
       "b/@0+10 | 0:0+10000000 b/"},
      // An address keeps the base URL that was in force where its element stood.
      {"<SegmentTemplate duration='10' media='$Number$'/><BaseURL>c/</BaseURL><Representation/>",
       "- | 1:0+10000000 b/1"},
      {"<BaseURL>c/</BaseURL><SegmentTemplate duration='10' media='$Number$'/><Representation>"
       "<BaseURL>d/</BaseURL></Representation>",
       "- | 1:0+10000000 b/c/1"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(print(*firstOf(row.content), periodUs), row.expected) << row.content;
  }
}

TEST(SegmentInheritanceTest, AnInheritedTimelineIsHeldOnce) {
  const auto mpd = MediaPresentationDescription::parse(
      "<MPD><Period duration='PT1S'><AdaptationSet><SegmentTemplate><SegmentTimeline><S d='1'/>"
      "</SegmentTimeline></SegmentTemplate><Representation/><Representation><SegmentTemplate "
      "media='x'/></Representation></AdaptationSet></Period></MPD>",
      "");
  const auto& all = mpd->periods()[0]->adaptationSets()[0]->representations();
  const auto timelineOf = [](const Representation& r) {
    return dynamic_cast<const MultiSegmentBase&>(r.segmentBase()).sharedTimeline();
  };
  EXPECT_EQ(timelineOf(*all[0]), timelineOf(*all[1]));
}

TEST(SegmentIndexTest, TellsWhereTheIndexLies) {
  struct Row {
    const char* element;
    const char* expected;
  };
  const Row rows[] = {
      {"<SegmentBase indexRange='100-199'/>", "b/@100+100"},
      {"<SegmentBase indexRange='100-'/>", "b/@100+-1"},
      {"<SegmentBase indexRange='0-0'/>", "b/@0+1"},
      {"<SegmentBase indexRange='x'/>", "none"},
      {"<SegmentBase/>", "none"},
      {"", "none"},
      {"<SegmentTemplate duration='1'/>", "none"},
  };
  for (const Row& row : rows) {
    const auto uri = representation(row.element)->getIndexURI();
    EXPECT_EQ(uri ? print(*uri) : "none", row.expected) << row.element;
  }
  const auto single = std::dynamic_pointer_cast<SingleSegmentRepresentation>(
      representation("<SegmentBase indexRange='0-'/>"));
  ASSERT_TRUE(single);
  EXPECT_EQ(single->mediaURL(), "b/");
  EXPECT_EQ(single->contentLength(), SingleSegmentRepresentation::kUnknownLength);
  EXPECT_EQ(print(single->segmentBase().getIndex()), "b/");
}

TEST(SegmentTemplateTest, ABadTemplateFailsWhenAURLIsMade) {
  const auto r = representation(
      "<SegmentTemplate duration='5' media='$Foo$' "
      "initialization='$Number%5d$'/>");
  EXPECT_THROW((void)r->getInitialization(), InvalidArgumentException);
  EXPECT_THROW((void)r->getIndex().getSegmentURL(1), InvalidArgumentException);
  EXPECT_THROW(r->getIndex().forEachSegment(1, 1, [](const ListedSegment&) {}),
               InvalidArgumentException);
  EXPECT_EQ(r->getIndex().getSegmentCount(10000000), 2);
}

}  // namespace
}  // namespace mpl::dash
