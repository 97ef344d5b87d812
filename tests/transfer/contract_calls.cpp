// Identity, start and calls: tasks, their identifiers, states, descriptions and data.

#include <algorithm>
#include <atomic>
#include <set>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "tests/support/TestContent.h"
#include "tests/transfer/ContractSuite.h"

namespace qntest {
namespace {

using platform::URLSession;
using platform::URLSessionTaskState;

constexpr uint64_t kSize = 200000;
constexpr uint64_t kHalf = 100000;

TEST_P(SessionContract, OffersTheTasksOfTheLastLaunchInTheFirstRequest) {
  std::set<std::string> wanted;
  app.launch();
  for (int i = 0; i < 3; ++i) {
    const std::string path = "/held" + std::to_string(i);
    harness->serveHeld(path, kSize, kHalf);
    const auto task = app.make(path);
    task->setTaskDescription("task " + std::to_string(i));
    if (i != 2) task->resume();
    wanted.insert(std::to_string(task->taskIdentifier()) + " task " + std::to_string(i) + " " +
                  std::to_string(static_cast<int>(task->state())));
  }
  std::set<std::string> found;
  for (const auto& task : app.relaunch())
    found.insert(std::to_string(task->taskIdentifier()) + " " +
                 task->taskDescription().value_or("none") + " " +
                 std::to_string(static_cast<int>(task->state())));
  EXPECT_EQ(found, wanted);
}

TEST_P(SessionContract, AnswersLaterRequestsForTasksOnTheDelegateQueue) {
  app.launch();
  const auto task = app.make("/a");
  struct Answer {
    std::atomic<int> count = 0;
    std::atomic<bool> inside = false, same = false;
  };
  const auto answer = std::make_shared<Answer>();
  const auto caller = std::this_thread::get_id();
  const auto take = [answer, caller, task](const URLSession::Tasks& tasks) {
    if (std::this_thread::get_id() == caller) answer->inside = true;
    answer->same = tasks.size() == 1 && tasks.front() == task;
    ++answer->count;
  };
  app.session->getTasksWithCompletionHandler(take);
  app.session->getAllTasksWithCompletionHandler(take);
  EXPECT_TRUE(app.recorder->waitUntil([&] { return answer->count == 2; }));
  EXPECT_FALSE(answer->inside);
  EXPECT_TRUE(answer->same) << "a list gives the object that the application holds";
}

TEST_P(SessionContract, NeverUsesATaskIdentifierAgain) {
  app.launch();
  uint64_t highest = 0;
  for (int launch = 0; launch < 3; ++launch) {
    for (int i = 0; i < 3; ++i) {
      const auto task = app.make("/a");
      EXPECT_GT(task->taskIdentifier(), highest);
      highest = std::max(highest, task->taskIdentifier());
      task->cancel();
      app.completed(task);
    }
    EXPECT_TRUE(app.relaunch().empty());
  }
}

TEST_P(SessionContract, GivesBackTheOriginalRequestWithAllHeaders) {
  const HeaderFields headers = {
      {"Authorization", "Bearer x y"}, {"X-Order", "2"}, {"Range", "bytes=5-99"}};
  app.launch();
  app.make("/a?token=1&b", headers);
  const auto tasks = app.relaunch();
  ASSERT_EQ(tasks.size(), 1U);
  const auto request = tasks.front()->originalRequest();
  EXPECT_EQ(request->url()->absoluteString(), harness->url("/a?token=1&b"));
  EXPECT_EQ(request->HTTPMethod(), "GET");
  EXPECT_EQ(request->allHTTPHeaderFields().fields(), headers);
}

TEST_P(SessionContract, WalksTheStatesOfATask) {
  harness->serveHeld("/a", kSize, kHalf);
  app.launch();
  const auto task = app.make("/a");
  EXPECT_EQ(task->state(), URLSessionTaskState::Suspended);
  EXPECT_EQ(task->waitReason().wait, platform::URLSessionTaskWait::Suspended);
  EXPECT_EQ(task->taskDescription(), std::nullopt);
  EXPECT_EQ(task->countOfBytesReceived(), 0);
  EXPECT_EQ(task->response(), nullptr);
  EXPECT_EQ(task->error(), nullptr);
  task->resume();
  EXPECT_EQ(task->state(), URLSessionTaskState::Running);
  EXPECT_TRUE(app.recorder->waitForBytes(task->taskIdentifier(), 1));
  EXPECT_EQ(statusOf(task->response()), 200);
  EXPECT_EQ(task->countOfBytesExpectedToReceive(), static_cast<int64_t>(kSize));
  task->suspend();
  EXPECT_EQ(task->state(), URLSessionTaskState::Suspended);
  task->resume();
  EXPECT_EQ(task->state(), URLSessionTaskState::Running);
  harness->release("/a");
  const auto events = app.completed(task);
  EXPECT_EQ(events.summary(), "wfc 200");
  EXPECT_EQ(task->state(), URLSessionTaskState::Completed);
  EXPECT_EQ(task->countOfBytesReceived(), static_cast<int64_t>(kSize));
  EXPECT_EQ(compareWithContent(events.files.at(0), "/a", 0, kSize), "");
}

TEST_P(SessionContract, IgnoresCallsOnACompletedTask) {
  harness->serve("/a", kSize);
  app.launch();
  const auto task = app.start("/a");
  app.completed(task);
  for (int i = 0; i < 2; ++i) {
    task->cancel();
    task->resume();
    task->suspend();
    EXPECT_EQ(task->state(), URLSessionTaskState::Completed);
  }
  app.completed(app.start("/a"));  // whatever the calls had caused would have come before
  EXPECT_EQ(app.recorder->of(task->taskIdentifier()).summary(), "wfc 200");
  EXPECT_EQ(task->error(), nullptr);
  EXPECT_TRUE(app.relaunch().empty());
}

TEST_P(SessionContract, FailsAsynchronouslyWhatCannotBeRequested) {
  struct Row {
    const char* what;
    platform::URLRequestPtr request;  // else from resume data
    platform::DataPtr resumeData;
    int64_t code;  // 0: any
  };
  const auto to = [](const char* url) {
    return platform::URLRequest::requestWithURL(platform::URL::URLWithString(url));
  };
  const auto data = [](std::string bytes) {
    return std::make_shared<const platform::Data>(bytes.begin(), bytes.end());
  };
  const Row rows[] = {
      {"no URL", platform::URLRequest::requestWithURL(nullptr), nullptr, platform::URLErrorBadURL},
      {"a file", to("file:///etc/hostname"), nullptr, platform::URLErrorUnsupportedURL},
      {"another scheme", to("ftp://127.0.0.1/a"), nullptr, platform::URLErrorUnsupportedURL},
      {"a relative reference", to("a/b"), nullptr, 0},
      {"empty resume data", nullptr, data(""), 0},
      {"resume data that is none", nullptr, data("not resume data at all"), 0},
      {"no resume data", nullptr, nullptr, 0},
  };
  app.launch();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const auto task = row.request ? app.session->downloadTaskWithRequest(row.request)
                                  : app.session->downloadTaskWithResumeData(row.resumeData);
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->state(), URLSessionTaskState::Suspended);
    task->resume();
    const auto events = app.completed(task);
    EXPECT_EQ(events.order, "c");
    ASSERT_NE(events.completions.at(0), nullptr);
    if (row.code != 0) {
      EXPECT_EQ(events.completions[0]->code(), row.code);
      EXPECT_EQ(events.completions[0]->domain(), platform::NSURLErrorDomain);
    }
  }
}

