#include <cerrno>
#include <filesystem>
#include <functional>
#include <future>

#include <gtest/gtest.h>

#include "platform/Log.h"
#include "platform/transfer/PartialFiles.h"
#include "platform/transfer/TransferEngine.h"
#include "platform/transfer/TransferSession.h"
#include "tests/support/FaultServer.h"
#include "tests/support/TempDirectory.h"
#include "tests/support/TestContent.h"
#include "tests/transfer/FaultyDatabase.h"
#include "tests/transfer/engine_ManualClock.h"
#include "tests/transfer/engine_Recorder.h"

namespace {

using namespace platform;
using qntest::Fault;
using qntest::FaultServer;
using qntest::Recorder;
using Task = std::shared_ptr<URLSessionDownloadTask>;

// The engine under a clock that the test moves: no time-out, back-off or bound is waited for.
class TimeTest : public testing::Test {
 protected:
  ~TimeTest() override { PartialFiles::setHook(nullptr); }

  void open() {
    auto engine = std::make_unique<TransferEngine>(
        TransferLocation{"time", directory_.path("state"), directory_.path("partial")}, options_,
        false, clock());
    session_ = TransferSession::make({}, recorder_, std::move(engine));
    session_->getTasksWithCompletionHandler({});
  }
  Task begin(const std::string& path) {
    auto task = session_->downloadTaskWithRequest(
        URLRequest::requestWithURL(URL::URLWithString(server_.url(path))));
    task->resume();
    return task;
  }
  // A session whose last reference is dropped by a delegate call may close a moment after the test.
  qntest::ManualClock& clock() {
    static auto* const clocks = new std::vector<std::unique_ptr<qntest::ManualClock>>;
    if (!clock_) clock_ = clocks->emplace_back(std::make_unique<qntest::ManualClock>()).get();
    return *clock_;
  }
  void pass(int64_t milliseconds) {
    passUntil([] { return false; }, 200, milliseconds);
  }
  // Lets time pass in steps until something holds; the virtual milliseconds that it took, -1:
  // never.
  int64_t passUntil(const std::function<bool()>& condition, int64_t step = 200,
                    int64_t limit = 120'000) {
    const int64_t start = clock().nowMs();
    while (clock().nowMs() - start < limit) {
      if (recorder_->waitUntil(condition, 0.004)) return clock().nowMs() - start;
      clock().advance(step);
    }
    return -1;
  }
  bool ended(const Task& task) { return task->state() == URLSessionTaskState::Completed; }
  bool waits(const Task& task, URLSessionTaskWait wait) {
    return recorder_->waitUntil([&] { return task->waitReason().wait == wait; });
  }
  std::string contentOf(const Task& task) { return task->originalRequest()->url()->path(); }
  void expectWhole(const Task& task, uint64_t size) {
    EXPECT_TRUE(recorder_->waitFor(task, "done"));  // a task has ended before its last calls have
    EXPECT_EQ("", qntest::compareWithContent(recorder_->fileOf(*task), contentOf(task), 0, size));
  }
  static bool hasResumeData(const Task& task) {
    return task->error() && task->error()->userInfo().count(NSURLSessionDownloadTaskResumeData) > 0;
  }

