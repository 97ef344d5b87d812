#include <gtest/gtest.h>

#include "platform/Exception.h"
#include "platform/transfer/ThreadSetup.h"
#include "platform/transfer/TransferEngine.h"
#include "tests/support/FaultServer.h"
#include "tests/support/TempDirectory.h"
#include "tests/support/TestContent.h"
#include "tests/transfer/engine_Recorder.h"

namespace {

using namespace platform;
using qntest::Fault;
using qntest::FaultServer;
using qntest::Recorder;

// A session over the real engine and a server that can be told to fail.
class SessionTest : public testing::Test {
 protected:
  URLSessionConfiguration configuration() const {
    auto result = URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier("test");
    result.stateDirectory = directory_.path("state");
    result.retryBoundSeconds = 3;
    return result;
  }

  void open() { session_ = URLSession::sessionWithConfiguration(configuration(), recorder_); }
  void reopen() {
    session_.reset();
    recorder_ = std::make_shared<Recorder>(directory_.path());
    open();
  }

  URLRequestPtr request(const std::string& path) {
    return URLRequest::requestWithURL(URL::URLWithString(server_.url(path)));
  }
  std::shared_ptr<URLSessionDownloadTask> begin(const std::string& path) {
    auto task = session_->downloadTaskWithRequest(request(path));
    task->resume();
    return task;
  }
  std::vector<std::shared_ptr<URLSessionDownloadTask>> tasks() {
    std::vector<std::shared_ptr<URLSessionDownloadTask>> result;
    session_->getTasksWithCompletionHandler([&](const URLSession::Tasks& all) { result = all; });
    return result;
  }

