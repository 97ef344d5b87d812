// Transfers of a real session: retries and their clock, limits, waiting, cost of progress, the
// store's files.

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "platform/NetworkMonitor.h"
#include "tests/support/TestContent.h"
#include "tests/transfer/ContractSuite.h"

namespace qntest {
namespace {

using platform::URLSessionTaskWait;
using Clock = std::chrono::steady_clock;

constexpr uint64_t kSize = 200000;
constexpr int64_t kHalf = 100000;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

TEST_P(TransferContract, HonoursRetryAfterAndTellsWhyItWaits) {
  server.serve("/a", kSize);
  server.script("/a", {Fault::page(503, {{"Retry-After", "1"}})});
  harness.configuration().retryBoundSeconds = 20;
  app.launch();
  const auto task = app.start("/a");
  ASSERT_TRUE(app.recorder->waitUntil(
      [&] { return task->waitReason().wait == URLSessionTaskWait::Retry; }));
  const auto reason = task->waitReason();
  EXPECT_GT(reason.secondsUntilRetry, 0.0);
  EXPECT_LT(reason.secondsUntilRetry, 3.0);
  EXPECT_EQ(app.completed(task).summary(), "wfc 200");
  EXPECT_EQ(task->waitReason().wait, URLSessionTaskWait::None);
  const auto requests = server.requests("/a");
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_GE(requests[1].atSeconds - requests[0].atSeconds, 0.95);
}

TEST_P(TransferContract, BacksOffFurtherWithEveryFailure) {
  Fault silent;
  silent.closeBeforeHead = true;
  server.script("/a", {}, silent);
  harness.configuration().retryBoundSeconds = 3;
  app.launch();
  const auto start = Clock::now();
  EXPECT_EQ(app.completed(app.start("/a")).summary(), "c -1005");
  EXPECT_LT(secondsSince(start), 15);
  const auto requests = server.requests("/a");
  ASSERT_GE(requests.size(), 3U) << "given up too early";
  EXPECT_LE(requests.size(), 12U) << "hammered";
  double longest = 0;  // not the last one, which the bound cuts short
  for (size_t i = 1; i < requests.size(); ++i)
    longest = std::max(longest, requests[i].atSeconds - requests[i - 1].atSeconds);
  EXPECT_GT(longest, requests[1].atSeconds - requests[0].atSeconds);
}

TEST_P(TransferContract, KeepsTryingAsLongAsThereIsProgress) {
  server.serve("/a", kSize);
  std::vector<Fault> faults(6, Fault::reset(30000));
  server.script("/a", faults);
  harness.configuration().retryBoundSeconds = 1.5;
  app.launch();
  const auto events = app.completed(app.start("/a"));
  EXPECT_EQ(events.order, "wfc") << app.recorder->log();
  EXPECT_EQ(compareWithContent(events.files.at(0), "/a", 0, kSize), "");
  EXPECT_EQ(server.requestCount(), 7U);
  EXPECT_EQ(server.bytesSentAgain("/a"), 0U);
}

TEST_P(TransferContract, WaitsForAServerThatComesBack) {
  server.serve("/a", kSize);
  server.script("/a", {Fault::hold(kHalf)});
  harness.configuration().retryBoundSeconds = 30;
  app.launch();
  const auto task = app.start("/a");
  ASSERT_TRUE(app.recorder->waitForBytes(task->taskIdentifier(), kHalf));
  server.setRefusing(true);
  ASSERT_TRUE(app.recorder->waitUntil(
      [&] { return task->waitReason().wait == URLSessionTaskWait::Retry; }));
  server.setRefusing(false);
  const auto events = app.completed(task);
  EXPECT_EQ(events.order, "wfc");
  EXPECT_EQ(compareWithContent(events.files.at(0), "/a", 0, kSize), "");
  EXPECT_EQ(server.bytesSentAgain("/a"), 0U);
}

TEST_P(TransferContract, SaysWhatKeptItFromConnecting) {
  server.setRefusing(true);
  app.launch();
  const auto refused = app.start("/a");
  // A label of more than 63 characters cannot be looked up, nor asked for.
  const auto unknown = app.session->downloadTaskWithRequest(platform::URLRequest::requestWithURL(
      platform::URL::URLWithString("http://" + std::string(70, 'x') + ".invalid/a")));
  unknown->resume();
  EXPECT_EQ(app.completed(refused).summary(), "c -1004");
  EXPECT_EQ(app.completed(unknown).summary(), "c -1003");
  for (const auto& task : {refused, unknown}) {
    ASSERT_NE(task->error(), nullptr);
    EXPECT_EQ(task->error()->stringForKey(platform::NSURLErrorFailingURLStringErrorKey),
              task->originalRequest()->url()->absoluteString());
    EXPECT_EQ(resumeDataOf(task->error()), nullptr) << "there is nothing to continue from";
  }
}

TEST_P(TransferContract, ResumesTheSameConnectionAfterAShortSuspension) {
  const auto task = app.launchAndReceive("/a", kSize, kHalf);
  task->suspend();
  task->resume();
  server.release("/a");
  EXPECT_EQ(app.completed(task).summary(), "wfc 200");
  EXPECT_EQ(server.requestCount(), 1U);
}

TEST_P(TransferContract, ResumesTheSameRequestThatHadNoResponseYet) {
  Fault late;
  late.delaySeconds = 0.2;
  Fault redirect = Fault::redirect("/a");
  redirect.delaySeconds = 0.2;
  for (const auto& [path, fault] : {std::pair("/a", late), std::pair("/redirect", redirect)}) {
    server.clearLog();
    server.serve("/a", kSize);
    server.script(path, {fault});
    app.relaunch();
    const auto task = app.start(path);
    ASSERT_TRUE(server.waitForRequests(path, 1, kEventDeadlineSeconds));
    task->suspend();
    task->resume();
    EXPECT_EQ(app.completed(task).summary(), "wfc 200") << path;
    EXPECT_EQ(server.requestCount(path), 1U);
    EXPECT_EQ(server.requestCount("/a"), 1U);
  }
}

TEST_P(TransferContract, TransfersNothingForASuspendedTask) {
  server.serve("/a", kSize);
  server.serve("/b", kSize);
  app.launch();
  const auto task = app.make("/a");
  EXPECT_EQ(app.completed(app.start("/b")).order, "wfc");
  EXPECT_EQ(server.requestCount("/a"), 0U);
  EXPECT_EQ(app.recorder->of(task->taskIdentifier()).order, "");
}

TEST_P(TransferContract, KeepsConnections) {
  app.launch();
  for (int i = 0; i < 10; ++i) {
    const std::string path = "/kept" + std::to_string(i);
    server.serve(path, 1000);
    EXPECT_EQ(app.completed(app.start(path)).summary(), "wfc 200");
  }
  EXPECT_EQ(server.connectionCount(), 1U);
}

TEST_P(TransferContract, ForgivesAServerThatClosesKeptConnections) {
  Fault closing;
  closing.closeAfter = true;
  app.launch();
  for (int i = 0; i < 20; ++i) {
    const std::string path = "/closed" + std::to_string(i);
    server.serve(path, 1000);
    server.script(path, {}, closing);
    EXPECT_EQ(app.completed(app.start(path)).summary(), "wfc 200");
  }
}

TEST_P(TransferContract, KeepsTheLimitPerHost) {
  harness.configuration().maximumConnectionsPerHost = 2;
  app.launch();
  std::vector<Application::TaskPtr> tasks;
  for (int i = 0; i < 8; ++i) {
    const std::string path = "/limited" + std::to_string(i);
    harness.serveHeld(path, 1000, 10);
    tasks.push_back(app.start(path));
  }
  ASSERT_TRUE(server.waitForRequests("", 2));
  const auto waiting = [&] {
    return std::count_if(tasks.begin(), tasks.end(), [](const auto& task) {
      return task->waitReason().wait == URLSessionTaskWait::Limit;
    });
  };
  EXPECT_TRUE(app.recorder->waitUntil([&] { return waiting() == 6; }));
  EXPECT_EQ(server.maximumConcurrent(), 2);
  // Whoever opens the session again is told the same, and may want other limits.
  tasks = app.relaunch();
  EXPECT_TRUE(app.recorder->waitUntil([&] { return waiting() == 6; }));
  app.close();
  harness.configuration().maximumConnectionsPerHost = 5;
  tasks = app.launch();
  EXPECT_TRUE(app.recorder->waitUntil([&] { return waiting() == 3; }));
  for (int i = 0; i < 8; ++i)
    server.release("/limited" + std::to_string(i));
  for (const auto& task : tasks)
    EXPECT_EQ(app.completed(task).summary().substr(0, 6), "wfc 20");
}

TEST_P(TransferContract, DiscretionarySessionsWaitForTheTasksOfOthers) {
  harness.configuration().maximumConnectionsPerHost = 1;
  app.launch();
  harness.serveHeld("/one", 1000, 10);
  harness.serveHeld("/two", 1000, 10);
  harness.serve("/later", 1000);
  const auto one = app.start("/one");
  const auto two = app.start("/two");
  ASSERT_TRUE(
      app.recorder->waitUntil([&] { return two->waitReason().wait == URLSessionTaskWait::Limit; }));
  auto configuration = harness.configuration();
  configuration.identifier += ".discretionary";
  configuration.discretionary = true;
  const TempDirectory directory;
  const auto recorder = std::make_shared<SessionRecorder>(directory.path());
  const auto session = platform::URLSession::sessionWithConfiguration(configuration, recorder);
  const auto later = session->downloadTaskWithRequest(app.request("/later"));
  later->resume();
  EXPECT_TRUE(
      recorder->waitUntil([&] { return later->waitReason().wait == URLSessionTaskWait::Limit; }));
  EXPECT_EQ(server.requestCount("/later"), 0u);
  // It starts while the last one of the others is still transferred.
  server.release("/one");
  EXPECT_EQ(app.completed(one).summary(), "wfc 200");
  EXPECT_TRUE(recorder->waitForCompletion(later->taskIdentifier()));
  server.release("/two");
  EXPECT_EQ(app.completed(two).summary(), "wfc 200");
}

// More than are looked at before their turn.
TEST_P(TransferContract, TasksFarBehindWaitAndHeedTheirCallsToo) {
  constexpr size_t kMany = 400;
  harness.configuration().maximumConnectionsPerHost = 1;
  app.launch();
  harness.serveHeld("/first", 1000, 10);
  std::vector<Application::TaskPtr> tasks{app.start("/first")};
  ASSERT_TRUE(server.waitForRequests("/first", 1));
  while (tasks.size() < kMany) {
    const std::string path = "/behind" + std::to_string(tasks.size());
    harness.serve(path, 10);
    tasks.push_back(app.start(path));
  }
  const auto last = tasks.back();
  tasks.pop_back();
  EXPECT_TRUE(app.recorder->waitUntil(
      [&] { return last->waitReason().wait == URLSessionTaskWait::Limit; }));
  last->suspend();
  const auto cancelled = tasks.back();
  tasks.pop_back();
  cancelled->cancel();
  EXPECT_EQ(app.completed(cancelled).summary(), "c -999");
  server.release("/first");
  for (const auto& task : tasks)
    EXPECT_EQ(app.completed(task).summary(), "wfc 200");
  EXPECT_EQ(server.requestCount("/behind" + std::to_string(kMany - 1)), 0u);
  last->resume();
  EXPECT_EQ(app.completed(last).summary(), "wfc 200");
  EXPECT_EQ(server.requestCount("/behind" + std::to_string(kMany - 2)), 0u);
}

TEST_P(TransferContract, KeepsTheOverallLimit) {
  FaultServer other;
  harness.configuration().maximumTransfers = 3;
  app.launch();
  std::vector<Application::TaskPtr> tasks;
  for (int i = 0; i < 8; ++i) {
    const std::string path = "/limited" + std::to_string(i);
    FaultServer& host = i % 2 == 0 ? server : other;
    host.serve(path, 1000);
    host.script(path, {Fault::hold(10)});
    tasks.push_back(app.session->downloadTaskWithRequest(
        platform::URLRequest::requestWithURL(platform::URL::URLWithString(host.url(path)))));
    tasks.back()->resume();
  }
  ASSERT_TRUE(
      app.recorder->waitUntil([&] { return server.requestCount() + other.requestCount() == 3; }));
  for (int i = 0; i < 8; ++i)
    (i % 2 == 0 ? server : other).release("/limited" + std::to_string(i));
  for (const auto& task : tasks)
    EXPECT_EQ(app.completed(task).summary(), "wfc 200");
  EXPECT_LE(server.maximumConcurrent() + other.maximumConcurrent(), 2 * 3);
}

TEST_P(TransferContract, KeepsTheByteRate) {
  harness.configuration().maximumBytesPerSecond = 1000000;
  app.launch();
  const auto start = Clock::now();
  std::vector<Application::TaskPtr> tasks;
  for (int i = 0; i < 4; ++i) {
    const std::string path = "/rated" + std::to_string(i);
    server.serve(path, 400000);
    tasks.push_back(app.start(path));
  }
  for (const auto& task : tasks)
    EXPECT_EQ(app.completed(task).summary(), "wfc 200");
  EXPECT_GT(secondsSince(start), 0.8) << "1.6 MB at 1 MB/s, with a burst allowed";
  EXPECT_LT(secondsSince(start), 6);
}

TEST_P(TransferContract, GoesOnWhileACallLasts) {
  struct Chain {
    std::map<uint64_t, Application::TaskPtr> next;  // that a task's call waits for
    std::string late;
  };
  const auto chain = std::make_shared<Chain>();
  app.launch([this, chain](SessionRecorder& recorder) {
    recorder.onComplete = [this, chain, &recorder](const auto&, const auto& task, const auto&) {
      const auto next = chain->next.find(task->taskIdentifier());
      if (next == chain->next.end()) return;
      const auto& waited = next->second;
      const auto path = waited->originalRequest()->url()->path();
      harness.release(path);
      const auto arrived = [&] { return waited->countOfBytesReceived() == kSize; };
      if (!recorder.waitUntil(arrived)) chain->late += path + " ";
    };
  });
  constexpr int kCount = 4;
  std::vector<Application::TaskPtr> tasks;
  for (int i = 0; i < kCount; ++i) {
    const std::string path = "/chain" + std::to_string(i);
    harness.serveHeld(path, kSize, 1);
    tasks.push_back(app.make(path));
    if (i > 0) chain->next[tasks[i - 1]->taskIdentifier()] = tasks[i];
  }
  for (const auto& task : tasks)
    task->resume();
  harness.release("/chain0");
  for (const auto& task : tasks)
    EXPECT_EQ(app.completed(task).summary(), "wfc 200");
  EXPECT_EQ(chain->late, "");
}

TEST_P(TransferContract, CoalescesProgress) {
  constexpr uint64_t kPieces = 1000;
  server.serve("/a", kPieces * 200);
  Fault pieces;
  pieces.bytesPerSecond = 10000 * 50;  // pieces of 10,000 bytes, 50 of them a second
  server.script("/a", {}, pieces);
  server.serve("/b", 64 << 20);
  app.launch();
  const auto slow = app.start("/a");
  const auto large = app.completed(app.start("/b"));
  EXPECT_EQ(large.summary(), "wfc 200");
  EXPECT_LT(large.reports.size(), size_t{(64 << 20) / (64 << 10)})
      << "a report for every read or two";
  EXPECT_EQ(app.completed(slow).summary(), "wfc 200");
}

// The network as the test says.
class FakeMonitor final : public platform::NetworkMonitor {
 public:
  FakeMonitor() { setDefaultMonitor(this); }
  ~FakeMonitor() override { setDefaultMonitor(nullptr); }

