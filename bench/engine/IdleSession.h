#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/URLSession.h"

// A session whose tasks do nothing, at the least cost: what is left in a measurement is the engine.
namespace idle {

class Task : public platform::URLSessionDownloadTask {
 public:
  explicit Task(platform::URLRequestPtr request) : request_(std::move(request)) {}

  uint64_t taskIdentifier() const override { return 1; }
  platform::URLSessionTaskState state() const override { return state_; }
  std::optional<std::string> taskDescription() const override { return description_; }
  void setTaskDescription(std::optional<std::string> description) override {
    description_ = std::move(description);
  }
  platform::URLRequestPtr originalRequest() const override { return request_; }
  platform::URLResponsePtr response() const override { return nullptr; }
  platform::ErrorPtr error() const override { return nullptr; }
  int64_t countOfBytesReceived() const override { return 100; }
  int64_t countOfBytesExpectedToReceive() const override { return 100; }
  platform::URLSessionTaskWaitReason waitReason() const override { return {}; }
  void resume() override { state_ = platform::URLSessionTaskState::Running; }
  void suspend() override { state_ = platform::URLSessionTaskState::Suspended; }
  void cancel() override { state_ = platform::URLSessionTaskState::Completed; }

 private:
  const platform::URLRequestPtr request_;
  std::optional<std::string> description_;
  platform::URLSessionTaskState state_ = platform::URLSessionTaskState::Suspended;
};

class Session : public platform::URLSession {
 public:
  const platform::URLSessionConfiguration& configuration() const override { return configuration_; }
  std::shared_ptr<platform::URLSessionDownloadTask> downloadTaskWithRequest(
      const platform::URLRequestPtr& request) override {
    return std::make_shared<Task>(request);
  }
  std::shared_ptr<platform::URLSessionDownloadTask> downloadTaskWithResumeData(
      const platform::DataPtr&) override {
    return std::make_shared<Task>(nullptr);
  }
  void getTasksWithCompletionHandler(std::function<void(const Tasks&)> completion) override {
    completion({});
  }
  void getAllTasksWithCompletionHandler(std::function<void(const Tasks&)> completion) override {
    completion({});
  }
  std::shared_ptr<platform::URLSessionDataTask> dataTaskWithRequest(const platform::URLRequestPtr&,
                                                                    DataCompletion) override {
    return nullptr;
  }

 private:
  platform::URLSessionConfiguration configuration_;
};

}  // namespace idle
