// A download whose disk is full for a while.

#include <filesystem>

#include <fcntl.h>
#include <gtest/gtest.h>

#include "platform/FileDescriptor.h"
#include "tests/cli/ProgramRunner.h"
#include "tests/cli/ServedMovie.h"
#include "tests/support/UserNamespace.h"

namespace qntest {
namespace {

namespace fs = std::filesystem;

TEST(FullDiskOfTheProgram, IsToldAndTheDownloadGoesOnByItself) {
  FaultServer server;
  const ServedMovie movie(server, "movie");  // 3.6 MB
  ProgramRunner program;
  const std::string home = fs::path(program.root()).parent_path();
  const auto prefix = commandOnTmpfs(home, 6 << 20, 4 << 20);
  ASSERT_FALSE(prefix.empty()) << "neither root's mount namespace nor a user namespace";
  program.setCommandPrefix(prefix);

  const auto process = program.start({"download", movie.url(), "--root", program.root()}, true);
  ASSERT_TRUE(process->waitForError("waiting for room on the disk"));
  // The disk is seen by the process alone; through this also when it has gone.
  const std::string path = "/proc/" + std::to_string(process->pid()) + "/root" + home;
  const platform::FileDescriptor fd(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  ASSERT_TRUE(fd);
  const std::string disk = "/proc/self/fd/" + std::to_string(fd.get());
  const auto files = [&] { return filesBelow(disk + "/downloads"); };
  const auto stored = files();
  EXPECT_GT(stored.size(), 10U) << "there was room for more than that";
  server.clearLog();

  fs::remove(disk + "/ballast");
  const Ended ended = process->wait();
  EXPECT_EQ(ended.code, 0) << ended.err;
  const auto whole = files();
  ASSERT_FALSE(whole.empty());
  movie.expectWhole(disk + "/downloads/" + fs::path(whole.begin()->first).parent_path().string());
  for (const auto& [name, content] : stored) {
    const std::string file = fs::path(name).filename();
    EXPECT_EQ(server.requestCount("/movie/" + file), 0U) << "it was stored: " << file;
  }
}

}  // namespace
}  // namespace qntest
