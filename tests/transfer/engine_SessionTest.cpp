#include <gtest/gtest.h>

#include "platform/Exception.h"
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

TEST_F(SessionTest, ContinuesAfterAResetWithoutFetchingAByteTwice) {
  server_.serve("/a", 400000);
  server_.script("/a", {Fault::reset(150000), Fault::reset(1), Fault::close(100)});
  open();
  const auto task = begin("/a");
  ASSERT_TRUE(recorder_->waitFor(task, "done"));
  EXPECT_EQ("", qntest::compareWithContent(recorder_->fileOf(*task), "/a", 0, 400000));
  EXPECT_EQ(0u, server_.bytesSentAgain("/a"));
}

TEST_F(SessionTest, GoesOnAfterReopening) {
  server_.serve("/a", 400000);
  server_.script("/a", {Fault::hold(200000)});
  open();
  auto task = begin("/a");
  task->setTaskDescription("a description");
  ASSERT_TRUE(recorder_->waitUntil([&] { return task->countOfBytesReceived() == 200000; }));
  const auto id = task->taskIdentifier();
  task.reset();
  reopen();
  std::vector<std::shared_ptr<URLSessionDownloadTask>> again;
  session_->getTasksWithCompletionHandler([&](const URLSession::Tasks& all) {
    // Nothing moves before this returns.
    again = all;
    ASSERT_EQ(1u, again.size());
    EXPECT_EQ(id, again[0]->taskIdentifier());
    EXPECT_EQ("a description", again[0]->taskDescription());
    EXPECT_EQ(URLSessionTaskState::Running, again[0]->state());
    EXPECT_EQ(200000, again[0]->countOfBytesReceived());
    EXPECT_EQ(400000, again[0]->countOfBytesExpectedToReceive());
  });
  ASSERT_EQ(1u, again.size());
  ASSERT_TRUE(recorder_->waitFor(again[0], "done"));
  EXPECT_EQ("", qntest::compareWithContent(recorder_->fileOf(*again[0]), "/a", 0, 400000));
  EXPECT_EQ(0u, server_.bytesSentAgain("/a"));
}

TEST_F(SessionTest, CancelledTaskEndsWithItsErrorAndLeavesNothing) {
  server_.serve("/a", 400000);
  server_.script("/a", {Fault::hold(200000)});
  open();
  const auto task = begin("/a");
  ASSERT_TRUE(server_.waitForRequests("/a", 1));
  task->cancel();
  ASSERT_TRUE(recorder_->waitFor(task, "error -999"));
  reopen();
  EXPECT_TRUE(tasks().empty());
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
