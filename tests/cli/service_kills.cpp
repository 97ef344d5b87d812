// A movie in the background whose program and service are killed again and again.

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <map>
#include <random>
#include <thread>

#include "tests/cli/service_Fixture.h"
#include "tests/support/Processes.h"
#include "tests/support/TestContent.h"

namespace qntest {
namespace {

constexpr unsigned kKills = 10;  // KillLoop does most
constexpr int kSegments = 60;
constexpr uint64_t kSegmentBytes = 60'000;
constexpr size_t kActive = 4;  // of a quality at a time

// $QN_KILLS and $QN_SEED change a run; the seed is printed, so that a failing one can be repeated.
unsigned numberFrom(const char* variable, unsigned otherwise) {
  const char* text = std::getenv(variable);
  return text ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : otherwise;
}

class ServiceKillTest : public ServiceProgramTest {
 protected:
  ServiceKillTest() {
    server_.setChooser([](const FaultRequest& request) {
      Fault paced;
      paced.bytesPerSecond = request.path.ends_with("7.m4s") ? 1e5 : 1e6;
      return paced;
    });
  }

  static std::string pathOf(const std::string& movie, int segment) {
    return "/" + movie + "/" + std::to_string(segment) + ".m4s";
  }
  static uint64_t sizeOf(int segment) {
    return kSegmentBytes / 2 + kSegmentBytes * static_cast<uint64_t>(segment % 5) / 4;
  }

  void serveMovie(const std::string& movie) {
    FaultResource manifest;
    manifest.literal =
        R"(<MPD xmlns="urn:mpeg:dash:schema:mpd:2011" type="static" mediaPresentationDuration="PT)" +
        std::to_string(kSegments) +
        R"(S"><Period><AdaptationSet contentType="video" mimeType="video/mp4"><SegmentTemplate )"
        R"(media="$Number$.m4s" startNumber="0" duration="1"/><Representation id="v" )"
        R"(bandwidth="500000" codecs="avc1.4d401e" width="640" height="360"/></AdaptationSet>)"
        R"(</Period></MPD>)";
    server_.serve("/" + movie + "/manifest.mpd", manifest);
    for (int i = 0; i < kSegments; ++i)
      server_.serve(pathOf(movie, i), sizeOf(i));
    setURL(server_.url("/" + movie + "/manifest.mpd"));
  }

  void expectWhole(const std::string& movie) {
    const std::string directory = now().directory;
    for (int i = 0; i < kSegments; ++i) {
      ASSERT_EQ(compareWithContent(directory + "/" + std::to_string(i) + ".m4s", pathOf(movie, i),
                                   0, sizeOf(i)),
                "");
    }
  }

  // Requests beyond one for each segment; those that began at 0 although bytes had been sent.
  struct Again {
    size_t requests = 0;
    uint64_t bytes = 0;
  };
  Again again(const std::string& movie) const {
    Again again;
    for (int i = 0; i < kSegments; ++i) {
      const size_t count = server_.requestCount(pathOf(movie, i));
      EXPECT_GE(count, 1U) << i;
      again.requests += count - std::min<size_t>(count, 1);
      again.bytes += server_.bytesSentAgain(pathOf(movie, i));
    }
    return again;
  }
};

TEST_F(ServiceKillTest, KilledOnceTheProgramIsStartedAgainByNobodyButTheService) {
  serveMovie("once");
  ASSERT_EQ(background().code, 0);
  ASSERT_TRUE(server_.waitForRequests(pathOf("once", 20), 1, 30));
  killAndWait(holder());
  noteStored();
  EXPECT_EQ(run({"status", url(), "--follow"}).code, 0);
  expectWhole("once");
  expectStoredWasKept();
  EXPECT_LE(again("once").requests, kActive);
}

// What a kill of either had under way without an answer is asked for again, and nothing else: a
// program that was started again pauses and resumes what runs, and that gives up such requests.
TEST_F(ServiceKillTest, MovieSurvivesKillsOfProgramServiceAndBothAtRandomInstants) {
  const unsigned kills = numberFrom("QN_KILLS", kKills);
  const unsigned seed = numberFrom("QN_SEED", std::random_device()());
  std::cout << "seed " << seed << ", " << kills << " kills" << std::endl;
  std::mt19937 random(seed);
  const auto below = [&](unsigned bound) { return static_cast<unsigned>(random() % bound); };
  std::map<std::string, unsigned> figures;
  unsigned killed = 0;
  for (int number = 0; killed < kills && !HasFailure(); ++number) {
    const std::string movie = "movie" + std::to_string(number);
    const bool programOnly = number % 3 == 0;
    serveMovie(movie);
    ASSERT_EQ(background().code, 0);
    size_t killsOfMovie = 0;
    for (int turn = 0; turn < 6 && killed < kills; ++turn) {
      std::this_thread::sleep_for(std::chrono::milliseconds(below(turn % 3 == 2 ? 600 : 150)));
      const unsigned which = programOnly ? 0 : 1 + below(2);
      SCOPED_TRACE(movie + ", kill " + std::to_string(killed));
      const Now before = now();
      if (before.state == "complete") break;
      const pid_t program = which == 1 ? 0 : before.holder;
      const pid_t server = which == 0 ? 0 : service();
      killAndWait(program);
      killAndWait(server);
      noteStored(before.directory);
      ++killsOfMovie;
      ++figures[which == 0 ? "program" : which == 1 ? "service" : "both"];
      ++killed;
      // Both dead: nobody is left to start anything. It may have been complete a moment ago.
      if (which == 2 && run({"resume", url()}).code != 0) {
        EXPECT_EQ(state(), "complete");
      }
    }
    const Ended followed = run({"status", url(), "--follow"});
    EXPECT_EQ(followed.code, 0) << followed.out;
    expectWhole(movie);
    const Again repeated = again(movie);
    expectStoredWasKept();
    EXPECT_LE(repeated.requests, killsOfMovie * kActive) << movie;
    figures["requests again"] += static_cast<unsigned>(repeated.requests);
    figures["bytes again"] += static_cast<unsigned>(repeated.bytes);
    ++figures["movies"];
  }
  for (const auto& [name, count] : figures)
    std::cout << name << " " << count << "; ";
  std::cout << std::endl;
}

}  // namespace
}  // namespace qntest
