// A process that dies before its n-th write, or in the middle of it, for every n of a small movie.

#include <csignal>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/TempDirectory.h"
#include "tests/transfer/MovieRun.h"

namespace qntest {
namespace {

struct WriteShard {
  bool torn;  // the last write happens by half
  int first, step;
};

std::ostream& operator<<(std::ostream& out, const WriteShard& shard) {
  return out << (shard.torn ? "Torn" : "Before") << shard.first;
}

MoviePlan smallMovie() {
  MoviePlan plan;
  plan.qualities = 2;
  plan.segments = 3;
  plan.bytes = 20000;
  plan.parallel = 2;
  return plan;
}

class KillAtEveryWrite : public testing::TestWithParam<WriteShard> {};

TEST_P(KillAtEveryWrite, TheMovieIsWholeAfterTheNextLaunch) {
  const WriteShard& shard = GetParam();
  int kills = 0;
  for (int n = shard.first; !HasFailure(); n += shard.step) {
    SCOPED_TRACE("killed at write " + std::to_string(n));
    MovieRun run(smallMovie());
    run.environment["QN_TEST_KILL_AT_WRITE"] = std::to_string(n);
    if (shard.torn) run.environment["QN_TEST_TEAR_WRITE"] = "1";
    run.start();
    ASSERT_TRUE(run.child().wait(60));
    if (run.child().result() == 0) {
      run.finishAndCompare();
      break;
    }
    ASSERT_EQ(run.child().result(), -SIGKILL);
    ++kills;
    run.killAndCheck();
    run.environment.erase("QN_TEST_KILL_AT_WRITE");
    run.start();
    run.finishAndCompare();
  }
  EXPECT_GT(kills, 8) << "the writes are not being counted";
}

// Two launches, each of which dies at a write.
TEST(KillAtWrites, OfTwoLaunches) {
  for (int n = 5; n < 60 && !testing::Test::HasFailure(); n += 7) {
    MovieRun run(smallMovie());
    for (const int at : {n, 3 + n / 2, n}) {
      run.environment["QN_TEST_KILL_AT_WRITE"] = std::to_string(at);
      run.start();
      ASSERT_TRUE(run.child().wait(60));
      if (run.child().result() == 0) break;
      run.killAndCheck();
    }
    run.environment.erase("QN_TEST_KILL_AT_WRITE");
    run.start();
    run.finishAndCompare();
  }
}

INSTANTIATE_TEST_SUITE_P(Shard, KillAtEveryWrite,
                         testing::Values(WriteShard{false, 1, 2}, WriteShard{false, 2, 2},
                                         WriteShard{true, 1, 2}, WriteShard{true, 2, 2}),
                         [](const auto& info) {
                           return std::string(info.param.torn ? "Torn" : "Before") +
                                  std::to_string(info.param.first);
                         });

}  // namespace
}  // namespace qntest
