// Manifests that promise more than a device can hold are refused before memory is spent, however
// small they are.

#include <gtest/gtest.h>
#include <sys/resource.h>

#include "platform/Exception.h"
#include "playlist/QNMovie.h"
#include "playlist/QNPlaylist.h"
#include "playlist/QNPlaylistFactory.h"
#include "playlist/QNQuality.h"
#include "playlist/QNResourceBudget.h"
#include "playlist/QNTrack.h"
#include "tests/playlist/manifests.h"
#include "tests/playlist/render.h"

namespace {

std::string repeated(const std::string& text, size_t count) {
  std::string all;
  for (size_t i = 0; i < count; ++i)
    all += text;
  return all;
}

// A set of `qualities` Representations that inherit `addressing`.
std::string dash(const std::string& addressing, size_t qualities = 1,
                 const std::string& duration = "PT10S") {
  return mpd("<Period><AdaptationSet mimeType='video/mp4'>" + addressing +
                 repeated("<Representation id='v'/>", qualities) + "</AdaptationSet></Period>",
             "mediaPresentationDuration='" + duration + "'");
}

std::string smoothText(const std::string& attributes, const std::string& fragments,
                       size_t qualities = 1) {
  return smooth("<StreamIndex Type='text' Subtype='SUBT' QualityLevels='1' " + attributes + ">" +
                repeated("<QualityLevel Bitrate='1' FourCC='TTML'/>", qualities) + fragments +
                "</StreamIndex>");
}

int64_t peakKilobytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

TEST(Hostile, TooManyResourcesAreRefusedForEveryQuality) {
  const struct {
    const char* name;
    std::string text;
    const char* reason;
  } rows[] = {
      {"a live manifest's open repeat",
       dash("<SegmentTemplate media='$Number$'><SegmentTimeline><S t='0' d='1' "
            "r='33688627'/></SegmentTimeline>"
            "</SegmentTemplate>"),
       "The presentation lists 33688629 resources, more than 5000000"},
      {"a segment duration of one tick",
       dash("<SegmentTemplate timescale='1000000' duration='1' media='$Number$'/>"),
       "The presentation lists 10000001 resources, more than 5000000"},
      {"a thousand years of seconds",
       dash("<SegmentTemplate duration='1' media='$Number$'/>", 1, "P1000Y"),
       "The presentation lists 31556908001 resources, more than 5000000"},
      {"fifty qualities at the limit",
       dash("<SegmentTemplate duration='1' media='$Number$'/>", 50, "PT4999999S"),
       "The presentation lists 250000000 resources, more than 5000000"},
      {"two Periods that share the limit",
       mpd(repeated(
           "<Period duration='PT5S'><AdaptationSet mimeType='video/mp4'><SegmentTemplate "
           "timescale='1000000' "
           "duration='2' media='$Number$'/><Representation id='v'/></AdaptationSet></Period>",
           2)),
       "The presentation lists 5000002 resources, more than 5000000"},
      {"Chunks of four billion",
       smoothText("Chunks='4000000000' Url='{start time}'",
                  "<c d='1' r='2000000000'/><c d='1' r='2000000000'/>"),
       "The presentation lists 4000000000 resources, more than 5000000"},
      {"fifty levels of one timeline",
       smoothText("Chunks='4999999' Url='{start time}'", "<c d='1' r='4999999'/>", 50),
       "The presentation lists 249999950 resources, more than 5000000"},
  };
  const int64_t before = peakKilobytes();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    ASSERT_LT(row.text.size(), 4096u);
    const auto playlist = QNPlaylistFactory::generateWithData(bytes(row.text));
    ASSERT_TRUE(playlist);
    const auto& track = playlist->movies().at(0)->tracks().at(0);
    // Each of them, in any order: none is listed while another would exceed the sum.
    for (const size_t index : {track->qualities().size() - 1, size_t{0}}) {
      const auto builder = track->qualities().at(index)->resourceBuilder();
      EXPECT_EQ(thrown([&] { builder->fillResourcesWithBaseURL("http://h/"); }),
                std::string("QNPlaylistFactoryException: ") + row.reason);
    }
  }
  EXPECT_LT(peakKilobytes() - before, 64 << 10) << "memory was spent";
}

