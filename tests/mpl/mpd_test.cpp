#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "mpl/Exception.h"
#include "mpl/dash/MediaPresentationDescription.h"
#include "mpl/dash/Parsers.h"
#include "mpl/dash/SegmentIndex.h"
#include "mpl/dash/SingleSegmentRepresentation.h"
#include "qnc/qncLog.h"

namespace mpl::dash {
namespace {

std::string print(const Format& f) {
  std::string out = f.id().str();
  const auto number = [&out](const char* name, int64_t value) {
    if (value != -1) out += std::string(" ") + name + "=" + std::to_string(value);
  };
  const auto text = [&out](const char* name, const FastString& value) {
    if (!value.empty()) out += std::string(" ") + name + "=" + value.str();
  };
  text("mime", f.mimeType());
  text("codecs", f.codecs());
  text("lang", f.lang());
  number("bw", f.bandwidth());
  number("w", f.width());
  number("h", f.height());
  if (!f.frameRate().isAbsent()) {
    number("fps", f.frameRate().numerator);
    number("per", f.frameRate().denominator);
  }
  number("ch", f.audioChannels());
  number("rate", f.audioSamplingRate());
  return out;
}

std::string print(const AdaptationSet& set) {
  constexpr const char* kTypes[] = {"unknown", "video", "audio", "text"};
  std::string out = kTypes[static_cast<int>(set.contentType())];
  if (set.id() != -1) out += " id=" + std::to_string(set.id());
  if (!set.lang().empty()) out += " lang=" + set.lang().str();
  for (const auto& p : set.contentProtections()) {
    out += " <" + p->schemeIdUri().str();
    if (!p->systemId().isNil()) out += " " + p->systemId().toHEX().str();
    out += ">";
  }
  for (const auto& r : set.representations()) {
    out += " {" + print(r->format());
    if (const auto* s = dynamic_cast<const SingleSegmentRepresentation*>(r.get())) {
      out += (out.back() == '{' ? "@" : " @") + s->mediaURL().str();
    }
    out += "}";
  }
  return out;
}

// The message of a parse that fails, with its tag.
std::string failure(const std::string& xml) {
  try {
    (void)MediaPresentationDescription::parse(xml, "");
  } catch (const ParseException& e) {
    return std::string("prse ") + e.what();
  } catch (const InvalidStateException& e) {
    return std::string("ista ") + e.what();
  } catch (const InvalidArgumentException& e) {
    return std::string("iarg ") + e.what();
  }
  return "";
}

std::string set(const std::string& content, const std::string& base = "") {
  const auto mpd = MediaPresentationDescription::parse(
      "<MPD mediaPresentationDuration='PT1S'><Period>" + content + "</Period></MPD>", base);
  return print(*mpd->periods().at(0)->adaptationSets().at(0));
}

TEST(MPDTest, TimesPeriods) {
  struct Row {
    const char* attributes;
    const char* periods;
    const char* expected;  // duration: start+duration of each period; or the failure
  };
  const Row rows[] = {
      {"mediaPresentationDuration='PT1M'", "<Period/>", "60000: 0+-1"},
      {"", "<Period duration='PT10S'/><Period duration='PT5S'/>", "15000: 0+10000 10000+5000"},
      {"mediaPresentationDuration='PT1M'", "<Period duration='PT10S'/><Period/>",
       "60000: 0+10000 10000+-1"},
      {"", "<Period start='PT3S' duration='PT10S'/>", "13000: 3000+10000"},
      {"mediaPresentationDuration='x'", "<Period duration='PT10S'/>", "10000: 0+10000"},
      {"mediaPresentationDuration='PT1M'", "<Period/><Period start='PT30S'/>",
       "60000: 0+-1 30000+-1"},
      {"", "<Period/>", "prse Unable to determine duration of static MPD"},
      {"", "<Period duration='PT1S'/><Period/>", "prse Unable to determine duration of static MPD"},
      {"mediaPresentationDuration='PT1M'", "<Period/><Period/>",
       "prse Unable to determine start time of Period"},
      // A static MPD without Periods ends where it begins.
      {"", "", "prse No Period found"},
      {"mediaPresentationDuration='PT1S'", "<Foo/>", "prse No Period found"},
      // Dynamic: Periods without a start are dropped.
      {"type='dynamic'", "<Period duration='PT1S'/>", "prse No Period found"},
      {"type='dynamic'", "<Period/><Period start='PT5S'/>", "-1: 5000+-1"},
      {"type='dynamic'", "<Period start='PT5S' duration='PT2S'/><Period/>",
       "-1: 5000+2000 7000+-1"},
      {"type='dynamic'", "<Period start='PT5S' duration='PT2S'/>", "7000: 5000+2000"},
      {"type='Dynamic'", "<Period duration='PT1S'/>", "1000: 0+1000"},
      // Beyond 64 bits: not known.
      {"", "<Period start='P292277024Y' duration='P292277024Y'/>",
       "prse Unable to determine duration of static MPD"},
      {"", "<Period start='-PT5S' duration='PT10S'/>", "5000: -5000+10000"},
  };
  for (const Row& row : rows) {
    const std::string xml = std::string("<MPD ") + row.attributes + ">" + row.periods + "</MPD>";
    std::string result = failure(xml);
    if (result.empty()) {
      const auto mpd = MediaPresentationDescription::parse(xml, "");
      result = std::to_string(mpd->mediaPresentationDuration()) + ":";
      for (const auto& p : mpd->periods()) {
        result += " " + std::to_string(p->startMs()) + "+" + std::to_string(p->durationMs());
      }
    }
    EXPECT_EQ(result, row.expected) << xml;
  }
}

TEST(MPDTest, ReadsTheRoot) {
  const std::string attributes =
      "availabilityStartTime='2020-02-29T12:00:00Z' minBufferTime='PT2S' "
      "minimumUpdatePeriod='PT3S' timeShiftBufferDepth='PT4S'";
  const std::string children =
      "<UTCTiming schemeIdUri='old' value='old'/><UTCTiming schemeIdUri='s'/>"
      "<Location>http://h/l</Location><Period start='PT0S' duration='PT1S' id='p'/>";
  const auto live = MediaPresentationDescription::parse(
      "<MPD type='dynamic' " + attributes + ">" + children + "</MPD>", "");
  EXPECT_TRUE(live->dynamic());
  EXPECT_EQ(live->availabilityStartTime(), 1582977600000);
  EXPECT_EQ(live->minBufferTime(), 2000);
  EXPECT_EQ(live->minimumUpdatePeriod(), 3000);
  EXPECT_EQ(live->timeShiftBufferDepth(), 4000);
  EXPECT_EQ(live->utcTiming(), (UTCTimingElement{"s", ""}));
  EXPECT_EQ(live->location(), "http://h/l");
  EXPECT_EQ(live->periods()[0]->id(), "p");
  const auto fixed =
      MediaPresentationDescription::parse("<MPD " + attributes + ">" + children + "</MPD>", "");
  EXPECT_FALSE(fixed->dynamic());
  EXPECT_EQ(fixed->minimumUpdatePeriod(), -1);
  EXPECT_EQ(fixed->timeShiftBufferDepth(), -1);
}

TEST(MPDTest, RefusesWhatIsNoMPD) {
  EXPECT_EQ(failure(""), "prse Failed to parse XML");
  EXPECT_EQ(failure("<MPD>"), "prse Failed to parse XML");
  EXPECT_EQ(failure("<mpd/>"), "prse Not a valid MPD");
  std::string deep;
  for (int i = 0; i < 100000; ++i)
    deep += "<MPD>";
  EXPECT_EQ(failure(deep), "prse Failed to parse XML");
  // Prefixes do not matter, also undeclared ones.
  EXPECT_EQ(failure("<m:MPD><m:Period duration='PT1S'/></m:MPD>"), "");
}

TEST(MPDTest, InheritsFormats) {
  struct Row {
    const char* content;
    const char* expected;
  };
  const Row rows[] = {
      {"<AdaptationSet id='7' mimeType='video/mp4' codecs='avc1' width='640' height='360' "
       "frameRate='30000/1001' audioSamplingRate='48000' xml:lang='en'>"
       "<Representation id='a' bandwidth='5'/>"
       "<Representation id='b' mimeType='video/webm' codecs='vp9' width='1' height='2' "
       "frameRate='25' audioSamplingRate='3' lang='de'/></AdaptationSet>",
       "video id=7 lang=en "
       "{a mime=video/mp4 codecs=avc1 lang=en bw=5 w=640 h=360 fps=30000 per=1001 rate=48000 @} "
       "{b mime=video/webm codecs=vp9 lang=en w=1 h=2 fps=25 per=1 rate=3 @}"},
      // Malformed numbers take the default, which is the set's.
      {"<AdaptationSet id='x' width='64'><Representation bandwidth='1.5' width='9 ' height='' "
       "frameRate='a/b'/></AdaptationSet>",
       "unknown { w=64 @}"},
      {"<AdaptationSet id='2147483648'><Representation bandwidth='+7' width='-7'/></AdaptationSet>",
       "unknown { bw=7 w=-7 @}"},
      // Channels: of the set as far as it is read, overwritten also by an unknown scheme.
      {"<AdaptationSet><Representation id='a'/><AudioChannelConfiguration value='2' "
       "schemeIdUri='urn:mpeg:dash:23003:3:audio_channel_configuration:2011'/>"
       "<Representation id='b'/><Representation id='c'><AudioChannelConfiguration value='6' "
       "schemeIdUri='urn:mpeg:dash:23003:3:audio_channel_configuration:2011'/></Representation>"
       "<Representation id='d'><AudioChannelConfiguration value='6' schemeIdUri='other'/>"
       "</Representation><Representation id='e'><AudioChannelConfiguration value='6ch' "
       "schemeIdUri='urn:mpeg:dash:23003:3:audio_channel_configuration:2011'/></Representation>"
       "</AdaptationSet>",
       "unknown {a @} {b ch=2 @} {c ch=6 @} {d @} {e @}"},
  };
  for (const Row& row : rows)
    EXPECT_EQ(set(row.content), row.expected) << row.content;
}

TEST(MPDTest, FindsContentTypesAndLanguages) {
  struct Row {
    const char* attributes;
    const char* children;
    const char* expected;  // type and language; or the failure
  };
  const Row rows[] = {
      {"contentType='audio' lang='en'", "", "audio en"},
      {"contentType='Audio'", "", "unknown "},
      {"mimeType='audio/mp4'", "<Representation/>", "audio "},
      {"mimeType='text/vtt'", "<Representation/>", "text "},
      {"mimeType='application/ttml+xml'", "<Representation/>", "text "},
      {"", "<Representation mimeType='application/mp4' codecs='stpp'/>", "text "},
      {"", "<Representation mimeType='application/mp4' codecs='wvtt'/>", "text "},
      {"", "<Representation mimeType='application/mp4' codecs='stpp.ttml.im1t'/>", "unknown "},
      {"contentType='text'", "<Representation mimeType='application/mp4' codecs='stpp'/>", "text "},
      {"", "<Representation mimeType='application/octet-stream'/>", "unknown "},
      {"", "<Representation mimeType='video'/>", "unknown "},
      {"", "<ContentComponent contentType='video' lang='fr'/>", "video fr"},
      {"lang='fr'", "<ContentComponent contentType='video' lang='fr'/>", "video fr"},
      {"contentType='audio'", "<Representation mimeType='video/mp4'/>",
       "ista Found content-type inconsistency"},
      {"", "<Representation mimeType='video/mp4'/><Representation mimeType='audio/mp4'/>",
       "ista Found content-type inconsistency"},
      {"", "<ContentComponent contentType='video'/><ContentComponent contentType='audio'/>",
       "ista Found content-type inconsistency"},
      {"lang='en'", "<ContentComponent lang='EN'/>", "ista Found language inconsistency"},
      {"", "<ContentComponent lang='en'/><ContentComponent lang='de'/>",
       "ista Found language inconsistency"},
  };
  for (const Row& row : rows) {
    const std::string xml = std::string("<MPD><Period duration='PT1S'><AdaptationSet ") +
                            row.attributes + ">" + row.children + "</AdaptationSet></Period></MPD>";
    std::string result = failure(xml);
    if (result.empty()) {
      constexpr const char* kTypes[] = {"unknown", "video", "audio", "text"};
      const auto mpd = MediaPresentationDescription::parse(xml, "");
      const AdaptationSet& s = *mpd->periods()[0]->adaptationSets()[0];
      result = std::string(kTypes[static_cast<int>(s.contentType())]) + " " + s.lang().str();
    }
    EXPECT_EQ(result, row.expected) << xml;
  }
}

TEST(MPDTest, ResolvesBaseURLsInDocumentOrder) {
  struct Row {
    const char* base;
    const char* mpd;
    const char* period;
    const char* set;
    const char* representation;
    const char* expected;
  };
  const Row rows[] = {
      {"http://h/m/x.mpd", "", "", "", "", "http://h/m/x.mpd"},
      {"http://h/m/x.mpd", "<BaseURL>a/</BaseURL>", "<BaseURL>b/</BaseURL>",
       "<BaseURL>../c/</BaseURL>", "<BaseURL>v.mp4</BaseURL>", "http://h/m/a/c/v.mp4"},
      {"http://h/m/x.mpd", "<BaseURL>a/</BaseURL>", "<BaseURL>https://o/</BaseURL>", "",
       "<BaseURL>/v.mp4</BaseURL>", "https://o/v.mp4"},
      // Without a manifest URL references stay relative.
      {"", "<BaseURL>d/</BaseURL>", "", "", "<BaseURL>../x.mp4</BaseURL>", "x.mp4"},
      {"", "", "", "", "<BaseURL>../x y|.mp4</BaseURL>", "../x y|.mp4"},
      // Only the first counts, also when it is empty; white space is not part of it.
      {"", "<BaseURL>\n a/ \t</BaseURL><BaseURL>b/</BaseURL>", "", "", "", "a/"},
      {"", "<BaseURL>a/</BaseURL>", "", "<BaseURL> </BaseURL><BaseURL>b/</BaseURL>", "", "a/"},
      {"", "<BaseURL><![CDATA[a/?x&y]]></BaseURL>", "", "", "", "a/?x&y"},
  };
  for (const Row& row : rows) {
    const auto mpd = MediaPresentationDescription::parse(
        std::string("<MPD>") + row.mpd + "<Period duration='PT1S'>" + row.period +
            "<AdaptationSet>" + row.set + "<Representation>" + row.representation +
            "</Representation></AdaptationSet></Period></MPD>",
        row.base);
    const auto& r = mpd->periods()[0]->adaptationSets()[0]->representations()[0];
    EXPECT_EQ(dynamic_cast<SingleSegmentRepresentation&>(*r).mediaURL(), row.expected);
  }
  // What comes after has no effect on what went before.
  EXPECT_EQ(set("<AdaptationSet><Representation/><BaseURL>a/</BaseURL><Representation/>"
                "</AdaptationSet><BaseURL>b/</BaseURL>"),
            "unknown {@} {@a/}");
  EXPECT_EQ(set("<AdaptationSet><Representation/><SegmentTemplate duration='1'/></AdaptationSet>"
                "<SegmentTemplate/>"),
            "unknown {@}");
}

// Texts that every Representation inherits are held once, or not at all: 2 MB here, not 100 GB.
TEST(MPDTest, LongInheritedTextsAreNotMultiplied) {
  const std::string text(100000, 'x');
  std::string xml = "<MPD><BaseURL>" + text + "/</BaseURL><Period duration='PT1S'><AdaptationSet " +
                    "mimeType='" + text + "' codecs='" + text + "' lang='" + text +
                    "'><SegmentTemplate media='" + text + "' initialization='" + text +
                    "'><Initialization sourceURL='" + text + "'/></SegmentTemplate>";
  for (int i = 0; i < 20000; ++i) {
    xml += "<Representation><BaseURL>v</BaseURL><SegmentTemplate/></Representation>";
  }
  const auto mpd = MediaPresentationDescription::parse(xml + "</AdaptationSet></Period></MPD>", "");
  const auto& r = mpd->periods()[0]->adaptationSets()[0]->representations().at(19999);
  EXPECT_EQ(r->getInitialization().resolve(), text + "/" + text);
  EXPECT_EQ(r->format().codecs(), "");
}

// Content protection

const std::string kSystem = "EDEF8BA979D64ACEA3C827DCD51D21ED";

// A box as hexadecimal text; `fields` replaces size, type and version word.
qnc::FastString box(const std::string& fields, const std::string& data = "00000000") {
  return qnc::ByteArray::fromHex(fields + kSystem + data + "00000000").toBase64();
}
const std::string kFields = "000000247073736800000000";

qnc::FastString good(const std::string& data = "00000000") {
  return box(kFields, data);
}

std::string protection(const std::string& scheme, const qnc::FastString& pssh) {
  return "<ContentProtection schemeIdUri='" + scheme + "'><cenc:pssh>" + pssh.str() +
         "</cenc:pssh></ContentProtection>";
}

TEST(ContentProtectionTest, KeepsWhatItCanUse) {
  struct Row {
    const char* what;
    std::string content;
    std::string expected;  // the protections; or the failure
  };
  const std::string widevine = " <s " + kSystem + ">";
  const Row rows[] = {
      {"a box", protection("s", good()), widevine},
      {"version 1", protection("s", box("000000247073736801000000")), ""},
      {"a version word of 1", protection("s", box("000000247073736800000001")), widevine},
      {"flags", protection("s", box("000000247073736800000002")), ""},
      {"wrong size", protection("s", box("000000257073736800000000")), ""},
      {"wrong type", protection("s", box("000000247073736900000000")), ""},
      {"too short", protection("s", qnc::ByteArray::fromHex(kFields + kSystem).toBase64()), ""},
      {"no text", protection("s", ""), ""},
      {"no box", "<ContentProtection schemeIdUri='s'/>", " <s>"},
      {"another prefix",
       "<ContentProtection schemeIdUri='s'><c:pssh>AAAA</c:pssh>"
       "<pssh>AAAA</pssh></ContentProtection>",
       " <s>"},
      {"an unusable box after a good one",
       "<ContentProtection schemeIdUri='s'><cenc:pssh>" + good().str() +
           "</cenc:pssh><cenc:pssh>AAAA</cenc:pssh></ContentProtection>",
       ""},
      {"order of first appearance",
       "<ContentProtection schemeIdUri='b'/><Representation><ContentProtection schemeIdUri='c'/>"
       "</Representation><ContentProtection schemeIdUri='a'/><Representation>"
       "<ContentProtection schemeIdUri='b'/></Representation>",
       " <b> <c> <a>"},
      {"the same in each Representation",
       "<Representation>" + protection("s", good()) + "</Representation><Representation>" +
           protection("s", good()) + "</Representation><Representation/>",
       widevine},
      {"other data",
       "<Representation>" + protection("s", good()) + "</Representation><Representation>" +
           protection("s", good("00000001")) + "</Representation>",
       "ista Conflicting schemeId URIs"},
      {"with and without box", "<ContentProtection schemeIdUri='s'/>" + protection("s", good()),
       "ista Conflicting schemeId URIs"},
  };
  const auto quiet = qnc::debug::Log::setSink([](const auto&, auto) {});
  for (const Row& row : rows) {
    const std::string xml = "<MPD><Period duration='PT1S'><AdaptationSet>" + row.content +
                            "</AdaptationSet></Period></MPD>";
    std::string result = failure(xml);
    if (result.empty()) {
      const auto mpd = MediaPresentationDescription::parse(xml, "");
      result = print(*mpd->periods()[0]->adaptationSets()[0]);
      result = result.substr(std::string("unknown").size());
      result = result.substr(0, result.find(" {"));
    }
    EXPECT_EQ(result, row.expected) << row.what;
  }
  (void)qnc::debug::Log::setSink(quiet);
}

TEST(ContentProtectionTest, TellsWhatItLeavesOut) {
  std::string lines;
  const auto former = qnc::debug::Log::setSink([&lines](const auto& record, auto) {
    lines += std::to_string(static_cast<int>(record.level)) + " " + record.source + " " +
             record.function + " " + std::string(record.message) + "\n";
  });
  (void)set("<AdaptationSet>" + protection("s", box("000000247073736800000002")) +
            "</AdaptationSet>");
  (void)qnc::debug::Log::setSink(former);
  EXPECT_EQ(lines,
            "3 libs/mpl/src/mpl/dash/MediaPresentationDescription parsePSSHBoxUUID "
            "Unsupported pssh box version\n"
            "3 libs/mpl/src/mpl/dash/MediaPresentationDescription parseContentProtection "
            "Skipped unsupported ContentProtection element\n");
}

TEST(ContentProtectionTest, ManySchemesDoNotTakeSquareTime) {
  std::string content;
  for (int i = 0; i < 100000; ++i) {
    content += "<ContentProtection schemeIdUri='" + std::to_string(i) + "'/>";
  }
  const auto mpd = MediaPresentationDescription::parse(
      "<MPD><Period duration='PT1S'><AdaptationSet>" + content + "</AdaptationSet></Period></MPD>",
      "");
  EXPECT_EQ(mpd->periods()[0]->adaptationSets()[0]->contentProtections().size(), 100000U);
}

TEST(ContentProtectionsBuilderTest, ComparesAndSortsBySchemeAlone) {
  const auto make = [](const char* scheme, const char* data) {
    return std::make_shared<ContentProtection>(scheme, qnc::Uuid(),
                                               SchemeInitData{"", qnc::ByteArray::fromHex(data)});
  };
  ContentProtectionList a{make("a", "01"), make("c", "02"), make("b", "03")};
  ContentProtectionsBuilder::sortProtections(a);
  const ContentProtectionList b{make("c", "04"), make("b", ""), make("a", "")};
  EXPECT_TRUE(ContentProtectionsBuilder::equalProtections(a, b));
  EXPECT_FALSE(ContentProtectionsBuilder::equalProtections(a, {}));
  EXPECT_FALSE(ContentProtectionsBuilder::equalProtections(a, {b[1], b[0], b[2]}));
  EXPECT_TRUE(ContentProtectionsBuilder::containsProtection(a, *make("c", "02")));
  EXPECT_FALSE(ContentProtectionsBuilder::containsProtection(a, *make("d", "02")));
  EXPECT_THROW(ContentProtectionsBuilder::addProtection(a, make("c", "09")), InvalidStateException);
  ContentProtectionsBuilder::addProtection(a, make("b", "03"));
  EXPECT_EQ(a.size(), 3U);
}

}  // namespace
}  // namespace mpl::dash
