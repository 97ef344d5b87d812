#include <sstream>

#include <gtest/gtest.h>

#include "platform/Exception.h"
#include "playlist/QNRangedURL.h"
#include "tests/support/EngineWorld.h"

namespace {

using platform::URLSessionTaskState;
using qntest::PlainController;
using qntest::render;

class Resource : public testing::Test {
 protected:
  void make(const std::string& reference, uint64_t length, QNDownloadSize fallback) {
    const auto url = QNRangedURL::rangedURLWithOffset(
        0, length, reference, std::optional<std::string>("http://host/movie/"));
    resource = QNResourceDownloadInfo::infoWithResource(url, "/downloads/x", nullptr, 3, fallback,
                                                        controller);
  }

  platform::ErrorPtr error(int64_t code) {
    return platform::Error::errorWithDomain(platform::NSURLErrorDomain, code);
  }

  // One operation by name; what it returned, or the text of the assertion that it met.
  std::string apply(const std::string& name) {
    const auto answer = [](bool acted) { return std::string(acted ? "yes" : "no"); };
    try {
      if (name == "activate") return answer(resource->activate());
      if (name == "reactivate") return answer(resource->reactivate());
      if (name == "pause") return answer(resource->pause());
      if (name == "resume") return answer(resource->resume());
      if (name == "cancel") return answer(resource->cancel());
      if (name == "clear") return answer(resource->clear());
      if (name == "reset") resource->reset();
      if (name == "succeed") resource->completeWithError(nullptr);
      if (name == "fail") resource->completeWithError(error(-1005));
      if (name == "preload") resource->completeWithBytesPreloaded(77);
      if (name == "preload?") resource->completeWithBytesPreloaded(-1);
      if (name == "bytes") resource->bytesDownloaded(40, 90);
      if (name == "bytes?") resource->bytesDownloaded(40, -1);
      if (name == "reattach") return answer(reattach(QNDownloadStatusRunning));
    } catch (const platform::Exception& exception) {
      EXPECT_EQ(exception.name(), platform::NSInternalInconsistencyException);
      return exception.reason();
    }
    return "-";
  }

  bool reattach(QNDownloadStatus status) {
    const auto request = platform::URLRequest::requestWithURL(resource->resource()->resolveURL());
    return resource->reattachWithStatus(status,
                                        controller->session->downloadTaskWithRequest(request));
  }

