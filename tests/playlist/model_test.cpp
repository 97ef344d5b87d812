
#include <gtest/gtest.h>

#include "platform/Exception.h"
#include "platform/host/QNPlayerUtils.h"
#include "playlist/QNAudioQuality.h"
#include "playlist/QNInexactRanges.h"
#include "playlist/QNMovie.h"
#include "playlist/QNPlaylist.h"
#include "playlist/QNTextQuality.h"
#include "playlist/QNTrack.h"
#include "playlist/QNUtils.h"
#include "playlist/QNVideoQuality.h"
#include "tests/playlist/render.h"

namespace {

using Text = std::optional<std::string>;

std::shared_ptr<QNTrack> track(QNMediaType type, Text name = {}, Text language = {}) {
  return QNTrack::trackWithType(type, 10, std::move(name), std::move(language), 0, nullptr);
}

TEST(Model, ParentsAreKnownWeaklyAndChildrenKeptInOrder) {
  const QNPlaylist::Movies none;
  auto playlist = QNPlaylist::playlistWithMovies(none);
  auto movie = QNMovie::movieWithTrackCapacity(3, 12.5, playlist);
  playlist->addMovie(movie);
  playlist->addMovie(nullptr);
  EXPECT_TRUE(none.empty());
  ASSERT_EQ(playlist->movies().size(), 1u);
  EXPECT_EQ(movie->parent(), playlist);
  EXPECT_EQ(movie->name(), std::nullopt);

  const QNMediaType types[] = {QNMediaTypeAudio, QNMediaTypeVideo, QNMediaTypeUnknown,
                               QNMediaTypeAudio};
  for (const auto type : types)
    movie->addTrack(QNTrack::trackWithType(type, 12.5, {}, {}, 1, movie));
  movie->addTrack(nullptr);
  ASSERT_EQ(movie->tracks().size(), 4u);
  EXPECT_EQ(movie->audioTracks(), (QNMovie::Tracks{movie->tracks()[0], movie->tracks()[3]}));
  EXPECT_EQ(movie->videoTracks(), (QNMovie::Tracks{movie->tracks()[1]}));
  EXPECT_EQ(movie->tracksByType(QNMediaTypeUnknown), (QNMovie::Tracks{movie->tracks()[2]}));
  EXPECT_TRUE(movie->textTracks().empty());

  const auto kept = movie->tracks()[0];
  kept->addQuality(nullptr);
  EXPECT_TRUE(kept->qualities().empty());
  EXPECT_EQ(kept->parent(), movie);
  std::weak_ptr<QNPlaylist> root = playlist;
  playlist.reset();
  EXPECT_TRUE(root.expired());
  EXPECT_EQ(movie->parent(), nullptr);
  movie.reset();
  EXPECT_EQ(kept->parent(), nullptr);
}

TEST(Model, QualitiesHaveFourCharacterCodes) {
  struct Row {
    QNMediaType type;
    Text given;
    const char* expected;  // the code, or what is thrown
  };
  const char* const kLength = "InvalidArgumentException: FourCC string not four characters long";
  const char* const kType = "InvalidArgumentException: Invalid media type";
  const Row rows[] = {
      {QNMediaTypeVideo, std::nullopt, "vide"},
      {QNMediaTypeAudio, std::nullopt, "audi"},
      {QNMediaTypeText, std::nullopt, "text"},
      {QNMediaTypeUnknown, std::nullopt, kType},
      {static_cast<QNMediaType>(4), std::nullopt, kType},
      {QNMediaTypeUnknown, "avc1", "avc1"},
      {QNMediaTypeAudio, "avc", kLength},
      {QNMediaTypeAudio, "", kLength},
      {QNMediaTypeAudio, "mp4v2", kLength},
      // Counted in UTF-16 units, not in bytes.
      {QNMediaTypeText, "\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9", "\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9"},
      {QNMediaTypeText, "\xF0\x9F\x98\x80\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80\xF0\x9F\x98\x80"},
      {QNMediaTypeText, "a\xC3\xA9z", kLength},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.given.value_or("(none)"));
    std::string code;
    const auto error = thrown(
        [&] { code = QNQuality(nullptr, Text(), row.given, "id", row.type, 0, nullptr).fourCC(); });
    EXPECT_EQ(error.empty() ? code : error, row.expected);
  }
}