  qntest::TempDirectory directory_;
  FaultServer server_;
  std::shared_ptr<Recorder> recorder_ = std::make_shared<Recorder>(directory_.path());
  std::shared_ptr<URLSession> session_;
};

TEST_F(SessionTest, DownloadsFilesOfAllSizes) {
  open();
  EXPECT_TRUE(tasks().empty());
  std::map<uint64_t, std::shared_ptr<URLSessionDownloadTask>> begun;
  for (const uint64_t size : {0u, 1u, 100u, 65536u, 3000000u}) {
    const std::string path = "/" + std::to_string(size);
    server_.serve(path, size);
    begun[size] = begin(path);
  }
  for (const auto& [size, task] : begun) {
    ASSERT_TRUE(recorder_->waitFor(task, "done")) << size;
    EXPECT_EQ("", qntest::compareWithContent(recorder_->fileOf(*task), "/" + std::to_string(size),
                                             0, size));
    const auto reports = recorder_->reports(task);
    ASSERT_FALSE(reports.empty());
    EXPECT_EQ(reports.front().written, reports.front().total);
    EXPECT_EQ(static_cast<int64_t>(size), reports.back().total);
    EXPECT_EQ(static_cast<int64_t>(size), reports.back().expected);
    EXPECT_EQ(URLSessionTaskState::Completed, task->state());
  }
}

// The first thread of each kind cannot be had; for the flusher's that is so for ever.
TEST_F(SessionTest, GoesOnWithoutAThread) {
  for (const std::string name : {"qn-flush", "qn-transfer", "qn-delegate"}) {
    SCOPED_TRACE(name);
    const std::string path = "/" + name;
    server_.serve(path, 600000);
    server_.script(path, {Fault::reset(400000)});
    std::atomic<int> refused{0};
    setThreadFault([&](const std::string& wanted) {
      return wanted == name && (refused++ == 0 || name == "qn-flush");
    });
    reopen();
    tasks();
    const auto task = begin(path);
    EXPECT_TRUE(recorder_->waitFor(std::to_string(task->taskIdentifier()) + " done", 1, 10));
    EXPECT_EQ("", qntest::compareWithContent(recorder_->fileOf(*task), path, 0, 600000));
    EXPECT_GT(refused, 0);
    session_.reset();
    setThreadFault(nullptr);
  }
}

// Whatever throws on the way of a transfer, it and the others go on: the n-th operation on a file,
// something that belongs to no transfer, and whoever is told of an end, which he is told again.
TEST_F(SessionTest, OutlivesWhateverThrows) {
  for (int n = 1; n <= 6; ++n) {
    SCOPED_TRACE(n);
    server_.serve("/a", 300000);
    server_.serve("/b", 1000);
    server_.script("/a", {Fault::reset(100000)});
    std::atomic<int> left{n};
    PartialFiles::setHook([&](const char*) {
      if (--left == 0) throw std::runtime_error("thrown by a test");
      return 0;
    });
    const std::string state = directory_.path("state" + std::to_string(n));
    TransferEngine engine({"id", state, state + "/partial"}, TransferOptions{}, false);
    std::mutex mutex;
    std::map<TransferTaskId, TransferEvent> ends;
    bool threw = false;
    engine.start([&](std::vector<TransferEvent>&& events) {
      const std::lock_guard lock(mutex);
      for (auto& event : events) {
        if (event.kind != TransferEvent::Kind::Finished) continue;
        if (!std::exchange(threw, true)) throw std::runtime_error("thrown at an end");
        ends[event.task] = event;
      }
    });
    TransferBatch batch;
    for (const char* path : {"/a", "/b"}) {
      TransferCall call;
      call.task = engine.nextIdentifier();
      call.request = request(path);
      batch.push_back(call);
      call.kind = TransferCall::Kind::Resume;
      batch.push_back(call);
    }
    engine.submit(batch, TransferBackend::Durability::Now);
    engine.post([](CurlLoop&) { throw std::runtime_error("thrown by a test"); });
    EXPECT_TRUE(recorder_->waitUntil(
        [&] {
          const std::lock_guard lock(mutex);
          return ends.size() == 2;
        },
        10));
    const std::lock_guard lock(mutex);
    for (const auto& [id, end] : ends)
      EXPECT_EQ("", qntest::compareWithContent(end.path, id == 1 ? "/a" : "/b", 0,
                                               id == 1 ? 300000 : 1000));
    PartialFiles::setHook(nullptr);
    if (HasFailure()) break;
  }
}

TEST_F(SessionTest, SharedSessionFetchesAndMapsErrors) {
  server_.serve("/a", 100000);
  server_.serve("/two", 200000);
  server_.script("/two", {}, Fault::page(200, {{"X", "1\r\nContent-Length: 100"}}));
  struct Row {
    std::string url;
    int64_t code;
  };
  for (const Row& row : {Row{server_.url("/a"), 0}, Row{server_.url("/none"), 0},
                         Row{server_.url("/two"), URLErrorBadServerResponse},
                         Row{"file:///etc/passwd", URLErrorUnsupportedURL},
                         Row{"http://127.0.0.1:1/", URLErrorCannotConnectToHost}}) {
    std::mutex mutex;
    std::condition_variable changed;
    bool done = false;
    DataPtr bytes;
    URLResponsePtr response;
    ErrorPtr error;
    const auto task = URLSession::sharedSession()->dataTaskWithRequest(
        URLRequest::requestWithURL(URL::URLWithString(row.url)),
        [&](const DataPtr& data, const URLResponsePtr& answer, const ErrorPtr& failure) {
          std::lock_guard lock(mutex);
          bytes = data;
          response = answer;
          error = failure;
          done = true;
          changed.notify_all();
        });
    task->resume();
    std::unique_lock lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, std::chrono::seconds(20), [&] { return done; })) << row.url;
    ASSERT_EQ(row.code != 0, error != nullptr) << row.url;
    if (error) {
      EXPECT_EQ(row.code, error->code()) << row.url << error->localizedDescription();
    } else {
      ASSERT_TRUE(bytes);
    }
  }
}

}  // namespace
