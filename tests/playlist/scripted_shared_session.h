#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "platform/URLSession.h"

// A shared session that the test plays: each data task is recorded when it is resumed and ends when
// the test says so. Stands in as long as it lives.
class ScriptedSharedSession {
 public:
  struct Fetch {
    platform::URLRequestPtr request;
    platform::URLSession::DataCompletion completion;
  };

  ScriptedSharedSession() : session_(std::make_shared<Session>()) {
    platform::URLSession::setSharedProvider([session = session_] { return session; });
  }
  ~ScriptedSharedSession() { platform::URLSession::setSharedProvider(nullptr); }
  ScriptedSharedSession(const ScriptedSharedSession&) = delete;
  ScriptedSharedSession& operator=(const ScriptedSharedSession&) = delete;

  // The fetches that were started, oldest first.
  std::vector<Fetch>& fetches() { return session_->fetches; }

 private:
  class Session;

  class Task : public platform::URLSessionDataTask {
   public:
    Task(std::shared_ptr<Session> session, Fetch fetch)
        : session_(std::move(session)), fetch_(std::move(fetch)) {}
    void resume() override;
    void cancel() override {}

   private:
    std::shared_ptr<Session> session_;
    Fetch fetch_;
  };

  class Session : public platform::URLSession {
   public:
    const platform::URLSessionConfiguration& configuration() const override {
      return configuration_;
    }
    std::shared_ptr<platform::URLSessionDownloadTask> downloadTaskWithRequest(
        const platform::URLRequestPtr&) override {
      return nullptr;
    }
    std::shared_ptr<platform::URLSessionDownloadTask> downloadTaskWithResumeData(
        const platform::DataPtr&) override {
      return nullptr;
    }
    void getTasksWithCompletionHandler(std::function<void(const Tasks&)> completion) override {
      completion({});
    }
    void getAllTasksWithCompletionHandler(std::function<void(const Tasks&)> completion) override {
      completion({});
    }
    std::shared_ptr<platform::URLSessionDataTask> dataTaskWithRequest(
        const platform::URLRequestPtr& request, DataCompletion completion) override {
      return std::make_shared<Task>(std::static_pointer_cast<Session>(shared_from_this()),
                                    Fetch{request, std::move(completion)});
    }

    std::vector<Fetch> fetches;

   private:
    platform::URLSessionConfiguration configuration_;
  };

  std::shared_ptr<Session> session_;
};

inline void ScriptedSharedSession::Task::resume() {
  session_->fetches.push_back(fetch_);
}
