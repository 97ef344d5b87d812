// MPDs through the parser and the adaptation: the model they give and what their qualities list.

#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/host/QNPlayerUtils.h"
#include "playlist/QNInexactRanges.h"
#include "playlist/QNMovie.h"
#include "playlist/QNPlaylist.h"
#include "playlist/QNPlaylistFactory.h"
#include "playlist/QNQuality.h"
#include "playlist/QNTrack.h"
#include "playlist/QNVideoQuality.h"
#include "tests/playlist/manifests.h"
#include "tests/playlist/render.h"

namespace {

std::shared_ptr<QNPlaylist> parse(const std::string& text) {
  return QNPlaylistFactory::dashGenerateWithData(bytes(text));
}

std::shared_ptr<QNQuality> firstQuality(const std::shared_ptr<QNPlaylist>& playlist) {
  return playlist->movies().at(0)->tracks().at(0)->qualities().at(0);
}

std::string listed(const std::string& text) {
  return render(
      firstQuality(parse(text))->resourceBuilder()->fillResourcesWithBaseURL("http://h/p/m.mpd"));
}

std::string adaptationSet(const std::string& attributes,
                          const std::string& representation = "id='r'",
                          const std::string& content = "") {
  return "<AdaptationSet " + attributes + "><Representation " + representation + "/>" + content +
         "</AdaptationSet>";
}

TEST(DASH, PeriodsBecomeMoviesWithTheirDurations) {
  const std::string set = adaptationSet("mimeType='video/mp4'");
  const auto period = [&](const std::string& attributes) {
    return "<Period " + attributes + ">" + set + "</Period>";
  };
  const struct {
    const char* name;
    std::string text;
    std::vector<double> seconds;  // negative: unknown
  } rows[] = {
      {"the presentation's own", mpd(period("")), {10}},
      {"starts, and the rest for the last",
       mpd(period("start='PT0S'") + period("start='PT60S'"), "mediaPresentationDuration='PT100S'"),
       {60, 40}},
      {"own durations win over starts and the presentation",
       mpd(period("duration='PT7S'") + period("duration='PT0.5S'")),
       {7, 0.5}},
      {"the end of the last Period is the presentation's",
       mpd(period("duration='PT7S'") + period("duration='PT5S'"), ""),
       {7, 5}},
      {"a last Period that begins behind the end",
       mpd(period("duration='PT10S'") + period("")),
       {10, -0.000001}},
      {"a duration of zero is none, and what follows is counted from the presentation's start less "
       "one",
       mpd(period("start='PT0S' duration='PT0S'") + period("start='PT4S'")),
       {0, 10.001}},
      {"a live presentation without durations",
       mpd(period("start='PT0S'"), "type='dynamic'"),
       {-0.000001}},
      {"milliseconds are counted in microseconds", mpd(period("duration='PT1.001S'")), {1.001}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const auto playlist = parse(row.text);
    ASSERT_TRUE(playlist);
    std::vector<double> seconds;
    for (const auto& movie : playlist->movies()) {
      EXPECT_EQ(movie->parent(), playlist);
      seconds.push_back(movie->duration());
      EXPECT_DOUBLE_EQ(movie->tracks().at(0)->duration(), movie->duration());
    }
    EXPECT_EQ(seconds, row.seconds);
  }
}

TEST(DASH, SetsBecomeTracksAndRepresentationsQualities) {
  const auto english = *QNPlayerUtils::localizedLanguage("en");
  const std::string channels =
      "<AudioChannelConfiguration "
      "schemeIdUri='urn:mpeg:dash:23003:3:audio_channel_configuration:2011' value='2'/>";
  const struct {
    const char* name;
    std::string set;
    std::string track;  // empty: the set is left out
  } rows[] = {
      {"video",
       adaptationSet("id='3' mimeType='video/mp4'",
                     "id='v1' bandwidth='2500000' width='1280' height='720' codecs='avc1.64001f'"),
       "video 10 3 [video/mp4] - { v1 avc1 2500000 (1280 x 720 @ 2500.0 kbps) }"},
      {"nothing but a type", adaptationSet("contentType='video'"),
       "video 10 -1 [] - { r vide 0 (0 x 0 @ 0.0 kbps) }"},
      {"audio with the set's channels and language",
       "<AdaptationSet id='4' mimeType='audio/mp4' lang='en'>" + channels +
           "<Representation id='a' bandwidth='128000' codecs='mp4a.40.2' "
           "audioSamplingRate='44100'/></AdaptationSet>",
       "audio 10 4 [audio/mp4] en { a mp4a 128000 (" + english +
           " 44.1 kHZ, 2 ch @ 128.0 kbps\t) }"},
      {"audio without channels", adaptationSet("mimeType='audio/mp4'", "id='a' codecs='ac-3'"),
       "audio 10 -1 [audio/mp4] - { a ac-3 0 (Unknown 0.0 kHZ, 0 ch @ 0.0 kbps\t) }"},
      {"text whose format the type names", adaptationSet("id='5' mimeType='text/vtt' lang='en'"),
       "text 10 5 [text/vtt] en { r text 0 (" + english + " [VTT]) }"},
      {"text without language", adaptationSet("id='5' mimeType='application/ttml+xml'"),
       "text 10 5 [application/ttml+xml] - { r text 0 ((null) [TTML]) }"},
      {"text that the codecs tell",
       adaptationSet("id='6' mimeType='application/mp4'", "id='s' codecs='stpp'"),
       "text 10 6 [application/mp4] - { s stpp 0 (-) }"},
      {"codecs whose first part has not four characters",
       adaptationSet("mimeType='video/mp4'", "id='r' codecs='mp4v20.9'"),
       "video 10 -1 [video/mp4] - { r vide 0 (0 x 0 @ 0.0 kbps) }"},
      {"a negative bandwidth", adaptationSet("mimeType='video/mp4'", "id='' bandwidth='-7'"),
       "video 10 -1 [video/mp4] - {  vide 0 (0 x 0 @ 0.0 kbps) }"},
      {"the largest bandwidth",
       adaptationSet("mimeType='video/mp4'", "id='r' bandwidth='2147483647'"),
       "video 10 -1 [video/mp4] - { r vide 2147483647 (0 x 0 @ 2147483.6 kbps) }"},
      {"a set for fast forward",
       adaptationSet(
           "id='9' mimeType='video/mp4'", "id='t'",
           "<EssentialProperty schemeIdUri='http://dashif.org/guidelines/trickmode' value='1'/>"),
       "video 10 9 [video/mp4] - trick { t vide 0 (0 x 0 @ 0.0 kbps) }"},
      {"an unknown type", adaptationSet("mimeType='application/octet-stream'"), ""},
      {"no Representation", "<AdaptationSet contentType='video'/>", ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const auto playlist = parse(mpd("<Period>" + row.set + "</Period>"));
    if (row.track.empty()) {
      EXPECT_FALSE(playlist);
    } else {
      ASSERT_TRUE(playlist);
      EXPECT_EQ(render(*playlist), "movie 10 { " + row.track + " }");
    }
  }
}

TEST(DASH, LeavesOutWhatHasNothingToList) {
  const std::string video = adaptationSet("mimeType='video/mp4'");
  const std::string image = adaptationSet("contentType='image' mimeType='image/jpeg'");
  const auto period = [](const std::string& sets) {
    return "<Period duration='PT1S'>" + sets + "</Period>";
  };
  const auto playlist = parse(mpd(period("") + period(image) + period(image + video + image)));
  ASSERT_TRUE(playlist);
  ASSERT_EQ(playlist->movies().size(), 1u);
  EXPECT_EQ(playlist->movies()[0]->tracks().size(), 1u);
  std::string omissions;
  for (const auto& line : playlist->omissions())
    omissions += line + "\n";
  EXPECT_EQ(
      omissions,
      "Period 1 has no adaptation set\n"
      "Period 2: 1 adaptation set of a type that is not video, audio or text (image/jpeg)\n"
      "Period 3: 2 adaptation sets of a type that is not video, audio or text (image/jpeg)\n");
}

TEST(DASH, TellsNoMoreOmissionsThanAPersonReads) {
  std::string periods;
  for (int i = 0; i < 200; ++i)
    periods += "<Period duration='PT1S'/>";
  const auto playlist =
      parse(mpd(periods + "<Period>" + adaptationSet("mimeType='video/mp4'") + "</Period>"));
  ASSERT_TRUE(playlist);
  ASSERT_EQ(playlist->omissions().size(), 101u);
  EXPECT_EQ(playlist->omissions()[99], "Period 100 has no adaptation set");
  EXPECT_EQ(playlist->omissions()[100], "and more");
}

TEST(DASH, ListsWhatTheAddressingSays) {
  const std::string numbers = "timescale='1000' duration='4000'";
  const struct {
    std::string addressing;
    const char* resources;
  } rows[] = {
      // One resource.
      {"", "(empty)"},
      {"<BaseURL>v.mp4</BaseURL>", "v.mp4"},
      {"<BaseURL> v.mp4\n</BaseURL><BaseURL>ignored</BaseURL>", "v.mp4"},
      {"<BaseURL>f</BaseURL><SegmentBase indexRange='9-19'><Initialization sourceURL='i' "
       "range='0-99'/></SegmentBase>",
       "i[0,100] f"},
      {"<BaseURL>f</BaseURL><SegmentBase><Initialization range='0-99'/></SegmentBase>", "f"},
      // A list.
      {"<SegmentList><Initialization sourceURL='i'/><SegmentURL media='a'/><SegmentURL "
       "media='b'/></SegmentList>",
       "i a b"},
      {"<BaseURL>f</BaseURL><SegmentList><Initialization range='0-99'/><SegmentURL "
       "mediaRange='100-199'/>"
       "<SegmentURL mediaRange='300-399'/></SegmentList>",
       "f[0,400]"},
      {"<SegmentList><SegmentURL media='a' mediaRange='1-2'/><SegmentURL media='b' "
       "mediaRange='500-'/>"
       "<SegmentURL media='a' mediaRange='3-4'/><SegmentURL media='a' "
       "mediaRange='nonsense'/></SegmentList>",
       "a[1,2] b[500,0] a"},
      {"<SegmentList/>", ""},
      // Numbers.
      {"<SegmentTemplate " + numbers + " startNumber='5' initialization='i' media='$Number$'/>",
       "i 5 6 7"},
      {"<SegmentTemplate " + numbers +
           " media='$RepresentationID$/$Bandwidth%06d$-$Number%03d$$$'/>",
       "v/001000-001$ v/001000-002$ v/001000-003$"},
      {"<SegmentTemplate " + numbers + " media='$Time$'/>", "0 4000 8000"},
      {"<SegmentTemplate " + numbers + " startNumber='-1' media='$Number$'/>", "-1 0 1"},
      {"<SegmentTemplate " + numbers + " initialization='i' media='same'/>", "i same"},
      {"<SegmentTemplate timescale='1' initialization='i' media='$Number$'/>", "i"},
      {"<SegmentTemplate timescale='0' duration='1' initialization='i' media='$Number$'/>", "i"},
      // A timeline.
      {"<SegmentTemplate startNumber='3' media='$Time$-$Number$'><SegmentTimeline><S t='100' "
       "d='10' r='2'/><S d='1'/>"
       "<S t='7'/><S d='1' r='-1'/></SegmentTimeline></SegmentTemplate>",
       "100-3 110-4 120-5 130-6 7-7"},
      // References against bases.
      {"<BaseURL>d/</BaseURL><SegmentTemplate duration='5' media='../x$Number$'/>", "x1 x2"},
      {"<SegmentTemplate duration='5' media='../x/./$Number$/../y$Number$'/>", "../x/y1 ../x/y2"},
      {"<SegmentTemplate duration='5' media='../../$Number$'/>", "../../1 ../../2"},
      {"<BaseURL>http://cdn/a/b?q=1</BaseURL><SegmentTemplate duration='5' initialization='//o/i' "
       "media='$Number$'/>",
       "http://o/i http://cdn/a/1 http://cdn/a/2"},
      {"<BaseURL>d/</BaseURL><SegmentTemplate duration='5' media='https://o/./$Number$#f'/>",
       "https://o/1#f https://o/2#f"},
      {"<BaseURL>d/e</BaseURL><SegmentTemplate duration='5' media='/$Number$'/>", "/1 /2"},
      {"<BaseURL>d/e</BaseURL><SegmentTemplate duration='5' media='?n=$Number$'/>",
       "d/e?n=1 d/e?n=2"},
      {"<BaseURL>d/</BaseURL><SegmentTemplate duration='5' media='$Number$?a=../b'/>",
       "d/1?a=../b d/2?a=../b"},
      {"<BaseURL>a b|{c}%zz/</BaseURL><SegmentTemplate duration='10' media='&#233; $Number$'/>",
       "a b|{c}%zz/\xC3\xA9 1"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.addressing);
    EXPECT_EQ(listed(oneQuality(row.addressing)), row.resources);
  }
}

TEST(DASH, ListsNoMediaOfALivePresentationWithoutDuration) {
  const std::string period =
      "<Period start='PT0S'><AdaptationSet mimeType='video/mp4'><Representation id='v'>";
  const std::string end = "</Representation></AdaptationSet></Period>";
  EXPECT_EQ(
      listed(
          mpd(period + "<SegmentTemplate duration='4' initialization='i' media='$Number$'/>" + end,
              "type='dynamic'")),
      "i");
  EXPECT_EQ(listed(mpd(period +
                           "<SegmentTemplate initialization='i' "
                           "media='$Number$'><SegmentTimeline><S d='1' r='1'/>"
                           "</SegmentTimeline></SegmentTemplate>" +
                           end,
                       "type='dynamic'")),
            "i 1 2");
}

TEST(DASH, KeepsAListForItsBaseURL) {
  const auto playlist =
      parse(oneQuality("<SegmentTemplate duration='5' initialization='i' media='$Number$'/>"));
  const auto builder = firstQuality(playlist)->resourceBuilder();
  const auto list = builder->fillResourcesWithBaseURL("http://a/");
  EXPECT_EQ(builder->fillResourcesWithBaseURL("http://a/"), list);
  const auto other = builder->fillResourcesWithBaseURL("http://b/");
  EXPECT_NE(other, list);
  EXPECT_EQ(render(other), render(list));
  EXPECT_EQ(other->at(1)->resolveURL()->absoluteString(), "http://b/1");
  EXPECT_EQ(list->at(1)->resolveURL()->absoluteString(), "http://a/1")
      << "a list that was handed out stays";
  EXPECT_EQ(list->at(0)->sharedBaseURL(), list->at(2)->sharedBaseURL());
  const auto none = builder->fillResourcesWithBaseURL(std::nullopt);
  EXPECT_EQ(none->at(1)->baseURL(), std::nullopt);
}

TEST(DASH, ListsFromSeveralThreadsAreOneList) {
  const auto playlist = parse(oneQuality(
      "<SegmentTemplate duration='10' timescale='1000' initialization='i' media='$Number$'/>"));
  const auto builder = firstQuality(playlist)->resourceBuilder();
  std::vector<QNResourceListPtr> lists(4);
  {
    std::vector<std::jthread> threads;
    for (auto& list : lists) {
      threads.emplace_back([&list, &builder, &playlist] {
        list = builder->fillResourcesWithBaseURL("http://a/");
        playlist->setUrl("http://a/");
        EXPECT_EQ(playlist->url(), "http://a/");
      });
    }
  }
  for (const auto& list : lists)
    EXPECT_EQ(list, lists[0]);
  EXPECT_EQ(lists[0]->size(), 1001u);
}

TEST(DASH, ResourcesOutliveTheirListAndPlaylist) {
  auto playlist =
      parse(oneQuality("<SegmentTemplate duration='1000' timescale='1000' media='$Number$'/>"));
  const auto kept =
      firstQuality(playlist)->resourceBuilder()->fillResourcesWithBaseURL("http://a/")->at(0);
  std::weak_ptr<QNPlaylist> root = playlist;
  playlist.reset();
  EXPECT_TRUE(root.expired());
  EXPECT_EQ(kept->resolveURL()->absoluteString(), "http://a/1");
}

TEST(DASH, ATemplateThatCannotBeBuiltIsToldWhenItIsListed) {
  const struct {
    const char* media;
    const char* reason;
  } rows[] = {
      {"a$Number", "Mismatching $-tokens in template URI"},
      {"$Number%5d$", "Invalid template format: %5d"},
      {"$RepresentationID%02d$", "Invalid template: $RepresentationID%02d$"},
      {"$Foo$", "Invalid template: $Foo$"},
      // Rather than a list that ends where numbers do.
      {"$Number$' startNumber='2147483647", "Segment number out of range"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.media);
    const auto playlist =
        parse(oneQuality(std::string("<SegmentTemplate duration='5' media='") + row.media + "'/>"));
    const auto builder = firstQuality(playlist)->resourceBuilder();
    const std::string expected = std::string("QNPlaylistFactoryException: ") + row.reason;
    for (int again = 0; again < 2; ++again) {
      EXPECT_EQ(thrown([&] { builder->fillResourcesWithBaseURL("http://a/"); }), expected);
    }
  }
}

TEST(DASH, CountsRangesThatTheHeaderCannotSay) {
  const auto playlist =
      parse(oneQuality("<SegmentList><Initialization sourceURL='i' range='0-99'/><SegmentURL "
                       "media='a' mediaRange='1-2'/>"
                       "<SegmentURL media='b' mediaRange='500-'/><SegmentURL media='c' "
                       "mediaRange='2-3'/><SegmentURL media='d'/>"
                       "</SegmentList>"));
  const auto list =
      firstQuality(playlist)->resourceBuilder()->fillResourcesWithBaseURL("http://a/");
  EXPECT_EQ(render(list), "i[0,100] a[1,2] b[500,0] c[2,2] d");
  EXPECT_EQ(inexactRanges(list), 2u);
}

}  // namespace
