// A movie whose downloader is killed again and again.

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "tests/transfer/MovieRun.h"

namespace qntest {
namespace {

// $QN_KILLS and $QN_SEED change a run; the seed is printed, so that a failing one can be repeated.
unsigned numberFrom(const char* variable, unsigned otherwise) {
  const char* text = std::getenv(variable);
  return text != nullptr ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : otherwise;
}

constexpr unsigned kKills = 25;
constexpr double kLaunchSeconds = 30;

void sleepMs(unsigned milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

TEST(KillLoop, MovieSurvivesKillsAtRandomInstants) {
  const unsigned kills = numberFrom("QN_KILLS", kKills);
  const unsigned seed = numberFrom("QN_SEED", std::random_device()());
  std::cout << "seed " << seed << ", " << kills << " kills" << std::endl;
  std::mt19937 random(seed);
  const auto below = [&](unsigned bound) { return static_cast<unsigned>(random() % bound); };

  MovieRun run({});
  // So that transfers are under way when the kill comes, some of them for a long time.
  run.server().setChooser([](const FaultRequest& request) {
    Fault paced;
    paced.bytesPerSecond = request.path.back() == '7' ? 1e5 : 2e6;
    return paced;
  });
  for (unsigned kill = 0; kill < kills && !testing::Test::HasFailure();) {
    run.start();
    if (kill % 5 == 4) {
      sleepMs(below(60));  // while it starts
    } else {
      EXPECT_TRUE(run.waitForLine("launch", kLaunchSeconds));
      sleepMs(below(kill % 5 == 2 ? 900 : 120));
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