  qntest::TempDirectory directory_;
  qntest::ManualClock* clock_ = nullptr;
  FaultServer server_;
  TransferOptions options_;
  std::shared_ptr<Recorder> recorder_ = std::make_shared<Recorder>(directory_.path());
  std::shared_ptr<URLSession> session_;
};

TEST_F(TimeTest, StalledTransferIsTriedAgainFromWhereItStopped) {
  server_.serve("/a", 300000);
  server_.script("/a", {Fault::stall(100000)});
  open();
  const auto task = begin("/a");
  ASSERT_NE(-1, passUntil([&] { return task->countOfBytesReceived() == 100000; }));
  clock().advance(25'000);
  EXPECT_FALSE(recorder_->waitUntil([&] { return server_.requestCount("/a") > 1; }, 0.1));
  const int64_t passed = passUntil([&] { return ended(task); }, 1000);
  EXPECT_GT(passed, 0);
  EXPECT_LE(passed, 40'000);
  expectWhole(task, 300000);
  EXPECT_EQ(0u, server_.bytesSentAgain("/a"));
}

TEST_F(TimeTest, FailureIsFinalAfterTheBoundWithoutProgress) {
  server_.setRefusing(true);
  open();
  const auto task = begin("/a");
  const int64_t passed = passUntil([&] { return ended(task); });
  EXPECT_GE(passed, 59'000);
  EXPECT_LE(passed, 115'000);
  EXPECT_EQ(URLErrorCannotConnectToHost, task->error()->code());
  EXPECT_NE(std::string::npos, task->error()->localizedDescription().find(server_.url("/a")));
  EXPECT_FALSE(hasResumeData(task));
  // The host's time is up for its other tasks, too: a dead server does not cost a minute for each.
  const auto next = begin("/b");
  EXPECT_LE(passUntil([&] { return ended(next); }), 55'000);
}

TEST_F(TimeTest, SuspendedTaskDoesNotGrowOlder) {
  server_.setRefusing(true);
  open();
  const auto task = begin("/a");
  ASSERT_TRUE(waits(task, URLSessionTaskWait::Retry));
  EXPECT_GT(task->waitReason().secondsUntilRetry, 0);
  task->suspend();
  ASSERT_TRUE(waits(task, URLSessionTaskWait::Suspended));
  pass(100'000);
  task->resume();
  EXPECT_GE(passUntil([&] { return ended(task); }), 55'000);
}

TEST_F(TimeTest, RetryAfterIsHonouredWithinTheBound) {
  server_.serve("/a", 1000);
  server_.script("/a", {Fault::page(503, {{"Retry-After", "20"}})});
  server_.serve("/b", 1000);
  server_.script("/b", {Fault::page(429, {{"Retry-After", "3600"}})});
  open();
  const auto task = begin("/a");
  ASSERT_TRUE(waits(task, URLSessionTaskWait::Retry));
  EXPECT_NEAR(20, task->waitReason().secondsUntilRetry, 0.1);
  const int64_t passed = passUntil([&] { return ended(task); }, 500);
  EXPECT_GE(passed, 19'500);
  EXPECT_LE(passed, 50'000);
  expectWhole(task, 1000);
  // An hour is more than will be waited for: the response is the application's to judge.
  const auto late = begin("/b");
  ASSERT_TRUE(recorder_->waitFor(late, "done"));
}

TEST_F(TimeTest, SuspendedTransferKeepsItsConnectionForSomeSeconds) {
  server_.serve("/a", 300000);
  server_.script("/a", {Fault::hold(100000), Fault::hold(200000)});
  open();
  const auto task = begin("/a");
  ASSERT_TRUE(server_.waitForSent("/a", 100000));
  ASSERT_NE(-1, passUntil([&] { return task->countOfBytesReceived() == 100000; }));
  task->suspend();
  ASSERT_TRUE(waits(task, URLSessionTaskWait::Suspended));
  clock().advance(1000);
  task->resume();
  server_.release("/a");
  ASSERT_NE(-1, passUntil([&] { return ended(task); }));
  EXPECT_EQ(1u, server_.requestCount("/a"));
  expectWhole(task, 300000);
}

TEST_F(TimeTest, LongSuspensionGivesTheConnectionUpAndGoesOnFromTheFile) {
  server_.serve("/a", 300000);
  server_.script("/a", {Fault::hold(100000)});
  open();
  const auto task = begin("/a");
  ASSERT_TRUE(server_.waitForSent("/a", 100000));
  ASSERT_NE(-1, passUntil([&] { return task->countOfBytesReceived() == 100000; }));
  server_.serve("/gone", 300000);
  server_.script("/gone", {Fault::hold(100000), Fault::page(404, {}, "not here")});
  const auto gone = begin("/gone");
  ASSERT_NE(-1, passUntil([&] { return gone->countOfBytesReceived() == 100000; }));
  pass(400);
  gone->suspend();
  task->suspend();
  ASSERT_TRUE(waits(gone, URLSessionTaskWait::Suspended));
  ASSERT_TRUE(waits(task, URLSessionTaskWait::Suspended));
  pass(7000);
  task->resume();
  gone->resume();
  ASSERT_NE(-1, passUntil([&] { return ended(task) && ended(gone); }));
  EXPECT_EQ(2u, server_.requestCount("/a"));
  EXPECT_EQ(0u, server_.bytesSentAgain("/a"));
  expectWhole(task, 300000);
  // Another response, so its first report can be told from one that goes on.
  const auto last = recorder_->reports(gone).back();
  EXPECT_EQ(8, last.total);
  EXPECT_EQ(8, last.written);
}

TEST_F(TimeTest, FetchesAgainWhatVanished) {
  namespace fs = std::filesystem;
  server_.serve("/a", 300000);
  const std::function<void(const std::string& file)> rows[] = {
      [](const auto& file) { fs::remove(file); },
      [](const auto& file) { fs::remove(file), fs::create_symlink("/dev/null", file); },
      [](const auto& file) { fs::remove_all(fs::path(file).parent_path()); },
      [](const auto& file) { fs::resize_file(file, 1000); },  // only between two attempts
  };
  open();
  for (size_t row = 0; row < 7; ++row) {
    const bool running = row >= 4;
    server_.script("/a", {running ? Fault::hold(100000) : Fault::reset(100000)});
    const auto task = begin("/a");
    ASSERT_NE(-1, passUntil([&] { return task->countOfBytesReceived() == 100000; }, 20));
    EXPECT_TRUE(running || waits(task, URLSessionTaskWait::Retry));
    rows[row % 4](directory_.path("partial/" + std::to_string(task->taskIdentifier()) + ".1"));
    server_.release("/a");
    ASSERT_NE(-1, passUntil([&] { return ended(task); })) << row;
    expectWhole(task, 300000);
  }
}

// A failed flush is told once; after it the system knows nothing of what was lost.
TEST_F(TimeTest, FetchesAgainWhatAFailedFlushLeftUnsafe) {
  std::atomic<int> flushes{0};
  std::atomic<bool> all{false};
  PartialFiles::setHook([&](const char* operation) {
    return std::string_view(operation) == "flush" && (++flushes == 2 || all) ? EIO : 0;
  });
  server_.serve("/a", 1'500'000);
  server_.script("/a", {Fault::reset(500'000), Fault::reset(500'000)});
  open();
  const auto task = begin("/a");
  ASSERT_NE(-1, passUntil([&] { return ended(task); }));
  expectWhole(task, 1'500'000);
  EXPECT_EQ(500'000u, server_.bytesSentAgain("/a"));
  EXPECT_EQ("bytes=500000-", server_.requests("/a").back().header("Range"));
  // Where no flush ever succeeds the task ends with that error.
  all = true;
  server_.serve("/b", 1'000'000);
  server_.script("/b", {}, Fault::reset(500'000));
  const auto hopeless = begin("/b");
  ASSERT_NE(-1, passUntil([&] { return ended(hopeless); }));
  EXPECT_EQ(EIO, hopeless->error()->code());
  // The file is whole before its flush is through: that is waited for.
  for (const int result : {0, EIO}) {
    std::promise<int> flushed;
    std::atomic<bool> first{true};
    PartialFiles::setHook([&](const char* operation) {
      const bool waits = std::string_view(operation) == "flush" && first.exchange(false);
      return waits ? flushed.get_future().get() : 0;
    });
    const std::string path = "/" + std::to_string(result);
    server_.serve(path, 1'000'000);
    server_.script(path, {Fault::reset(500'000)});
    const auto late = begin(path);
    ASSERT_NE(-1, passUntil([&] { return late->countOfBytesReceived() == 1'000'000; }));
    pass(1000);
    EXPECT_FALSE(ended(late));
    flushed.set_value(result);
    ASSERT_NE(-1, passUntil([&] { return ended(late); }));
    expectWhole(late, 1'000'000);
    EXPECT_EQ(result ? 1'000'000u : 0u, server_.bytesSentAgain(path));
  }
}

TEST_F(TimeTest, WaitsForRoomAndGoesOn) {
  server_.serve("/a", 300000);
  std::atomic<int> writes{0};
  std::atomic<bool> full{true};
  PartialFiles::setHook([&](const char* operation) {
    const bool isWrite = std::string_view(operation) == "write";
    return isWrite && ++writes > 5 && full ? ENOSPC : 0;
  });
  open();
  const auto task = begin("/a");
  ASSERT_TRUE(waits(task, URLSessionTaskWait::DiskFull));
  EXPECT_FALSE(task->waitReason().detail.empty());
  clock().advance(2000);
  ASSERT_TRUE(waits(task, URLSessionTaskWait::DiskFull));
  full = false;
  ASSERT_NE(-1, passUntil([&] { return ended(task); }, 1000));
  expectWhole(task, 300000);
}

TEST_F(TimeTest, AStoreThatFailsIsTriedASecondApartAndToldOnce) {
  server_.serve("/a", 300000);
  server_.script("/a", {Fault::hold(100000)});
  std::atomic<bool> fails{false};
  std::atomic<int> failures{0}, told{0};
  const qntest::FaultyDatabase faulty([&](char operation) {
    return operation == 'w' && fails && ++failures ? SQLITE_IOERR_WRITE : SQLITE_OK;
  });
  setErrorLog([&](const std::string&) { ++told; });
  open();
  fails = true;
  const auto begun = begin("/a");
  ASSERT_NE(-1, passUntil([&] { return begun->countOfBytesReceived() == 100000; }, 20));
  for (int i = 0; i < 10; ++i)
    expectWhole(begin("/a"), 300000);
  EXPECT_EQ(11u, server_.requestCount()) << "tasks that are not stored are tried again";
  const int before = failures;
  pass(10'000);
  EXPECT_LE(failures - before, 12);
  EXPECT_EQ(1, told);
  setErrorLog(nullptr);
  fails = false;
  pass(2'000);
  session_.reset();
  open();
  server_.release("/a");
  ASSERT_TRUE(recorder_->waitFor(begun, "done")) << "it was not stored when that was possible";
}

TEST_F(TimeTest, FullDiskIsAFailureAfterItsBound) {
  server_.serve("/a", 300000);
  std::atomic<int> writes{0};
  PartialFiles::setHook([&](const char* operation) {
    return std::string_view(operation) == "write" && ++writes > 5 ? ENOSPC : 0;
  });
  options_.diskFullBoundMs = 30'000;
  open();
  const auto task = begin("/a");
  ASSERT_TRUE(waits(task, URLSessionTaskWait::DiskFull));
  const int64_t passed = passUntil([&] { return ended(task); }, 1000);
  EXPECT_GE(passed, 29'000);
  EXPECT_LE(passed, 60'000);
  EXPECT_EQ(NSPOSIXErrorDomain, task->error()->domain());
  EXPECT_EQ(ENOSPC, task->error()->code());
  EXPECT_TRUE(hasResumeData(task));
}

TEST_F(TimeTest, HoldsTheByteRate) {
  qntest::FaultResource any;
  any.size = 200000;
  server_.servePrefix("/", any);
  options_.bytesPerSecond = 50'000;
  options_.stallTimeoutMs = 3'000;  // waiting for one's turn is no stall
  open();
  const std::vector<Task> tasks = {begin("/a"), begin("/b"), begin("/c")};
  const int64_t passed = passUntil(
      [&] {
        return std::all_of(tasks.begin(), tasks.end(), [&](const auto& t) { return ended(t); });
      },
      100);
  // 600,000 bytes are 12 s, however much the connections take in; each step that the server slept
  // through is lost.
  EXPECT_GE(passed, 11'000);
  EXPECT_LE(passed, 60'000);
  for (const auto& task : tasks)
    expectWhole(task, 200000);
  EXPECT_EQ(3u, server_.requestCount());
}

}  // namespace