TEST(Model, QualitiesDescribeThemselves) {
  const auto named = [](const char* code) { return *QNPlayerUtils::localizedLanguage(code); };
  const auto audio = [](const std::shared_ptr<QNTrack>& parent, uint32_t rate, uint32_t channels,
                        uint32_t bits) {
    return QNAudioQuality(nullptr, Text(), "a", bits, nullptr, channels, rate, 16, parent)
        .parameters();
  };
  EXPECT_EQ(audio(track(QNMediaTypeAudio, {}, "en"), 44100, 2, 128000),
            named("en") + " 44.1 kHZ, 2 ch @ 128.0 kbps\t");
  EXPECT_EQ(audio(track(QNMediaTypeAudio), 48000, 6, 384000),
            "Unknown 48.0 kHZ, 6 ch @ 384.0 kbps\t");
  EXPECT_EQ(audio(track(QNMediaTypeAudio, {}, ""), 0, 0, 0), "Unknown 0.0 kHZ, 0 ch @ 0.0 kbps\t");
  EXPECT_EQ(audio(nullptr, 22050, 1, 4294967295u), "Unknown 22.1 kHZ, 1 ch @ 4294967.3 kbps\t");

  const auto video = QNVideoQuality(nullptr, Text(), "v", 2500000, nullptr, 1280, 720, 4,
                                    track(QNMediaTypeVideo, {}, "en"));
  EXPECT_EQ(video.parameters(), "1280 x 720 @ 2500.0 kbps");
  EXPECT_EQ(video.type(), QNMediaTypeVideo);
  EXPECT_EQ(video.naluSize(), 4u);

  const auto text = [](const std::shared_ptr<QNTrack>& parent) {
    return QNTextQuality(nullptr, Text(), "t", 0, 0, 0, std::nullopt, parent).parameters();
  };
  EXPECT_EQ(text(track(QNMediaTypeText, "textstream_eng_vtt")), "(null) [VTT]");
  EXPECT_EQ(text(track(QNMediaTypeText, "Subs.TtMl or vtt", "de")), named("de") + " [TTML]");
  EXPECT_EQ(text(track(QNMediaTypeText, "captions", "de")), named("de"));
  EXPECT_EQ(text(track(QNMediaTypeText, "captions")), std::nullopt);
  EXPECT_EQ(text(track(QNMediaTypeText)), std::nullopt);
  EXPECT_EQ(text(nullptr), std::nullopt);
}

TEST(Model, IndexesAreCheckedAgainstTheArray) {
  const std::vector<int> three{1, 2, 3};
  EXPECT_TRUE(containsIndex(three, 0));
  EXPECT_TRUE(containsIndex(three, 2));
  EXPECT_FALSE(containsIndex(three, 3));
  EXPECT_FALSE(containsIndex(three, platform::NSNotFound));
  EXPECT_FALSE(containsIndex(three, UINT64_MAX));
  EXPECT_FALSE(containsIndex(std::vector<int>{}, 0));
}

// "A0-100" is the resource "A" from byte 0 to byte 100; "A5-" reaches to its end.
QNResourceList parseList(const std::string& text) {
  QNResourceList list;
  for (size_t at = 0; at < text.size();) {
    const size_t stop = std::min(text.find(' ', at), text.size());
    const std::string entry = text.substr(at, stop - at);
    const size_t hyphen = entry.find('-');
    const uint64_t start = std::stoull(entry.substr(1, hyphen - 1));
    const bool open = hyphen + 1 == entry.size();
    const uint64_t end = open ? start : std::stoull(entry.substr(hyphen + 1));
    list.push_back(QNRangedURL::rangedURLWithOffset(start, end - start, entry.substr(0, 1),
                                                    Text("http://b/")));
    at = stop + 1;
  }
  return list;
}

