#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "mpl/smooth/Media.h"

namespace SmoothStreaming {
namespace {

constexpr char kRoot[] = "MajorVersion='2' MinorVersion='2' Duration='1200000000'";
constexpr char kVideo[] =
    "Type='video' Chunks='3' QualityLevels='1' Url='u' MaxWidth='1' MaxHeight='2' "
    "DisplayWidth='3' DisplayHeight='4'";
constexpr char kAudio[] = "Type='audio' Chunks='3' QualityLevels='1' Url='u'";
constexpr char kVideoLevel[] =
    "Bitrate='350000' FourCC='H264' CodecPrivateData='0a0B' MaxWidth='640' MaxHeight='360'";
constexpr char kAudioLevel[] =
    "Bitrate='64000' FourCC='AACL' CodecPrivateData='1210' SamplingRate='48000' AudioTag='255' "
    "BitsPerSample='16' PacketSize='4' Channels='2'";

std::string tag(const std::string& name, const std::string& attributes,
                const std::string& content = "") {
  return "<" + name + " " + attributes + ">" + content + "</" + name + ">";
}

// The model outlives the document.
std::shared_ptr<Media> parse(const std::string& xml) {
  qnc::xml::Document document;
  if (qnc::failed(document.parse(xml))) throw std::logic_error("test XML");
  return std::make_shared<Media>(document.root());
}

std::shared_ptr<StreamElement> stream(const std::string& attributes, const std::string& content) {
  const auto media =
      parse(tag("SmoothStreamingMedia", kRoot, tag("StreamIndex", attributes, content)));
  return media->streamElements().at(0);
}

// The attributes without one of them.
std::string without(std::string attributes, const std::string& name) {
  const size_t at = attributes.find(name + "='");
  const size_t end = attributes.find('\'', at + name.size() + 2) + 1;
  return attributes.erase(at, end - at);
}

std::string failure(const std::string& xml) {
  try {
    (void)parse(xml);
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "";
}

TEST(SmoothMediaTest, ReadsTheRoot) {
  const auto defaults = parse(tag("SmoothStreamingMedia", kRoot));
  EXPECT_EQ(defaults->version(), (Media::Version{2, 2}));
  EXPECT_EQ(defaults->timeScale(), 10000000U);
  EXPECT_EQ(defaults->duration(), 1200000000U);
  EXPECT_FALSE(defaults->isLive());
  EXPECT_EQ(defaults->lookaheadCount(), 0U);
  EXPECT_EQ(defaults->DVRWindowLength(), 0U);
  EXPECT_TRUE(defaults->streamElements().empty());
  EXPECT_FALSE(defaults->protection());
  EXPECT_TRUE(defaults->rootElement().empty());

  const auto media = parse(tag(
      "SmoothStreamingMedia",
      std::string("TimeScale='1000' LookaheadCount='2' DVRWindowLength='9' IsLive='true' ") + kRoot,
      "<Protection><ProtectionHeader SystemID='{9A04}'> PA== </ProtectionHeader>"
      "<ProtectionHeader SystemID='b'/></Protection><Protection/>"));
  EXPECT_TRUE(media->isLive());
  EXPECT_EQ(media->timeScale(), 1000U);
  EXPECT_EQ(media->lookaheadCount(), 2U);
  EXPECT_EQ(media->DVRWindowLength(), 9U);
  ASSERT_EQ(media->protection()->protectionHeaders().size(), 2U);
  EXPECT_EQ(media->protection()->protectionHeaders()[0]->systemID(), "{9A04}");
  EXPECT_EQ(media->protection()->protectionHeaders()[0]->contents(), " PA== ");

  for (const char* live : {"TRUE", "True", "1", "", "false"}) {
    EXPECT_FALSE(
        parse(tag("SmoothStreamingMedia", std::string(kRoot) + " IsLive='" + live + "'"))->isLive())
        << live;
  }
}

TEST(SmoothMediaTest, ReadsStreamsAndQualityLevels) {
  const auto video = stream(
      std::string(kVideo) +
          " Subtype='CAPT' Name='n' TimeScale='5' ParentStream='p' "
          "ManifestOutput='true'",
      tag("c", "d='1'") + tag("QualityLevel", kVideoLevel) +
          tag("QualityLevel", std::string(kVideoLevel) + " Index='7' NALUnitLengthField='2'"));
  EXPECT_EQ(video->type(), Stream::Type::Video);
  EXPECT_EQ(video->subType(), Stream::Subtype::CAPT);
  EXPECT_EQ(video->timeScale(), 5U);
  EXPECT_EQ(video->name(), "n");
  EXPECT_EQ(video->numberOfFragments(), 3U);
  EXPECT_EQ(video->numberOfTracks(), 1U);
  EXPECT_EQ(video->maxWidth() * 1000 + video->maxHeight() * 100 + video->displayWidth() * 10 +
                video->displayHeight(),
            1234U);
  EXPECT_EQ(video->parentStream(), "p");
  EXPECT_TRUE(video->manifestOutput());
  ASSERT_EQ(video->trackElements().size(), 2U);
  const TrackElement& level = *video->trackElements()[0];
  EXPECT_EQ(level.parentStream(), video);
  EXPECT_EQ(level.type(), Stream::Type::Video);
  EXPECT_EQ(level.index(), 0U);
  EXPECT_EQ(level.bitrate(), 350000U);
  EXPECT_EQ(level.maxWidth(), 640U);
  EXPECT_EQ(level.maxHeight(), 360U);
  EXPECT_EQ(level.codecPrivateData().toHEX(), "0A0B");
  EXPECT_EQ(level.NALUnitLengthField(), 4U);
  EXPECT_EQ(level.channels(), 0U);
  EXPECT_TRUE(level.rootElement().empty());
  EXPECT_EQ(video->trackElements()[1]->index(), 7U);
  EXPECT_EQ(video->trackElements()[1]->NALUnitLengthField(), 2U);

  const auto audio = stream(kAudio, tag("QualityLevel", kAudioLevel));
  EXPECT_EQ(audio->timeScale(), 100000000U);
  EXPECT_EQ(audio->subType(), Stream::Subtype::None);
  EXPECT_FALSE(audio->manifestOutput());
  EXPECT_EQ(audio->maxWidth(), 0U);
  const TrackElement& sound = *audio->trackElements()[0];
  EXPECT_EQ(sound.samplingRate(), 48000U);
  EXPECT_EQ(sound.audioTag(), 255U);
  EXPECT_EQ(sound.bitsPerSample(), 16U);
  EXPECT_EQ(sound.packetSize(), 4U);
  EXPECT_EQ(sound.channels(), 2U);
  EXPECT_EQ(sound.NALUnitLengthField(), 0U);

  const auto text = stream("Type='text' Subtype='odd' Chunks='0' QualityLevels='0' Url='u'",
                           tag("QualityLevel", "Bitrate='1'"));
  EXPECT_EQ(text->type(), Stream::Type::Text);
  EXPECT_EQ(text->subType(), Stream::Subtype::None);
  EXPECT_TRUE(text->trackElements()[0]->fourCC().empty());
  EXPECT_TRUE(text->trackElements()[0]->codecPrivateData().empty());
}

TEST(SmoothMediaTest, CutsAndPadsTheFourCC) {
  struct Row {
    const char* fourCC;
    std::string expected;
    uint32_t naluSize;
  };
  const Row rows[] = {{"H264", "H264", 4},
                      {"H2645", "H264", 4},
                      {"h264", "h264", 0},
                      {"AV1", std::string("AV1\0", 4), 0},
                      {"x", std::string("x\0\0\0", 4), 0}};
  for (const Row& row : rows) {
    const auto s = stream(kVideo, tag("QualityLevel", without(kVideoLevel, "FourCC") + " FourCC='" +
                                                          row.fourCC + "'"));
    EXPECT_EQ(s->trackElements()[0]->fourCC(), row.expected);
    EXPECT_EQ(s->trackElements()[0]->NALUnitLengthField(), row.naluSize);
  }
}

TEST(SmoothMediaTest, NamesWhatIsMissing) {
  const auto media = [](const std::string& streams) {
    return tag("SmoothStreamingMedia", kRoot, streams);
  };
  const auto missing = [](const char* name) {
    return std::string("Can't retrieve required value ") + name;
  };
  for (const char* name : {"MajorVersion", "MinorVersion", "Duration"}) {
    EXPECT_EQ(failure(tag("SmoothStreamingMedia", without(kRoot, name))), missing(name));
  }
  for (const char* name : {"Type", "Chunks", "QualityLevels", "Url", "MaxWidth", "MaxHeight",
                           "DisplayWidth", "DisplayHeight"}) {
    EXPECT_EQ(failure(media(tag("StreamIndex", without(kVideo, name)))), missing(name));
  }
  for (const char* name : {"Bitrate", "FourCC", "CodecPrivateData", "MaxWidth", "MaxHeight"}) {
    EXPECT_EQ(
        failure(media(tag("StreamIndex", kVideo, tag("QualityLevel", without(kVideoLevel, name))))),
        missing(name));
  }
  for (const char* name : {"Bitrate", "FourCC", "CodecPrivateData", "SamplingRate", "AudioTag",
                           "BitsPerSample", "PacketSize", "Channels"}) {
    EXPECT_EQ(
        failure(media(tag("StreamIndex", kAudio, tag("QualityLevel", without(kAudioLevel, name))))),
        missing(name));
  }
  struct Row {
    std::string xml;
    std::string message;
  };
  const Row rows[] = {
      {media(tag("StreamIndex", "Type='text' Chunks='1' QualityLevels='1' Url='u'")),
       missing("Subtype")},
      {media(tag("StreamIndex", without(kAudio, "Type") + " Type=''")), missing("Type")},
      {media(tag("StreamIndex", without(kAudio, "Type") + " Type='Audio'")),
       "Unsupported Type value"},
      {media("<Protection><ProtectionHeader/></Protection>"), missing("SystemID")},
      {tag("MPD", kRoot),
       "Passed invalid XML element. Expected tag SmoothStreamingMedia but got "
       "MPD"},
      {media(tag("StreamIndex", kAudio, "<c t='0'/>")),
       "Can't calculate fragment time due to insufficient information"},
      {media(tag("StreamIndex", kAudio, "<c t='0'/><c d='5'/>")),
       "Can't calculate fragment time due to insufficient information"},
  };
  for (const Row& row : rows)
    EXPECT_EQ(failure(row.xml), row.message) << row.xml;
}

TEST(SmoothFragmentTest, DerivesTheTimeline) {
  struct Row {
    const char* c;
    const char* expected;  // number:time+duration*repeats
  };
  const Row rows[] = {
      {"<c d='5'/><c d='6'/>", "0:0+5*1 1:5+6*1"},
      {"<c t='100' d='5' r='3'/><c d='6'/>", "0:100+5*3 1:115+6*1"},
      {"<c n='7' t='9'/><x/><c t='20' d='1'/><c n='3' d='1'/>", "7:9+11*1 8:20+1*1 3:21+1*1"},
      {"<c d='5' r='0'/><c d='5' r='-4'/><c d='5' r='x'/>", "0:0+5*1 1:5+5*1 2:10+5*1"},
      // What cannot be read counts as not stated.
      {"<c t='-1' d='x' n='-1'/><c t='7' d='18446744073709551616'/><c t='9' d='1'/>",
       "0:0+7*1 1:7+2*1 2:9+1*1"},
      // Nothing overflows.
      {"<c t='20'/><c t='5' d='1'/>", "0:20+0*1 1:5+1*1"},
      {"<c n='4294967295' t='18446744073709551615' d='18446744073709551615' r='2147483647'/>"
       "<c d='1'/>",
       "4294967295:18446744073709551615+18446744073709551615*2147483647 "
       "4294967295:18446744073709551615+1*1"},
  };
  for (const Row& row : rows) {
    const auto s = stream(kAudio, row.c);
    std::string out;
    for (size_t i = 0; i < s->streamFragmentElements().size(); ++i) {
      const auto f = s->streamFragmentElements()[i];
      out += (i ? " " : "") + std::to_string(f->number()) + ":" + std::to_string(f->time()) + "+" +
             std::to_string(f->duration()) + "*" + std::to_string(f->repeats());
    }
    EXPECT_EQ(out, row.expected) << row.c;
  }
}

TEST(SmoothFragmentTest, KeepsManifestOutput) {
  const auto s = stream(
      kAudio, "<c d='1'/><c d='1'><f i='2'>QUJD</f><f>x</f></c><c d='1'/><c d='1'><f i='1'/></c>");
  const StreamFragmentElements& all = s->streamFragmentElements();
  EXPECT_TRUE(all[0]->trackElements().empty());
  ASSERT_EQ(all[1]->trackElements().size(), 2U);
  EXPECT_EQ(all[1]->trackElements()[0]->index(), 2U);
  EXPECT_EQ(all[1]->trackElements()[0]->manifestOutputSample(), "QUJD");
  EXPECT_EQ(all[1]->trackElements()[1]->manifestOutputSample(), "x");
  EXPECT_TRUE(all[2]->trackElements().empty());
  EXPECT_EQ(all[3]->trackElements().size(), 1U);
}

std::string listed(const std::string& url, uint64_t chunks, const std::string& content) {
  const auto s = stream(
      "Type='audio' QualityLevels='1' Chunks='" + std::to_string(chunks) + "' Url='" + url + "'",
      tag("QualityLevel", kAudioLevel) + content);
  std::vector<mpl::RangedURI> out(1);
  s->fillListOfURL("base", 0, out);
  EXPECT_EQ(out.size(), s->listedFragments());
  std::string text;
  for (const auto& uri : out) {
    EXPECT_EQ(uri.base(), "base");
    EXPECT_TRUE(uri.range().isWhole());
    text += uri.reference().str() + "|";
  }
  return text;
}

TEST(SmoothFragmentTest, ListsAddresses) {
  struct Row {
    const char* url;
    uint64_t chunks;
    const char* c;
    const char* expected;
  };
  const Row rows[] = {
      {"Q({bitrate})/F(a={start time})", 3, "<c t='0' d='20000000' r='3'/>",
       "Q(64000)/F(a=0)|Q(64000)/F(a=20000000)|Q(64000)/F(a=40000000)|"},
      {"{Bitrate}{bitrate}{start_time}-{start time}{start_time}{BITRATE}{Start time}", 1,
       "<c t='7' d='1'/>", "64000640007-77{BITRATE}{Start time}|"},
      {"{start_{bitrate}time}{start time", 1, "<c t='7' d='1'/>", "{start_64000time}{start time|"},
      {"x", 2, "<c d='1'/><c d='1'/>", "x|x|"},
      // The timeline decides, and never more than was promised.
      {"{start time}", 2, "<c d='5' r='2'/><c d='5' r='9'/>", "0|5|"},
      {"{start time}", 3, "<c d='5' r='2'/><c d='5' r='9'/>", "0|5|10|"},
      {"{start time}", 4000000000, "<c d='5'/>", "0|"},
      {"{start time}", 18446744073709551615U, "<c d='5'/>", "0|"},
      {"{start time}", 0, "<c d='5'/>", ""},
      {"{start time}", 3, "", ""},
      {"{start time}", 3, "<c t='18446744073709551614' d='1' r='3'/>",
       "18446744073709551614|18446744073709551615|18446744073709551615|"},
  };
  for (const Row& row : rows)
    EXPECT_EQ(listed(row.url, row.chunks, row.c), row.expected);
}

TEST(SmoothFragmentTest, TellsHugeListsWithoutListing) {
  std::string content = tag("QualityLevel", kAudioLevel);
  for (int i = 0; i < 1000; ++i)
    content += "<c d='1' r='2147483647'/>";
  const auto s = stream("Type='audio' QualityLevels='1' Chunks='4000000000' Url='u'", content);
  EXPECT_EQ(s->listedFragments(), 4000000000U);
  EXPECT_EQ(s->streamFragmentElements().fragmentCount(), 2147483647000U);
  int seen = 0;
  EXPECT_THROW(s->forEachURL(0,
                             [&seen](std::string_view) {
                               if (++seen == 10) throw std::length_error("enough");
                             }),
               std::length_error);
  EXPECT_EQ(seen, 10);
}

TEST(SmoothFragmentTest, RefusesATrackThatDoesNotExist) {
  const auto s = stream(kAudio, tag("QualityLevel", kAudioLevel));
  std::vector<mpl::RangedURI> out;
  try {
    s->fillListOfURL("", 1, out);
    FAIL();
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "trackElementIndex shall be less than number of available tracks");
  }
}

}  // namespace
}  // namespace SmoothStreaming
