// Events: their queue, order, content and their life across launches.

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/TestContent.h"
#include "tests/transfer/ContractSuite.h"

namespace qntest {
namespace {

using platform::URLSessionTaskState;

constexpr uint64_t kSize = 200000;
constexpr uint64_t kHalf = 100000;

// Holds the delegate queue inside a call until the test opens it.
class Gate {
 public:
  void pass() {
    std::unique_lock lock(mutex_);
    reached_ = true;
    changed_.notify_all();
    changed_.wait(lock, [&] { return open_; });
  }
  void open() {
    const std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  [[nodiscard]] bool reached() {
    const std::lock_guard lock(mutex_);
    return reached_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool reached_ = false, open_ = false;
};

TEST_P(SessionContract, ReportsBeforeItOffersTheFile) {
  app.launch();
  for (const uint64_t size : {0, 1, 16384, 300000}) {
    SCOPED_TRACE(size);
    const std::string path = "/" + std::to_string(size);
    harness->serve(path, size);
    const auto task = app.start(path);
    const auto events = app.completed(task);
    EXPECT_EQ(events.summary(), "wfc 200");
    ASSERT_FALSE(events.reports.empty());
    EXPECT_TRUE(events.reports.front().first());
    EXPECT_EQ(events.reports.front().expected, static_cast<int64_t>(size));
    EXPECT_EQ(events.reports.back().total, static_cast<int64_t>(size));
    int64_t sum = 0;
    for (const auto& report : events.reports)
      EXPECT_EQ(sum += report.written, report.total);
    EXPECT_EQ(events.completions, std::vector<platform::ErrorPtr>{nullptr});
    EXPECT_EQ(compareWithContent(events.files.at(0), path, 0, size), "");
    EXPECT_EQ(task->countOfBytesReceived(), static_cast<int64_t>(size));
    EXPECT_EQ(task->countOfBytesExpectedToReceive(), static_cast<int64_t>(size));
  }
}

TEST_P(SessionContract, OffersAnErrorPageWithItsStatusInTheFirstReport) {
  app.launch();
  for (const int status : {404, 403, 500}) {
    for (const std::string body : {"", "not here"}) {
      SCOPED_TRACE(std::to_string(status) + body);
      harness->servePage("/a", status, body);
      const auto events = app.completed(app.start("/a"));
      EXPECT_EQ(events.summary(), "wfc " + std::to_string(status));
      ASSERT_FALSE(events.reports.empty());
      EXPECT_TRUE(events.reports.front().first());
      EXPECT_EQ(events.reports.front().status, status);
      EXPECT_EQ(readFile(events.files.at(0)), body);
    }
  }
}

TEST_P(SessionContract, LetsTheApplicationCancelAtTheFirstReport) {
  harness->servePage("/a", 404, "not here");
  app.launch([](SessionRecorder& recorder) {
    recorder.onWrite = [](const auto&, const auto& task, const SessionRecorder::Report& report) {
      if (report.status == 404) task->cancel();
    };
  });
  const auto events = app.completed(app.start("/a"));
  EXPECT_EQ(events.summary(), "wc -999 404");
}

TEST_P(SessionContract, DeletesWhatTheCallLeaves) {
  harness->serve("/a", kSize);
  std::string left;
  app.launch([&](SessionRecorder& recorder) {
    recorder.onFinish = [&](const auto&, const auto&, const std::string& file) {
      EXPECT_EQ(compareWithContent(file, "/a", 0, kSize), "");
      left = file;
    };
  });
  app.completed(app.start("/a"));
  ASSERT_FALSE(left.empty());
  EXPECT_TRUE(app.recorder->waitUntil([&] { return !std::filesystem::exists(left); }));
  EXPECT_EQ(harness->storedBytes(), 0);
}

TEST_P(SessionContract, CallsOneAtATimeAndNeverFromInsideACall) {
  app.launch();  // the recorder watches
  std::vector<Application::TaskPtr> tasks;
  for (int i = 0; i < 24; ++i) {
    const std::string path = "/many" + std::to_string(i);
    if (i % 4 == 3) {
      harness->servePage(path, 404, "no");
    } else {
      harness->serve(path, 1000);
    }
    tasks.push_back(app.start(path));
    if (i % 6 == 1) tasks.back()->suspend();
    if (i % 6 == 1) tasks.back()->resume();
    if (i % 6 == 2) tasks.back()->cancel();
  }
  for (const auto& task : tasks)
    app.completed(task);
  EXPECT_EQ(app.recorder->violations(), "");
}

TEST_P(SessionContract, GivesTheTaskObjectThatTheApplicationHolds) {
  harness->serve("/a", kSize);
  struct Seen {
    std::vector<Application::TaskPtr> tasks;
    std::atomic<bool> complete = false;
  };
  const auto seen = std::make_shared<Seen>();
  app.launch([seen](SessionRecorder& recorder) {
    recorder.onWrite = [seen](const auto&, const auto& task, const auto&) {
      seen->tasks.push_back(task);
    };
    recorder.onComplete = [seen](const auto&, const auto& task, const auto&) {
      seen->tasks.push_back(task);
      seen->complete = true;
    };
  });
  const auto task = app.start("/a");
  ASSERT_TRUE(app.recorder->waitUntil([&] { return seen->complete.load(); }));
  EXPECT_GE(seen->tasks.size(), 2U);
  for (const auto& given : seen->tasks)
    EXPECT_EQ(given, task);
}

TEST_P(SessionContract, HoldsTheDelegateWeakly) {
  harness->serve("/a", kSize);
  app.launch();
  std::weak_ptr<SessionRecorder> delegate = app.recorder;
  app.recorder = nullptr;
  EXPECT_TRUE(delegate.expired());
  const auto task = app.start("/a");  // its events have nobody to go to
  app.close();
  app.launch();
}

TEST_P(SessionContract, MayBeDroppedInsideEveryCall) {
  for (const char kind : {'w', 'f', 'c'}) {
    SCOPED_TRACE(kind);
    harness->serve("/a", kSize);
    std::mutex mutex;
    Application::SessionPtr own;
    bool dropped = false;
    const auto drop = [&] {
      const std::lock_guard lock(mutex);
      own = nullptr;
      dropped = true;
    };
    app.launch([&](SessionRecorder& recorder) {
      if (kind == 'w') recorder.onWrite = [&](const auto&, const auto&, const auto&) { drop(); };
      if (kind == 'f')
        recorder.onFinish = [&](const auto&, const auto&, const std::string& file) {
          std::filesystem::remove(file);
          drop();
        };
      if (kind == 'c') recorder.onComplete = [&](const auto&, const auto&, const auto&) { drop(); };
    });
    auto task = app.make("/a");
    const uint64_t identifier = task->taskIdentifier();
    {
      const std::lock_guard lock(mutex);
      own = std::move(app.session);
    }
    task->resume();
    task = nullptr;
    const auto seen = app.recorder;
    ASSERT_TRUE(seen->waitUntil([&] {
      const std::lock_guard lock(mutex);
      return dropped;
    }));
    const auto left = app.launch();
    if (kind == 'w') {
      ASSERT_EQ(left.size(), 1U);
      EXPECT_EQ(app.completed(identifier).order, "wfc");
      EXPECT_EQ(seen->of(identifier).order, "w") << "a call came after the session was dropped";
    } else {
      for (const auto& task2 : left)
        app.completed(task2);
      EXPECT_TRUE(app.recorder->of(identifier).files.empty()) << "a file was offered twice";
      EXPECT_EQ(seen->of(identifier).order, kind == 'f' ? "wf" : "wfc");
    }
    app.close();
  }
}

// The queue is held in a call for one task while others end or are cancelled, also one that had
// failed and one that had finished; then the application drops the session in that call.
TEST_P(SessionContract, DeliversInTheNextLaunchWhatWasNotAcknowledged) {
  harness->serve("/first", 100);
  harness->serveHeld("/whole", kSize, 0);
  harness->serveHeld("/gone", kSize, 0);
  Gate gate;
  std::atomic<uint64_t> first = 0;
  std::atomic<bool> dropped = false;
  app.launch([&](SessionRecorder& recorder) {
    recorder.onComplete = [&](const auto&, const auto& task, const auto&) {
      if (task->taskIdentifier() != first) return;
      gate.pass();
      app.close();
      dropped = true;
    };
  });
  auto blocking = app.make("/first");
  first = blocking->taskIdentifier();
  auto whole = app.start("/whole");
  auto gone = app.start("/gone");
  const uint64_t wholeId = whole->taskIdentifier();
  const uint64_t goneId = gone->taskIdentifier();
  harness->serveHeld("/unwanted", kSize, 0);
  auto unwanted = app.start("/unwanted");
  auto failed = app.session->downloadTaskWithRequest(platform::URLRequest::requestWithURL(nullptr));
  blocking->resume();
  ASSERT_TRUE(app.recorder->waitUntil([&] { return gate.reached(); }));
  failed->resume();
  harness->release("/unwanted");
  EXPECT_TRUE(app.recorder->waitUntil(
      [&] { return unwanted->countOfBytesReceived() == static_cast<int64_t>(kSize); }));
  for (const auto& task : {gone, unwanted, failed}) {
    EXPECT_EQ(task->state(), URLSessionTaskState::Running);
    task->setTaskDescription("described");
    task->cancel();
    task->setTaskDescription(std::nullopt);
    EXPECT_EQ(task->state(), URLSessionTaskState::Canceling);
    EXPECT_EQ(task->taskDescription(), std::nullopt);
  }
  const std::set<uint64_t> cancelled = {goneId, unwanted->taskIdentifier(),
                                        failed->taskIdentifier()};
  harness->release("/whole");
  EXPECT_TRUE(app.recorder->waitUntil(
      [&] { return whole->countOfBytesReceived() == static_cast<int64_t>(kSize); }));
  blocking = whole = gone = unwanted = failed = nullptr;
  const auto seen = app.recorder;
  gate.open();
  ASSERT_TRUE(seen->waitUntil([&] { return dropped.load(); }));

  const auto tasks = app.launch([](SessionRecorder& recorder) {
    // Before the last held event: what comes after it answers this.
    recorder.onComplete = [](const auto& session, const auto&, const auto& error) {
      if (!error) session->tellEndOfBackgroundEvents();
    };
  });
  EXPECT_EQ(seen->of(wholeId).files.size() + seen->of(goneId).completions.size(), 0U)
      << seen->log();
  EXPECT_EQ(tasks.size(), 4U) << "a task counts until its last event was delivered";
  for (const uint64_t id : cancelled)
    EXPECT_EQ(app.offered[id], "state 2, no description") << id;
  const auto events = app.completed(wholeId);
  EXPECT_EQ(events.summary(), "wfc 200");
  EXPECT_TRUE(events.reports.at(0).first()) << "a replayed file starts with its first report";
  EXPECT_EQ(events.reports.back().total, static_cast<int64_t>(kSize));
  EXPECT_EQ(compareWithContent(events.files.at(0), "/whole", 0, kSize), "");
  for (const uint64_t id : cancelled)
    EXPECT_EQ(app.completed(id).summary().substr(0, 6), "c -999");
  EXPECT_TRUE(app.recorder->waitForEndOfEvents());
  const std::string log = app.recorder->log();
  EXPECT_EQ(log.find("end of events\n"), log.size() - 14)
      << "not once, after the last held event: " << log;
  for (int later = 2; later <= 3; ++later) {
    app.session->tellEndOfBackgroundEvents();
    EXPECT_TRUE(
        app.recorder->waitUntil([&] { return app.recorder->endsOfBackgroundEvents() == later; }));
  }
  EXPECT_EQ(harness->bytesTransferredAgain("/whole"), 0U);
  EXPECT_TRUE(app.relaunch().empty());
}

TEST_P(SessionContract, CallsNobodyAfterTheLastReferenceWentAway) {
  const auto task = app.launchAndReceive("/a", kSize, kHalf);
  const auto seen = app.recorder;
  const std::weak_ptr<platform::URLSession> dropped = app.session;
  app.close();
  ASSERT_TRUE(seen->waitUntil([&] { return dropped.expired(); }));  // a call may be under way
  const std::string log = seen->log();
  harness->release("/a");
  app.launch();
  app.completed(task->taskIdentifier());
  EXPECT_EQ(seen->log(), log);
}

}  // namespace
}  // namespace qntest