std::string spans(const QNResourceList& list) {
  std::string line;
  for (const auto& r : list) {
    if (!line.empty()) line += " ";
    line += r->referenceURL() + std::to_string(r->offset()) + "-";
    if (r->length() != 0) line += std::to_string(r->offset() + r->length());
  }
  return line;
}

TEST(Merge, NeighboursOfOneResourceBecomeTheSpanOfBoth) {
  const struct {
    const char* given;
    const char* merged;
  } rows[] = {
      {"", ""},
      {"A0-100", "A0-100"},
      {"A0-100 A200-300 B0-50 A300-400", "A0-300 B0-50 A300-400"},
      // Touching, overlapping, backwards, one inside the other, three in a row.
      {"A0-100 A100-200", "A0-200"},
      {"A0-100 A50-200", "A0-200"},
      {"A200-300 A0-100", "A0-300"},
      {"A0-300 A100-200", "A0-300"},
      {"A100-200 A0-300", "A0-300"},
      {"A0-100 A0-300", "A0-300"},
      {"A5-6 A1-2 A9-10", "A1-10"},
      // To the end of the resource.
      {"A100- A200-300", "A100-"},
      {"A200-300 A100-", "A100-"},
      {"A0-100 A200-", "A0-"},
      {"A0- A0-", "A0-"},
      {"A7- B7- A7-", "A7- B7- A7-"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.given);
    EXPECT_EQ(spans(QNResourceListBuilder::mergeRangedResourceURLs(parseList(row.given))),
              row.merged);
  }
}

TEST(Merge, GivesBackWhatCoversBoth) {
  const auto list = parseList("A0-100 A0-100 A0-300 A50-60 A200-400 B0-100");
  const auto merge = [&](size_t a, size_t b) {
    return QNResourceListBuilder::mergeURL(list[a], list[b]);
  };
  EXPECT_EQ(merge(0, 1), list[0]);
  EXPECT_EQ(merge(0, 2), list[2]);
  EXPECT_EQ(merge(2, 0), list[2]);
  EXPECT_EQ(merge(2, 3), list[2]);
  EXPECT_EQ(merge(3, 2), list[2]);
  EXPECT_EQ(merge(0, 5), nullptr);
  const auto both = merge(2, 4);
  EXPECT_EQ(spans({both}), "A0-400");
  EXPECT_EQ(both->sharedBaseURL(), list[2]->sharedBaseURL());
}

TEST(Merge, LeavesTheResourcesOfAListThatHasNothingToMerge) {
  const auto list = parseList("A0-1 B0-1 A0-1");
  EXPECT_EQ(QNResourceListBuilder::mergeRangedResourceURLs(list), list);
}

TEST(InexactRanges, AreCountedAfterTheMerge) {
  EXPECT_EQ(inexactRanges(nullptr), 0u);
  const auto list = parseList("A0-100 A100-200 B1-2 B2-3 C5- D0-1 D1-");
  const auto merged =
      std::make_shared<QNResourceList>(QNResourceListBuilder::mergeRangedResourceURLs(list));
  EXPECT_EQ(spans(*merged), "A0-200 B1-3 C5- D0-");
  EXPECT_EQ(inexactRanges(merged), 1u)
      << "only A: B starts at byte 1, C is open-ended, D is the whole resource";
}

TEST(Builder, OfTheBaseClassListsNothing) {
  QNResourceListBuilder builder;
  EXPECT_EQ(builder.fillResourcesWithBaseURL("http://a/"), nullptr);
  EXPECT_EQ(QNQuality(nullptr, Text(), "abcd", "", QNMediaTypeText, 0, nullptr)
                .fillResourcesWithBaseUrl("x"),
            nullptr);
}

}  // namespace
