// The power goes right after the program has said that everything is there.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include "platform/FileDescriptor.h"
#include "tests/cli/ProgramRunner.h"
#include "tests/cli/ServedMovie.h"
#include "tests/support/TestContent.h"

namespace qntest {
namespace {

namespace fs = std::filesystem;

// EXT4_IOC_SHUTDOWN with the flag that leaves the log unwritten: what was not flushed is lost.
constexpr unsigned long kShutDown = 0x8004587d;
constexpr uint32_t kWithoutLog = 2;

// An ext4 file system in an image, mounted at a directory for as long as the object lives.
class LoopDisk {
 public:
  LoopDisk(const std::string& image, std::string at, int64_t bytes)
      : image_(image), at_(std::move(at)) {
    std::ofstream(image_).close();
    fs::resize_file(image_, static_cast<uintmax_t>(bytes));
    fs::create_directories(at_);
    isThere_ = run("mkfs.ext4 -q -F " + image_) && mount();
  }
  ~LoopDisk() {
    if (isThere_) run("umount " + at_);
  }
  LoopDisk(const LoopDisk&) = delete;
  LoopDisk& operator=(const LoopDisk&) = delete;

  bool isThere() const { return isThere_; }
  // As after a loss of power and the next start of the machine.
  [[nodiscard]] bool losePower() {
    {
      const platform::FileDescriptor fd(::open(at_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      if (!fd || ::ioctl(fd.get(), kShutDown, &kWithoutLog) != 0) return false;
    }
    return run("umount " + at_) && mount();
  }

 private:
  bool mount() const { return run("mount -o loop " + image_ + " " + at_); }
  static bool run(const std::string& command) {
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
  }

  const std::string image_;
  const std::string at_;
  bool isThere_ = false;
};

TEST(PowerLoss, TakesNothingThatWasCalledComplete) {
  constexpr uint64_t kSegmentBytes = 1 << 20;
  FaultServer server;
  const ServedMovie movie(server, "movie");
  server.setChooser(nullptr);
  for (int i = 0; i < ServedMovie::kSegments; ++i)
    server.serve(movie.pathOf(i), kSegmentBytes);
  ProgramRunner program;
  LoopDisk disk(program.home().path("image"), program.root(), 256 << 20);
  if (!disk.isThere()) {
    std::cout << "Not tried: this system lets us mount no image of a disk.\n";
    return;
  }
  ASSERT_EQ(program.download(movie.url()).code, 0);
  ASSERT_TRUE(disk.losePower());
  int found = 0;
  for (const auto& entry : fs::recursive_directory_iterator(program.root())) {
    const int segment = std::atoi(entry.path().filename().c_str());
    if (entry.path().extension() != ".m4s") continue;
    ++found;
    EXPECT_EQ(compareWithContent(entry.path(), movie.pathOf(segment), 0, kSegmentBytes), "");
  }
  EXPECT_EQ(found, ServedMovie::kSegments);
  server.clearLog();
  EXPECT_EQ(program.download(movie.url()).code, 0);
  EXPECT_EQ(server.requestCount(movie.pathOf(0)), 0U);
}

}  // namespace
}  // namespace qntest
