// A movie whose downloader is killed again and again.

#include <iostream>

#include <gtest/gtest.h>

#include "tests/support/RandomKills.h"
#include "tests/transfer/MovieRun.h"

namespace qntest {
namespace {

constexpr unsigned kKills = 25;
constexpr double kLaunchSeconds = 30;

TEST(KillLoop, MovieSurvivesKillsAtRandomInstants) {
  RandomKills random(kKills);
  MovieRun run({});
  // So that transfers are under way when the kill comes, some of them for a long time.
  run.server().setChooser([](const FaultRequest& request) {
    Fault paced;
    paced.bytesPerSecond = request.path.back() == '7' ? 1e5 : 2e6;
    return paced;
  });
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