TEST(Hostile, TooMuchTextIsRefused) {
  const std::string longName(2000, 'x');
  const struct {
    const char* name;
    std::string text;
  } rows[] = {
      {"a wide number",
       dash("<SegmentTemplate timescale='1000' duration='5' media='$Number%0900d$'/>", 1,
            "PT10000S")},
      {"a long template",
       dash("<SegmentTemplate timescale='1000' duration='5' media='" + longName + "$Number$'/>", 1,
            "PT10000S")},
      {"a long base",
       dash("<BaseURL>" + longName +
                "/</BaseURL><SegmentTemplate timescale='1000' duration='5' media='$Number$'/>",
            1, "PT10000S")},
      {"a short list below a long base",
       dash("<BaseURL>" + std::string(1 << 20, 'x') + "/</BaseURL><SegmentList>" +
            repeated("<SegmentURL media='a'/>", 1100) + "</SegmentList>")},
      {"many placeholders",
       smoothText("Chunks='4000000' Url='" + repeated("{start time}", 100) + "'",
                  "<c d='1' r='4000000'/>")},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const auto playlist = QNPlaylistFactory::generateWithData(bytes(row.text));
    ASSERT_TRUE(playlist);
    const auto builder =
        playlist->movies().at(0)->tracks().at(0)->qualities().at(0)->resourceBuilder();
    const std::string reason = thrown([&] { builder->fillResourcesWithBaseURL("http://h/"); });
    EXPECT_TRUE(reason.starts_with(
        "QNPlaylistFactoryException: The addresses of the presentation's resources take up to "))
        << reason;
    EXPECT_TRUE(reason.ends_with(" bytes, more than 1073741824")) << reason;
  }
}

TEST(Hostile, TextThatEveryQualityInheritsIsCountedBeforeItIsCopied) {
  const std::string text(500000, 'x');
  const auto set = [](const std::string& attributes, const std::string& content,
                      const std::string& representation) {
    return mpd("<Period><AdaptationSet contentType='video' " + attributes + ">" + content +
               repeated(representation, 2000) + "</AdaptationSet></Period>");
  };
  const struct {
    const char* name;
    std::string text;
  } rows[] = {
      {"codecs", set("codecs='" + text + "'", "", "<Representation/>")},
      {"a base", set("", "<BaseURL>" + text + "/</BaseURL>",
                     "<Representation><BaseURL>a</BaseURL></Representation>")},
      {"a template", set("", "<SegmentTemplate media='" + text + "'/>",
                         "<Representation><SegmentTemplate/></Representation>")},
      {"an initialisation",
       set("", "<SegmentList><Initialization sourceURL='" + text + "'/></SegmentList>",
           "<Representation><SegmentList/></Representation>")},
      {"the language of a component",
       set("", "<ContentComponent lang='" + text + "'/>", "<Representation/>")},
      {"a base for sets without qualities",
       mpd("<BaseURL>" + text + "/</BaseURL><Period>" +
           repeated("<AdaptationSet><BaseURL>a</BaseURL></AdaptationSet>", 2000) + "</Period>")},
  };
  const int64_t before = peakKilobytes();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string reason =
        thrown([&] { QNPlaylistFactory::generateWithData(bytes(row.text)); });
    EXPECT_TRUE(reason.starts_with("QNPlaylistFactoryException: The manifest hands down 1000"))
        << reason;
    EXPECT_TRUE(reason.ends_with(" bytes of text to its qualities, more than 268435456")) << reason;
  }
  EXPECT_LT(peakKilobytes() - before, 64 << 10) << "memory was spent";
}

TEST(Hostile, TooManyQualitiesAreRefused) {
  for (const auto& text :
       {mpd("<Period><AdaptationSet contentType='video'>" + repeated("<Representation/>", 500001) +
            "</AdaptationSet></Period>"),
        smooth("<StreamIndex>" + repeated("<QualityLevel/>", 500001) + "</StreamIndex>")}) {
    EXPECT_EQ(thrown([&] { QNPlaylistFactory::generateWithData(bytes(text)); }),
              "QNPlaylistFactoryException: The manifest has 500001 qualities, more than 500000");
  }
}

TEST(Hostile, WhatStaysWithinTheLimitsIsListed) {
  const auto playlist = QNPlaylistFactory::generateWithData(bytes(
      dash("<SegmentTemplate timescale='1000000' duration='200' media='$Number$'/>", 10, "PT10S")));
  ASSERT_TRUE(playlist);
  for (const auto& quality : playlist->movies().at(0)->tracks().at(0)->qualities()) {
    EXPECT_EQ(quality->resourceBuilder()->fillResourcesWithBaseURL("http://h/")->size(), 50000u);
  }
}

TEST(Hostile, TheBudgetAddsUpWithoutOverflow) {
  QNResourceBudget budget;
  budget.declare(QNResourceBudget::MaximumResources, QNResourceBudget::MaximumTextBytes);
  EXPECT_NO_THROW(budget.check());
  budget.declare(UINT64_MAX, 0);
  budget.declare(UINT64_MAX, 0);
  EXPECT_EQ(thrown([&] { budget.check(); }),
            "QNPlaylistFactoryException: The presentation lists 18446744073709551615 resources, "
            "more than 5000000");
  QNResourceBudget text;
  text.declare(0, UINT64_MAX);
  text.declare(0, 1);
  EXPECT_THROW(text.check(), platform::Exception);
}

}  // namespace