TEST_P(SessionContract, KeepsDescriptionsAcrossLaunches) {
  using std::string_literals::operator""s;
  const std::string strange = "{\"a\":\"\xC3\xA4 '\";\"}\n\0x"s;
  app.launch();
  const auto cleared = app.make("/a");
  cleared->setTaskDescription("gone");
  cleared->setTaskDescription(std::nullopt);
  app.make("/b")->setTaskDescription("");
  app.make("/c")->setTaskDescription(strange);
  const auto tasks = app.relaunch();
  ASSERT_EQ(tasks.size(), 3U);
  EXPECT_EQ(tasks[0]->taskDescription(), std::nullopt);
  EXPECT_EQ(tasks[1]->taskDescription(), "");
  EXPECT_EQ(tasks[2]->taskDescription(), strange);
}

TEST_P(SessionContract, KeepsPartialDataOfASuspendedTaskAcrossLaunches) {
  const auto task = app.launchAndReceive("/a", kSize, kHalf);
  task->suspend();
  const auto tasks = app.relaunch();
  ASSERT_EQ(tasks.size(), 1U);
  EXPECT_EQ(tasks[0]->state(), URLSessionTaskState::Suspended);
  EXPECT_EQ(tasks[0]->countOfBytesReceived(), static_cast<int64_t>(kHalf));
  harness->release("/a");
  tasks[0]->resume();
  const auto events = app.completed(tasks[0]);
  EXPECT_EQ(events.order, "wfc");
  EXPECT_GE(events.reports.at(0).total, static_cast<int64_t>(kHalf));
  EXPECT_FALSE(events.reports.at(0).first());
  EXPECT_EQ(compareWithContent(events.files.at(0), "/a", 0, kSize), "");
  EXPECT_EQ(harness->bytesTransferredAgain("/a"), 0U);
}

