// A disk that is full: a tmpfs of a few megabytes in a mount namespace of the child's own.

#include <filesystem>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "platform/FileDescriptor.h"
#include "tests/support/SessionRecorder.h"
#include "tests/support/TestContent.h"
#include "tests/support/UserNamespace.h"
#include "tests/transfer/ContractHarness.h"
#include "tests/transfer/MovieRun.h"

namespace qntest {
namespace {

class FullDisk : public testing::Test {
 protected:
  static MoviePlan plan() {
    MoviePlan plan;
    plan.qualities = 2;
    plan.segments = 20;
    plan.bytes = 200000;  // about 8 MB in all
    return plan;
  }

  // 12 MB, of which 8 are taken.
  FullDisk() {
    run.setBase(run.directory() + "/disk");
    std::filesystem::create_directories(run.directory() + "/disk");
    run.commandPrefix = commandOnTmpfs(run.directory() + "/disk", 12 << 20, 8 << 20);
    EXPECT_FALSE(run.commandPrefix.empty())
        << "neither root's mount namespace nor a user namespace";
    run.environment["QN_TEST_WRITES_BELOW"] = "";
  }
  std::string inside(const std::string& path) {
    return "/proc/" + std::to_string(run.child().pid()) + "/root" + path;
  }
  uint64_t bytesBelow(const std::string& path) {
    uint64_t bytes = 0;
    std::error_code none;
    std::filesystem::recursive_directory_iterator at(path, none), end;
    for (; !none && at != end; at.increment(none)) {
      std::error_code gone;
      const auto size = std::filesystem::file_size(at->path(), gone);
      if (!gone) bytes += size;
    }
    return bytes;
  }

  MovieRun run{plan()};
};

TEST_F(FullDisk, IsWaitedForAndWhatIsThereStays) {
  run.extraArguments = {"diskFullBound=60", "linger=1"};
  run.start();
  ASSERT_TRUE(run.waitForLine("waits disk full", kEventDeadlineSeconds))
      << "the reason was not told";
  const uint64_t stored = bytesBelow(inside(run.root()));
  const uint64_t partial = bytesBelow(inside(run.partial())) + bytesBelow(inside(run.state()));
  EXPECT_GT(stored + partial, 2000000U) << "there was room for more than that";
  EXPECT_FALSE(run.child().wait(0.5)) << "it ended";
  EXPECT_GE(bytesBelow(inside(run.root())), stored);
  std::filesystem::remove(inside(run.directory() + "/disk/ballast"));
  ASSERT_TRUE(run.waitForLine("done", kEventDeadlineSeconds)) << "it did not go on by itself:\n"
                                                              << run.logText();
  for (int quality = 0; quality < plan().qualities; ++quality) {
    for (int i = 0; i < plan().segments; ++i) {
      const std::string name = MoviePlan::nameOf(quality, i);
      EXPECT_EQ(compareWithContent(inside(run.root()) + "/" + name, run.plan().pathOf(name), 0,
                                   plan().sizeOf(i)),
                "");
    }
  }
  for (const std::string& line : run.log())
    EXPECT_NE(line.rfind("failed", 0), 0U) << line;
}

// The store may have had no room for what was delivered last.
TEST_F(FullDisk, FetchesNothingAgainAfterAKill) {
  namespace fs = std::filesystem;
  run.extraArguments = {"diskFullBound=60"};
  run.start();
  ASSERT_TRUE(run.waitForLine("waits disk full", kEventDeadlineSeconds));
  // The disk goes with the process, but not while this is open.
  const std::string path = run.directory() + "/disk";
  const platform::FileDescriptor disk(::open(inside(path).c_str(), O_PATH | O_CLOEXEC));
  ASSERT_TRUE(disk);
  EXPECT_FALSE(run.child().wait(0.5)) << "it ended";  // what can be stored is
  run.child().kill();
  fs::copy("/proc/self/fd/" + std::to_string(disk.get()) + "/.", path, fs::copy_options::recursive);
  fs::remove(path + "/ballast");
  run.killAndCheck();
  run.commandPrefix.clear();
  run.start();
  run.finishAndCompare();
}

TEST_F(FullDisk, BecomesAnErrorAfterTheBound) {
  run.extraArguments = {"diskFullBound=0.5", "linger=1"};
  run.start();
  ASSERT_TRUE(run.waitForLine("failed", kEventDeadlineSeconds));
  bool named = false;
  for (const std::string& line : run.log())
    named = named || line.find("NSPOSIXErrorDomain 28") != std::string::npos;
  EXPECT_TRUE(named) << "not as the error of a full disk";
}

}  // namespace
}  // namespace qntest
