// A movie whose downloader is killed again and again, alone or with its service.

#include <iostream>

#include <gtest/gtest.h>

#include "tests/support/RandomKills.h"
#include "tests/transfer/ServiceRun.h"

namespace qntest {
namespace {

constexpr unsigned kKills = 25;
constexpr double kLaunchSeconds = 30;

// So that transfers are under way when the kill comes, some of them for a long time.
Fault pace(const FaultRequest& request) {
  Fault paced;
  paced.bytesPerSecond = request.path.back() == '7' ? 5e4 : 2e6;
  return paced;
}

TEST(KillLoop, MovieSurvivesKillsAtRandomInstants) {
  RandomKills random(kKills);
  MovieRun run({});
  run.server().setChooser(pace);
  for (unsigned kill = 0; kill < random.count() && !testing::Test::HasFailure();) {
    run.start();
    if (kill % 5 == 4) {
      random.sleepBelow(60);  // while it starts
    } else {
      EXPECT_TRUE(run.waitForLine("launch", kLaunchSeconds));
      random.sleepBelow(kill % 5 == 2 ? 900 : 120);
    }
    if (run.child().wait(0)) {
      run.finishAndCompare();
      run.nextMovie();
      continue;
    }
    SCOPED_TRACE("kill " + std::to_string(kill));
    run.killAndCheck();
    ++kill;
  }
  run.start();
  run.finishAndCompare();
  std::cout << run.figures().text() << std::endl;
  // Bytes under way and what lies in the buffers of the connections; far from what was there.
  const auto& figures = run.figures();
  EXPECT_LT(figures.sentAgain, static_cast<uint64_t>(figures.kills) * 12 * 200000);
}

// One movie in two loses only its application: nothing of that is to be seen on the server.
TEST(KillLoop, MovieSurvivesKillsOfApplicationServiceAndBoth) {
  constexpr size_t kNearTheEnd = 40;  // segments
  RandomKills random(kKills);
  ServiceRun run({});
  run.server().setChooser(pace);
  run.start();
  unsigned kill = 0;
  size_t startedByHand = 1;
  for (int movie = 0; kill < random.count() && !testing::Test::HasFailure(); ++movie) {
    const bool applicationOnly = movie % 2 == 0;
    const uint64_t sentAgain = run.figures().sentAgain;
    for (unsigned turn = 0; turn < (applicationOnly ? 8 : 17) && kill < random.count(); ++turn) {
      SCOPED_TRACE("movie " + std::to_string(movie) + ", kill " + std::to_string(kill));
      EXPECT_TRUE(run.waitForApplication(turn % 5 != 4));
      if (testing::Test::HasFailure()) break;
      random.sleepBelow(turn % 5 == 2 ? 700 : 100);
      if (run.stored() + kNearTheEnd > 300) break;
      const auto victim =
          applicationOnly ? Victim::Application : static_cast<Victim>(random.below(3));
      ++kill;
      if (!run.kill(victim)) continue;
      run.start();
      ++startedByHand;
    }
    run.finishAndCompare();
    if (applicationOnly) {
      EXPECT_EQ(run.figures().sentAgain, sentAgain);
    }
    if (kill == random.count()) break;
    run.nextMovie();
    run.start();
    ++startedByHand;
  }
  if (testing::Test::HasFailure()) std::cout << run.logText();
  std::cout << run.kills[Victim::Application] << " kills of the application, "
            << run.kills[Victim::Service] << " of the service, " << run.kills[Victim::Both]
            << " of both; " << run.launches() << " launches, " << startedByHand << " by hand; "
            << run.figures().text() << std::endl;
}

// What an application does that never closes anything.
TEST(LeaveLoop, MainEndsWhileTransfersRun) {
  MovieRun run({});
  Fault paced;
  paced.bytesPerSecond = 2e6;
  run.server().setChooser([&](const FaultRequest&) { return paced; });
  for (int i = 0; i < 15; ++i) {
    run.extraArguments = {"after=" + std::to_string(i * 3000)};
    run.start("leave");
    ASSERT_TRUE(run.child().wait(kLaunchSeconds));
    EXPECT_EQ(run.child().result(), 0) << "after " << i * 3 << " ms";
    run.killAndCheck();
  }
  run.extraArguments.clear();
  run.start();
  run.finishAndCompare();
}

}  // namespace
}  // namespace qntest
