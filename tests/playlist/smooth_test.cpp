// Smooth Streaming manifests through the parser and the adaptation.

#include <gtest/gtest.h>

#include "playlist/QNAudioQuality.h"
#include "playlist/QNMovie.h"
#include "playlist/QNPlaylist.h"
#include "playlist/QNPlaylistFactory.h"
#include "playlist/QNTextQuality.h"
#include "playlist/QNTrack.h"
#include "playlist/QNVideoQuality.h"
#include "tests/playlist/manifests.h"
#include "tests/playlist/render.h"

namespace {

std::shared_ptr<QNPlaylist> parse(const std::string& text) {
  return QNPlaylistFactory::smoothGenerateWithData(bytes(text));
}

std::shared_ptr<QNTrack> firstTrack(const std::shared_ptr<QNPlaylist>& playlist) {
  return playlist->movies().at(0)->tracks().at(0);
}

std::string stream(const std::string& type, const std::string& level,
                   const std::string& fragments = "",
                   const std::string& attributes = "Chunks='0' Url='u'") {
  return "<StreamIndex Type='" + type +
         "' QualityLevels='1' Subtype='SUBT' MaxWidth='1' MaxHeight='1' DisplayWidth='1' "
         "DisplayHeight='1' " +
         attributes + ">" + level + fragments + "</StreamIndex>";
}

std::string video(const std::string& attributes = "") {
  return "<QualityLevel Bitrate='350000' FourCC='H264' MaxWidth='320' MaxHeight='180' "
         "CodecPrivateData='0001FF' " +
         attributes + "/>";
}

std::string audio(const std::string& attributes = "") {
  return "<QualityLevel Bitrate='64000' FourCC='AACL' SamplingRate='44100' Channels='2' "
         "BitsPerSample='16' "
         "PacketSize='4' AudioTag='255' CodecPrivateData='1210' " +
         attributes + "/>";
}

TEST(Smooth, StreamsBecomeTracksOfOneMovie) {
  const auto playlist =
      parse(smooth(stream("video", video("Index='3'"), "", "Name='v' Chunks='0' Url='u'") +
                   stream("audio", audio() + audio()) +
                   stream("text", "<QualityLevel Bitrate='9' FourCC='TTML'/>", "",
                          "Name='subs_ttml' Chunks='0' Url='u'") +
                   stream("video", "")));
  ASSERT_TRUE(playlist);
  EXPECT_EQ(render(*playlist),
            "movie 120 { "
            "video 120 v  { 3 H264 350000 (320 x 180 @ 350.0 kbps) } "
            "audio 120   { 0 AACL 64000 (Unknown 44.1 kHZ, 2 ch @ 64.0 kbps\t) "
            "0 AACL 64000 (Unknown 44.1 kHZ, 2 ch @ 64.0 kbps\t) } "
            "text 120 subs_ttml  { 0 TTML 9 ((null) [TTML]) } }");
  EXPECT_EQ(playlist->movies()[0]->parent(), playlist);
  EXPECT_EQ(firstTrack(playlist)->language(), "") << "empty, not absent";
  EXPECT_EQ(playlist->omissions(), (std::vector<std::string>{"stream 4 has no quality level"}));
}

TEST(Smooth, QualitiesCarryWhatTheManifestGives) {
  const auto quality = [](const std::string& type, const std::string& level) {
    return firstTrack(parse(smooth(stream(type, level))))->qualities().at(0);
  };
  const auto v = std::dynamic_pointer_cast<QNVideoQuality>(quality("video", video()));
  ASSERT_TRUE(v);
  EXPECT_EQ(*v->codecPrivateData(), (platform::Data{0, 1, 0xFF}));
  EXPECT_EQ(v->naluSize(), 4u);
  const auto other =
      std::dynamic_pointer_cast<QNVideoQuality>(quality("video", video("NALUnitLengthField='2'")));
  EXPECT_EQ(other->naluSize(), 2u);
  const auto a = std::dynamic_pointer_cast<QNAudioQuality>(quality("audio", audio()));
  ASSERT_TRUE(a);
  EXPECT_EQ(a->codecPrivateData(), nullptr) << "by design, although the manifest gives some";
  EXPECT_EQ(a->bitsPerSample(), 16u);
  const auto t = std::dynamic_pointer_cast<QNTextQuality>(
      quality("text", "<QualityLevel Bitrate='9' FourCC='DFXPlus' MaxWidth='7' MaxHeight='8'/>"));
  ASSERT_TRUE(t);
  EXPECT_EQ(t->fourCC(), "DFXP") << "cut to four characters";
  EXPECT_EQ(quality("text", "<QualityLevel Bitrate='9' FourCC='ABC\xE2\x82\xAC'/>")->fourCC(),
            "ABC\xEF\xBF\xBD")
      << "a character that the cut splits";
  EXPECT_EQ(t->text(), std::nullopt);
  EXPECT_EQ(t->width(), 7u);
  EXPECT_EQ(t->height(), 8u);
}

TEST(Smooth, RefusesWithTheParsersMessage) {
  const struct {
    std::string text;
    const char* reason;
  } rows[] = {
      {"<SmoothStreamingMedia", "Can't parse SmoothStreaming XML"},
      {"", "Can't parse SmoothStreaming XML"},
      {"<MPD/>", "Passed invalid XML element. Expected tag SmoothStreamingMedia but got MPD"},
      {smooth("", "Duration=''"), "Can't retrieve required value Duration"},
      {smooth(stream("movie", "")), "Unsupported Type value"},
      {smooth(stream("audio", audio(), "<c t='5'/>")),
       "Can't calculate fragment time due to insufficient information"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(thrown([&] { parse(row.text); }),
              std::string("QNPlaylistFactoryException: ") + row.reason);
  }
  // The quality's own refusal passes as it is; the default code of the type is never used.
  EXPECT_EQ(thrown([&] { parse(smooth(stream("text", "<QualityLevel Bitrate='1'/>"))); }),
            "InvalidArgumentException: FourCC string not four characters long");
}

TEST(Smooth, WithoutStreamsThereIsNoMovie) {
  const auto playlist = parse(smooth(""));
  ASSERT_TRUE(playlist);
  EXPECT_TRUE(playlist->movies().empty());
}

TEST(Smooth, ListsTheFragmentsOfAQuality) {
  const struct {
    const char* name;
    const char* attributes;  // of the stream
    const char* fragments;
    const char* resources;
  } rows[] = {
      {"repeats", "Chunks='3' Url='Q({bitrate})/F(video={start time})'",
       "<c t='0' d='20000000' r='3'/>",
       "Q(350000)/F(video=0) Q(350000)/F(video=20000000) Q(350000)/F(video=40000000)"},
      {"the other spellings, several times",
       "Chunks='2' Url='{Bitrate}/{start_time}/{bitrate}{start time}'", "<c d='5'/><c d='6'/>",
       "350000/0/3500000 350000/5/3500005"},
      {"no more than Chunks", "Chunks='1' Url='{start time}'", "<c d='5' r='9'/><c d='6'/>", "0"},
      {"no more than there are", "Chunks='4000' Url='{start time}'", "<c d='5'/><c d='6'/>", "0 5"},
      {"durations from the next start", "Chunks='9' Url='{start time}'",
       "<c t='7'/><c t='9' d='1'/><c d='1'/>", "7 9 10"},
      {"one address for all is one resource", "Chunks='3' Url='whole'", "<c d='5' r='3'/>",
       "whole"},
      {"dot segments and strange characters", "Chunks='1' Url='../a b/./{start time}'",
       "<c d='5'/>", "../a b/./0"},
      {"nothing", "Chunks='0' Url='{start time}'", "<c d='5'/>", ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const auto playlist = parse(smooth(stream("video", video(), row.fragments, row.attributes)));
    const auto builder = firstTrack(playlist)->qualities().at(0)->resourceBuilder();
    const auto list = builder->fillResourcesWithBaseURL("http://h/a.ism/Manifest");
    EXPECT_EQ(render(list), row.resources);
    EXPECT_EQ(builder->fillResourcesWithBaseURL("http://h/a.ism/Manifest"), list);
    EXPECT_NE(builder->fillResourcesWithBaseURL("http://h/b.ism/Manifest"), list);
    for (const auto& resource : *list)
      EXPECT_EQ(resource->baseURL(), "http://h/a.ism/Manifest");
  }
}

}  // namespace