  platform::NetworkStatus status() const override {
    const std::lock_guard lock(mutex_);
    return status_;
  }
  Watcher addWatcher(std::function<void()> changed) override {
    const std::lock_guard lock(mutex_);
    watchers_[++last_] = std::move(changed);
    return last_;
  }
  void removeWatcher(Watcher watcher) override {
    const std::lock_guard lock(mutex_);
    watchers_.erase(watcher);
  }
  void set(platform::NetworkStatus status) {
    std::map<Watcher, std::function<void()>> watchers;
    {
      const std::lock_guard lock(mutex_);
      status_ = status;
      watchers = watchers_;
    }
    for (const auto& [watcher, changed] : watchers)
      changed();
  }

 private:
  mutable std::mutex mutex_;
  platform::NetworkStatus status_;
  std::map<Watcher, std::function<void()>> watchers_;
  Watcher last_ = 0;
};

struct NetworkRow {
  const char* name;
  bool cellular, discretionary;
  platform::NetworkStatus bad;
  URLSessionTaskWait wait;
};

std::ostream& operator<<(std::ostream& out, const NetworkRow& row) {
  return out << row.name;
}

class NetworkContract : public testing::TestWithParam<NetworkRow> {};

TEST_P(NetworkContract, WaitsForTheNetworkAndGoesOnByItself) {
  const NetworkRow& row = GetParam();
  FakeMonitor monitor;
  TransferHarness harness;
  harness.configuration().allowsCellularAccess = row.cellular;
  harness.configuration().discretionary = row.discretionary;
  harness.server().serve("/a", kSize);
  harness.server().script("/a", {Fault::hold(kHalf)});
  Application app(harness);
  monitor.set(row.bad);
  app.launch();
  const auto task = app.start("/a");
  EXPECT_TRUE(app.recorder->waitUntil([&] { return task->waitReason().wait == row.wait; }));
  EXPECT_EQ(harness.server().requestCount(), 0U);
  monitor.set({});
  ASSERT_TRUE(app.recorder->waitForBytes(task->taskIdentifier(), kHalf));
  if (row.wait == URLSessionTaskWait::Metered) {  // in the middle of the file
    monitor.set(row.bad);
    EXPECT_TRUE(app.recorder->waitUntil([&] { return task->waitReason().wait == row.wait; }));
    monitor.set({});
  }
  harness.server().release("/a");
  const auto events = app.completed(task);
  EXPECT_EQ(events.order, "wfc") << app.recorder->log();
  EXPECT_EQ(compareWithContent(events.files.at(0), "/a", 0, kSize), "");
  EXPECT_EQ(harness.server().bytesSentAgain("/a"), 0U);
}

INSTANTIATE_TEST_SUITE_P(
    Network, NetworkContract,
    testing::Values(
        NetworkRow{"Unreachable", true, false, {false, false}, URLSessionTaskWait::Network},
        NetworkRow{
            "MeteredWithoutCellular", false, false, {true, true}, URLSessionTaskWait::Metered},
        NetworkRow{
            "MeteredAndDiscretionary", true, true, {true, true}, URLSessionTaskWait::Metered}),
    [](const auto& info) { return info.param.name; });

TEST_P(TransferContract, KeepsItsFilesToItself) {
  const mode_t before = umask(0);
  const auto task = app.launchAndReceive("/a", kSize, kHalf, {{"Authorization", "secret"}});
  umask(before);
  int files = 0;
  for (const auto& entry :
       std::filesystem::recursive_directory_iterator(harness.stateDirectory())) {
    struct stat status {};
    ASSERT_EQ(stat(entry.path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, entry.is_directory() ? 0700U : 0600U) << entry.path();
    ++files;
  }
  EXPECT_GE(files, 2);
}

TEST_P(TransferContract, RemovesTheTasksOfAnEphemeralSessionAtTheNextStart) {
  harness.configuration().ephemeral = true;
  const auto task = app.launchAndReceive("/a", kSize, kHalf);
  EXPECT_TRUE(app.relaunch().empty());
  EXPECT_EQ(harness.storedBytes(), 0);
}

TEST_P(TransferContract, KeepsSessionsOfOtherIdentifiersApart) {
  server.serve("/a", kSize);
  app.launch();
  app.make("/a");
  TransferHarness other;
  other.configuration() = harness.configuration();
  other.configuration().identifier += ".other";
  Application second(other);
  EXPECT_TRUE(second.launch().empty());
  EXPECT_EQ(app.relaunch().size(), 1U);
}

}  // namespace
}  // namespace qntest
