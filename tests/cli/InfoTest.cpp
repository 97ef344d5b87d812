#include <gtest/gtest.h>

#include "tests/cli/ProgramRunner.h"

namespace qntest {
namespace {

// One Period of one video quality; `attributes` of the MPD, `inside` the Representation.
std::string mpd(const std::string& attributes, const std::string& inside) {
  return "<MPD xmlns='urn:mpeg:dash:schema:mpd:2011' "
         "profiles='urn:mpeg:dash:profile:isoff-live:2011' "
         "minBufferTime='PT1S' " +
         attributes +
         "><Period start='PT0S'><AdaptationSet contentType='video' "
         "mimeType='video/mp4'><Representation id='v' "
         "bandwidth='800000' "
         "codecs='avc1.4d401f' width='64' height='36'>" +
         inside + "</Representation></AdaptationSet></Period></MPD>";
}

class InfoTest : public ::testing::Test {
 protected:
  Ended info(const std::string& target, std::vector<std::string> arguments = {}) const {
    arguments.insert(arguments.begin(), {"info", target});
    return program_.run(std::move(arguments));
  }
  Ended infoOf(const std::string& manifest, std::vector<std::string> arguments = {}) const {
    return info(program_.home().write("manifest", manifest), std::move(arguments));
  }

  ProgramRunner program_;
};

TEST_F(InfoTest, PrintsTheObjectThatProgramsReadAndKeepsItStable) {
  const std::string manifest =
      mpd("mediaPresentationDuration='PT4S'",
          "<SegmentList duration='2'><Initialization sourceURL='i.mp4' range='0-99'/><SegmentURL "
          "media='a%20b.m4s'/>"
          "<SegmentURL media='http://other/c.m4s' mediaRange='10-19'/></SegmentList>");
  const Ended ended = infoOf(manifest, {"--json", "--resources", "--url", "http://h/d/m.mpd?q"});
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_EQ(
      ended.out,
      R"({"format":"dash","inexactRanges":2,"movies":[{"duration":4.0,"tracks":[{"type":"video",)"
      R"("name":"-1 [video/mp4]",)"
      R"("language":null,"duration":4.0,"qualities":[{"identifier":"v","fourCC":"avc1","bitrate":800000,)"
      R"("parameters":"64 x 36 @ 800.0 kbps","width":64,"height":36,"resources":[)"
      R"({"url":"i.mp4","offset":0,"length":100,"range":"bytes=0-100","resolved":"http://h/d/i.mp4"},)"
      R"({"url":"a%20b.m4s","offset":0,"length":0,"range":null,"resolved":"http://h/d/a%20b.m4s"},)"
      R"({"url":"http://other/c.m4s","offset":10,"length":10,"range":"bytes=10-10",)"
      R"("resolved":"http://other/c.m4s"}]}]}]}]})"
      "\n");
  EXPECT_NE(ended.err.find("2 of 3 listed resources"), std::string::npos) << ended.err;

  const auto bare = infoOf(manifest, {"--json", "--resources", "--quiet"});
  EXPECT_EQ(bare.err, "");
  const auto object = bare.json();
  const auto& track = object.find("movies")->items()[0].find("tracks")->items()[0];
  const auto& resources = *track.find("qualities")->items()[0].find("resources");
  EXPECT_TRUE(resources.items()[0].find("resolved")->isNull())
      << "nothing says what it is relative to";
  EXPECT_EQ(resources.items()[2].find("resolved")->string(), "http://other/c.m4s");

  const auto without = infoOf(manifest, {"--json"});
  EXPECT_EQ(without.out.find("resources"), std::string::npos);
}

TEST_F(InfoTest, ShowsEveryTrackOfTheSample) {
  const Ended ended = info(kSample + "/manifest.mpd");
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_EQ(ended.err, "");
  const char* const rows[] = {"DASH, 0:16", "video",      "640x360",     "320x180",   "avc1.4d401f",
                              "110 kbit/s", "audio, eng", "48 kHz 1 ch", "mp4a.40.2", "~220 kB"};
  for (const char* row : rows)
    EXPECT_NE(ended.out.find(row), std::string::npos) << row << "\n" << ended.out;

  const auto json = info("file://" + kSample + "/manifest.mpd", {"--json"}).json();
  const auto& tracks = json.find("movies")->items()[0].find("tracks")->items();
  ASSERT_EQ(tracks.size(), 2U);
  EXPECT_EQ(tracks[0].find("qualities")->items().size(), 2U);
  EXPECT_EQ(tracks[1].find("qualities")->items()[0].find("sampleRate")->integer(), 48000);
}

TEST_F(InfoTest, TellsWhatIsNoManifestAndWhy) {
  struct Row {
    std::string name;
    std::string manifest;
    int code;
    std::string inMessage;
  };
  const std::string list = "<SegmentList duration='2'><SegmentURL media='a.m4s'/></SegmentList>";
  const std::string numbers = "<SegmentTemplate media='$Number$.m4s' duration='2'/>";
  const Row rows[] = {
      {"empty", "", 65, "as DASH"},
      {"an error page", "<html><body>404</body></html>", 65, "as Smooth Streaming"},
      {"cut off", mpd("mediaPresentationDuration='PT4S'", list).substr(0, 200), 65, "as DASH"},
      {"noise", std::string("\x00\xff\xfe\x1b[31m", 8), 65, "as DASH"},
      {"an entity bomb",
       "<!DOCTYPE MPD [<!ENTITY a 'aaaaaaaaaa'><!ENTITY b '&a;&a;&a;&a;'>]>" +
           mpd("mediaPresentationDuration='PT4S'", "<BaseURL>&b;</BaseURL>" + list),
       65, "as DASH"},
      {"a live presentation without duration", mpd("type='dynamic'", numbers), 65,
       "not a usable manifest"},
      {"two billion segments",
       mpd("mediaPresentationDuration='PT4S'",
           "<SegmentTemplate media='$Time$.m4s'><SegmentTimeline><S t='0' d='1' "
           "r='2000000000'/></SegmentTimeline>"
           "</SegmentTemplate>"),
       65, "not a usable manifest"},
      {"an escape sequence in a template",
       mpd("mediaPresentationDuration='PT4S'",
           "<SegmentTemplate media='\xC2\x9B"
           "2J$Nope$' duration='2'/>"),
       65, "not a usable manifest"},
      {"usable", mpd("mediaPresentationDuration='PT4S'", list), 0, ""},
  };
  for (const Row& row : rows) {
    for (const bool json : {false, true}) {
      const Ended ended = infoOf(
          row.manifest, json ? std::vector<std::string>{"--json"} : std::vector<std::string>{});
      EXPECT_EQ(ended.code, row.code) << row.name << "\n" << ended.err;
      EXPECT_NE(ended.err.find(row.inMessage), std::string::npos) << row.name << "\n" << ended.err;
      EXPECT_EQ(ended.errorLines(), row.code == 0 ? 0U : 1U) << row.name << "\n" << ended.err;
      for (const unsigned char c : ended.err)
        EXPECT_TRUE(c == '\n' || (c >= 0x20 && c != 0x7f)) << row.name;
      EXPECT_EQ(ended.err.find("\xC2\x9B"), std::string::npos) << row.name;
      if (json) {
        EXPECT_TRUE(ended.json().isObject()) << row.name;
      }
    }
  }

  const auto reasons = infoOf("<x/>", {"--json"}).json();
  for (const char* key : {"error", "dash", "smooth"}) {
    ASSERT_NE(reasons.find(key), nullptr) << key;
    EXPECT_TRUE(reasons.find(key)->isString()) << key;
  }
}

TEST_F(InfoTest, ShowsALiveManifestWithoutLists) {
  const Ended ended = infoOf(mpd("type='dynamic' availabilityStartTime='2020-01-01T00:00:00Z'",
                                 "<SegmentTemplate media='$Number$.m4s' duration='2'/>"),
                             {"--json", "--resources"});
  EXPECT_EQ(ended.code, 65);
  const auto json = ended.json();
  ASSERT_EQ(json.find("movies")->items().size(), 1U) << ended.out;
  EXPECT_TRUE(json.find("movies")->items()[0].find("duration")->isNull()) << ended.out;
}

TEST_F(InfoTest, PrintsNoMovieForAnEmptyPresentation) {
  const Ended ended = infoOf(
      "<MPD xmlns='urn:mpeg:dash:schema:mpd:2011' profiles='urn:mpeg:dash:profile:isoff-live:2011' "
      "type='dynamic' minBufferTime='PT1S' availabilityStartTime='2020-01-01T00:00:00Z'/>",
      {"--json"});
  EXPECT_EQ(ended.code, 65) << ended.err;
  EXPECT_EQ(ended.errorLines(), 1U) << ended.err;
  EXPECT_TRUE(ended.json().isObject()) << ended.out;
}

TEST_F(InfoTest, SaysWhatADownloadLeavesOut) {
  std::string two = mpd("mediaPresentationDuration='PT4S'",
                        "<SegmentList duration='2'><SegmentURL media='a.m4s'/></SegmentList>");
  const size_t end = two.find("</MPD>");
  const size_t begin = two.find("<Period");
  two.insert(end, two.substr(begin, end - begin));
  two.replace(two.rfind("PT0S"), 4, "PT2S");
  const Ended ended = infoOf(two);
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_NE(ended.out.find("movie 2"), std::string::npos) << ended.out;
  EXPECT_NE(ended.err.find("A download will not include"), std::string::npos) << ended.err;
  EXPECT_EQ(ended.errorLines(), 1U) << ended.err;
}

TEST_F(InfoTest, FetchesFromAServerAndTellsItsStatus) {
  FaultServer server;
  serveDirectory(server, kSample, "film");
  EXPECT_EQ(info(server.url("/film/manifest.mpd"), {"--json", "--resources"}).out,
            info(kSample + "/manifest.mpd",
                 {"--json", "--resources", "--url", server.url("/film/manifest.mpd")})
                .out);

  const Ended missing = info(server.url("/nothing"), {"--json"});
  EXPECT_EQ(missing.code, 65);
  EXPECT_NE(missing.err.find("the server answered 404 (not found)"), std::string::npos)
      << missing.err;
  EXPECT_NE(missing.json().find("dash"), nullptr);

  server.setRefusing(true);
  const Ended gone = info(server.url("/film/manifest.mpd"), {"--json"});
  EXPECT_EQ(gone.code, 66);
  EXPECT_EQ(gone.errorLines(), 1U) << gone.err;
  EXPECT_NE(gone.json().find("error"), nullptr);
  EXPECT_EQ(info(program_.home().path("nothing.mpd")).code, 66);
  EXPECT_EQ(info(program_.home().path()).code, 66);
}

TEST_F(InfoTest, SaysWhenStandardOutputCannotTakeTheResult) {
  const std::string command = std::string(QN_PROGRAM) + " info " + kSample +
                              "/manifest.mpd >/dev/full 2>/dev/null; echo $?";
  EXPECT_EQ(runTool({"sh", "-c", command}), "73\n");
}

TEST_F(InfoTest, UsageErrorsEndWithTwo) {
  const std::vector<std::string> rows[] = {
      {},
      {"nonsense"},
      {"info"},
      {"info", "a", "b"},
      {"info", "a", "--nonsense"},
      {"info", "a", "--url", "not a url"},
      {"info", "a", "--header", "no colon"},
      {"info", "a", "--header", ": no name"},
      {"info", "a", "--header", "X: a\r\nY: b"},
      {"download", "http://127.0.0.1:1/m", "--header-origin", "http://h/path"},
      {"download", "relative/manifest.mpd"},
      {"download", "ftp://h/manifest.mpd"},
      {"download", "file:///etc/passwd"},
      {"download", "http://127.0.0.1:1/m", "--all", "--video", "best"},
      {"download", "http://127.0.0.1:1/m", "--video"},
      {"download"},
      {"list", "something"},
      {"remove"},
  };
  for (const auto& row : rows) {
    const Ended ended = program_.run(row);
    EXPECT_EQ(ended.code, 2) << ::testing::PrintToString(row) << ended.err;
    EXPECT_EQ(ended.out, "") << ::testing::PrintToString(row);
    EXPECT_NE(ended.err, "") << ::testing::PrintToString(row);
  }
  for (const std::vector<std::string>& row :
       {std::vector<std::string>{"--help"}, {"--version"}, {"download", "--help"}}) {
    const Ended ended = program_.run(row);
    EXPECT_EQ(ended.code, 0);
    EXPECT_NE(ended.out, "");
    EXPECT_EQ(ended.err, "");
  }
}

}  // namespace
}  // namespace qntest
