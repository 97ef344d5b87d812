// A movie in the background whose program and service are killed again and again.

#include <iostream>
#include <map>

#include "tests/cli/ServedMovie.h"
#include "tests/cli/service_Fixture.h"
#include "tests/support/Processes.h"
#include "tests/support/RandomKills.h"

namespace qntest {
namespace {

constexpr unsigned kKills = 10;  // KillLoop does most
constexpr size_t kActive = 4;    // of a quality at a time

class ServiceKillTest : public ServiceProgramTest {
 protected:
  ServedMovie serveMovie(const std::string& name) {
    const ServedMovie movie(server_, name);
    setURL(movie.url());
    return movie;
  }
};

TEST_F(ServiceKillTest, KilledOnceTheProgramIsStartedAgainByNobodyButTheService) {
  const auto movie = serveMovie("once");
  ASSERT_EQ(background().code, 0);
  ASSERT_TRUE(server_.waitForRequests(movie.pathOf(20), 1, 30));
  killAndWait(holder());
  noteStored();
  EXPECT_EQ(run({"status", url(), "--follow"}).code, 0);
  movie.expectWhole(now().directory);
  expectStoredWasKept();
  EXPECT_LE(movie.again().requests, kActive);
}

// What a kill of either had under way is asked for again, and nothing else.
TEST_F(ServiceKillTest, MovieSurvivesKillsOfProgramServiceAndBothAtRandomInstants) {
  RandomKills random(kKills);
  const unsigned kills = random.count();
  std::map<std::string, unsigned> figures;
  unsigned killed = 0;
  for (int number = 0; killed < kills && !HasFailure(); ++number) {
    const std::string name = "movie" + std::to_string(number);
    const bool programOnly = number % 3 == 0;
    const auto movie = serveMovie(name);
    ASSERT_EQ(background().code, 0);
    size_t killsOfMovie = 0;
    for (int turn = 0; turn < 6 && killed < kills; ++turn) {
      random.sleepBelow(turn % 3 == 2 ? 600 : 150);
      const unsigned which = programOnly ? 0 : 1 + random.below(2);
      SCOPED_TRACE(name + ", kill " + std::to_string(killed));
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
    movie.expectWhole(now().directory);
    const auto repeated = movie.again();
    expectStoredWasKept();
    EXPECT_LE(repeated.requests, killsOfMovie * kActive) << name;
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