  std::shared_ptr<PlainController> controller = std::make_shared<PlainController>();
  std::shared_ptr<QNResourceDownloadInfo> resource;
};

// Every operation in every state: what it says, and where it leads.
TEST_F(Resource, FollowsTheStateTable) {
  struct Row {
    const char* operations;  // the last one is the one that is looked at
    const char* answer;
    const char* state;
  };
  const char* const mustBeIdle = "Expected resource status to be IDLE";
  const char* const mustNotBeIdle = "Expected resource status to not be IDLE";
  const Row rows[] = {
      // idle
      {"activate", "yes", "paused 0/50~"},
      {"reattach", "yes", "running 0/50~"},
      {"pause", "no", "idle 0/50~"},
      {"resume", "no", "idle 0/50~"},
      {"cancel", "no", "idle 0/50~"},
      {"clear", "no", "idle 0/50~"},
      {"reset", "-", "idle 0/50~"},
      {"succeed", mustNotBeIdle, "idle 0/50~"},
      {"fail", mustNotBeIdle, "idle 0/50~"},
      {"preload", "-", "idle 77/77 completed"},
      {"preload?", "Bad value for preloaded bytes", "idle 0/50~"},
      // paused
      {"activate activate", "no", "paused 0/50~"},
      {"activate reattach", "no", "paused 0/50~"},
      {"activate pause", "no", "paused 0/50~"},
      {"activate resume", "yes", "running 0/50~"},
      {"activate bytes cancel", "yes", "idle 0/90"},
      {"activate clear", mustBeIdle, "paused 0/50~"},
      {"activate reset", mustBeIdle, "paused 0/50~"},
      {"activate preload", mustBeIdle, "paused 0/50~"},
      {"activate bytes succeed", "-", "idle 40/90 completed"},
      {"activate bytes fail", "-", "idle 0/90 failed -1005 completed"},
      // running
      {"activate resume resume", "no", "running 0/50~"},
      {"activate resume pause", "yes", "paused 0/50~"},
      {"activate resume bytes", "-", "running 40/90"},
      {"activate resume bytes?", "-", "running 40/50~"},
      {"activate resume bytes bytes?", "-", "running 40/90"},
      {"activate resume bytes cancel", "yes", "idle 0/90"},
      {"activate resume bytes succeed", "-", "idle 40/90 completed"},
      {"activate resume bytes fail", "-", "idle 0/90 failed -1005 completed"},
      // completed
      {"activate succeed activate", "no", "idle 0/50~ completed"},
      {"preload reattach", "no", "idle 77/77 completed"},
      {"activate succeed clear", "no", "idle 0/50~ completed"},
      {"activate bytes succeed reset", "-", "idle 0/90"},
      {"activate fail activate", "no", "idle 0/50~ failed -1005 completed"},
      {"activate fail clear", "yes", "idle 0/50~"},
      {"activate fail preload", "-", "idle 77/77 completed"},
      // again and again: the error stays until the next completion
      {"activate fail reactivate", "yes", "paused 0/50~ reactivated 1 failed -1005"},
      {"activate fail reactivate cancel", "yes", "idle 0/50~ reactivated 1 failed -1005"},
      {"activate fail reactivate bytes succeed", "-", "idle 40/90 reactivated 1 completed"},
      {"reactivate cancel reactivate cancel reactivate cancel reactivate", "yes",
       "paused 0/50~ reactivated 4"},
      {"reactivate cancel reactivate cancel reactivate cancel reactivate fail reactivate", "no",
       "idle 0/50~ reactivated 4 failed -1005 completed"},
      {"reactivate cancel reactivate cancel reactivate cancel reactivate fail clear", "yes",
       "idle 0/50~"},
      {"reactivate cancel reactivate cancel reactivate cancel reactivate fail reset", "-",
       "idle 0/50~"},
      {"reactivate reactivate", "no", "paused 0/50~ reactivated 2"},
  };
  for (const Row& row : rows) {
    make("seg/1", 0, {50, true});
    std::string answer;
    std::istringstream operations(row.operations);
    for (std::string name; operations >> name;)
      answer = apply(name);
    EXPECT_EQ(answer, row.answer) << row.operations;
    EXPECT_EQ(render(*resource), row.state) << row.operations;
    EXPECT_EQ(resource->downloadTask() == nullptr, resource->status() == QNDownloadStatusIdle);
  }
}

TEST_F(Resource, TakesAStatedLengthBeforeAnEstimate) {
  make("seg/1", 1000, {500, true});
  EXPECT_EQ(render(*resource), "idle 0/1000");
  EXPECT_EQ(resource->resourcePath(), "/downloads/x/seg/1");
  EXPECT_EQ(resource->index(), 3U);
}

TEST_F(Resource, SendsItsRequestWithTheHeadersAndTellsItsTaskWhoItIs) {
  make("seg/1", 99, QNDownloadSizeUnknown);
  resource->setAdditionalHeaders(
      std::make_shared<QNHeaders>(QNHeaders{{"X-A", "1"}, {"range", "bytes=1-2"}}));
  ASSERT_TRUE(resource->activate());
  const auto task = resource->downloadTask();
  EXPECT_EQ(task->originalRequest()->url()->absoluteString(), "http://host/movie/seg/1");
  EXPECT_EQ(task->originalRequest()->valueForHTTPHeaderField("X-A"), "1");
  EXPECT_EQ(task->originalRequest()->valueForHTTPHeaderField("Range"), "bytes=1-2")
      << "an additional header replaces one of the same name";
  EXPECT_EQ(task->state(), URLSessionTaskState::Suspended);
  // Without a quality there is nothing to say but index and status.
  EXPECT_EQ(task->taskDescription(), R"({"QNResourceIndex":3,"QNStatus":1})");
  ASSERT_TRUE(resource->resume());
  EXPECT_EQ(task->state(), URLSessionTaskState::Running);
  EXPECT_EQ(task->taskDescription(), R"({"QNResourceIndex":3,"QNStatus":2})");
  ASSERT_TRUE(resource->pause());
  EXPECT_EQ(task->state(), URLSessionTaskState::Suspended);
  EXPECT_EQ(task->taskDescription(), R"({"QNResourceIndex":3,"QNStatus":1})");
  ASSERT_TRUE(resource->cancel());
  EXPECT_EQ(task->state(), URLSessionTaskState::Canceling);
  EXPECT_EQ(task->taskDescription(), std::nullopt);
  EXPECT_EQ(controller->log, "+3 -3 ");
}

TEST_F(Resource, BringsAReattachedTaskToTheRecordedStatus) {
  for (const bool taskRuns : {false, true}) {
    for (const auto status : {QNDownloadStatusPaused, QNDownloadStatusRunning}) {
      make("seg/1", 0, QNDownloadSizeUnknown);
      const auto task =
          controller->session->downloadTaskWithRequest(resource->resource()->prepareRequest());
      task->resume();
      ASSERT_TRUE(controller->session->respond(task, 200, 30));
      ASSERT_TRUE(controller->session->deliver(task, "0123456789"));
      if (!taskRuns) task->suspend();
      ASSERT_TRUE(resource->reattachWithStatus(status, task));
      const bool running = status == QNDownloadStatusRunning;
      EXPECT_EQ(render(*resource), running ? "running 10/30" : "paused 10/30");
      EXPECT_EQ(task->state(),
                running ? URLSessionTaskState::Running : URLSessionTaskState::Suspended);
    }
  }
  make("seg/1", 0, QNDownloadSizeUnknown);
  const auto cancelled =
      controller->session->downloadTaskWithRequest(resource->resource()->prepareRequest());
  cancelled->cancel();
  EXPECT_FALSE(resource->reattachWithStatus(QNDownloadStatusRunning, cancelled));
}

// Resume data are there for as long as the call lasts that tells of them.
TEST_F(Resource, ContinuesFromResumeDataWithoutTouchingTheOriginalRequest) {
  struct Telling : platform::URLSessionDelegate {
    void URLSessionTaskDidCompleteWithError(
        const std::shared_ptr<platform::URLSession>&,
        const std::shared_ptr<platform::URLSessionDownloadTask>&,
        const platform::ErrorPtr& error) override {
      const auto data = std::any_cast<platform::DataPtr>(
          error->userInfo().at(platform::NSURLSessionDownloadTaskResumeData));
      resource->completeWithError(error);
      resource->setAdditionalHeaders(std::make_shared<QNHeaders>(QNHeaders{{"X-A", "2"}}));
      EXPECT_TRUE(resource->reactivateWithData(data));
    }
    std::shared_ptr<QNResourceDownloadInfo> resource;
  };
  const auto telling = std::make_shared<Telling>();
  controller->session = qntest::ScriptedSession::open(
      std::make_shared<qntest::ScriptedStore>(), controller->session->configuration(), telling);
  make("seg/1", 0, QNDownloadSizeUnknown);
  telling->resource = resource;
  resource->setAdditionalHeaders(std::make_shared<QNHeaders>(QNHeaders{{"X-A", "1"}}));
  ASSERT_TRUE(resource->activate() && resource->resume());
  const auto task = resource->downloadTask();
  auto& session = *controller->session;
  ASSERT_TRUE(session.respond(task, 200, 30) && session.deliver(task, "0123456789"));
  ASSERT_TRUE(session.fail(task, -1005, true));
  ASSERT_GT(session.deliverEvents(), 0U);
  ASSERT_NE(resource->downloadTask(), nullptr);
  EXPECT_EQ(resource->downloadTask()->countOfBytesReceived(), 10);
  EXPECT_EQ(resource->downloadTask()->originalRequest()->valueForHTTPHeaderField("X-A"), "1");
}

TEST_F(Resource, NeedsItsControllerToStart) {
  make("seg/1", 0, QNDownloadSizeUnknown);
  controller.reset();
  EXPECT_EQ(apply("activate"), "Controller is required to be non-null");
  EXPECT_EQ(render(*resource), "idle 0/?");
}

}  // namespace