TEST_P(SessionContract, GoesOnByItselfWithARunningTaskAfterALaunch) {
  const auto task = app.launchAndReceive("/a", kSize, kHalf);
  const auto tasks = app.relaunch();
  harness->release("/a");
  ASSERT_EQ(tasks.size(), 1U);
  const auto events = app.completed(tasks[0]);
  EXPECT_EQ(events.order, "wfc");
  EXPECT_EQ(compareWithContent(events.files.at(0), "/a", 0, kSize), "");
  EXPECT_EQ(harness->bytesTransferredAgain("/a"), 0U);
}

TEST_P(SessionContract, CancelDropsTheDataAndEndsWithTheCancelError) {
  for (const std::string stage : {"new", "running", "suspended"}) {
    SCOPED_TRACE(stage);
    const std::string path = "/" + stage;
    harness->serveHeld(path, kSize, kHalf);
    app.launch();
    const auto task = app.make(path);
    if (stage != "new") {
      task->resume();
      ASSERT_TRUE(app.recorder->waitForBytes(task->taskIdentifier(), kHalf));
    }
    if (stage == "suspended") task->suspend();
    task->cancel();
    EXPECT_GE(static_cast<int>(task->state()), static_cast<int>(URLSessionTaskState::Canceling));
    task->resume();  // must not bring it back
    const auto events = app.completed(task);
    ASSERT_NE(events.completions.at(0), nullptr);
    EXPECT_EQ(events.completions[0]->code(), platform::URLErrorCancelled);
    EXPECT_EQ(events.completions[0]->domain(), platform::NSURLErrorDomain);
    EXPECT_EQ(resumeDataOf(events.completions[0]), nullptr);
    EXPECT_TRUE(events.files.empty());
    EXPECT_EQ(task->state(), URLSessionTaskState::Completed);
    EXPECT_TRUE(app.recorder->waitUntil([&] { return harness->storedBytes() == 0; }));
    EXPECT_TRUE(app.relaunch().empty());
    app.close();
  }
}

TEST_P(SessionContract, OnlyTheApplicationsCancelEndsATaskAsCancelled) {
  const auto task = app.launchAndReceive("/a", kSize, kHalf);
  const auto seen = app.recorder;
  ASSERT_EQ(app.relaunch().size(), 1U);
  EXPECT_EQ(seen->of(task->taskIdentifier()).order, "w");
}

TEST_P(SessionContract, ContinuesFromResumeDataInsideTheCall) {
  harness->serveBroken("/a", kSize, kHalf);
  const HeaderFields headers = {{"X-Token", "t"}};
  Application::TaskPtr second;
  app.launch([&](SessionRecorder& recorder) {
    recorder.onComplete = [&](const auto& session, const auto&, const platform::ErrorPtr& error) {
      if (!error) return;
      harness->serve("/a", kSize);
      second = session->downloadTaskWithResumeData(resumeDataOf(error));
      second->setTaskDescription("second");
      second->resume();
    };
  });
  const auto first = app.start("/a", headers);
  const auto failed = app.completed(first);
  EXPECT_EQ(failed.order, "wc");
  ASSERT_NE(failed.completions.at(0), nullptr);
  EXPECT_EQ(failed.completions[0]->code(), platform::URLErrorNetworkConnectionLost);
  ASSERT_NE(resumeDataOf(failed.completions[0]), nullptr);
  ASSERT_TRUE(app.recorder->waitUntil([&] { return app.recorder->taskIdentifiers().size() == 2; }));
  const auto events = app.completed(app.recorder->taskIdentifiers().back());
  EXPECT_GT(second->taskIdentifier(), first->taskIdentifier());
  EXPECT_EQ(second->originalRequest()->allHTTPHeaderFields().fields(), headers);
  EXPECT_EQ(events.order, "wfc");
  EXPECT_FALSE(events.reports.at(0).first()) << "a continued body does not look like a new one";
  EXPECT_EQ(compareWithContent(events.files.at(0), "/a", 0, kSize), "");
  EXPECT_EQ(harness->bytesTransferredAgain("/a"), 0U);
}

TEST_P(SessionContract, DropsResumeDataThatNobodyTook) {
  harness->serveBroken("/a", kSize, kHalf);
  app.launch();
  const auto task = app.start("/a");
  EXPECT_NE(resumeDataOf(app.completed(task).completions.at(0)), nullptr);
  EXPECT_TRUE(app.recorder->waitUntil([&] { return harness->storedBytes() == 0; }));
  EXPECT_TRUE(app.relaunch().empty());
}

}  // namespace
}  // namespace qntest
