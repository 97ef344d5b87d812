#include "tests/support/ScriptedSharedSession.h"

#include <deque>
#include <optional>
#include <utility>

#include "platform/Exception.h"

namespace qntest {
namespace {

class DataTask : public platform::URLSessionDataTask {
 public:
  explicit DataTask(std::function<void()> start) : start_(std::move(start)) {}
  void resume() override {
    if (start_) std::exchange(start_, nullptr)();
  }
  void cancel() override {}

 private:
  std::function<void()> start_;
};

}  // namespace

class ScriptedSharedSession::Session : public platform::URLSession {
 public:
  struct Fetch {
    platform::URLRequestPtr request;
    DataCompletion completion;
  };

  const platform::URLSessionConfiguration& configuration() const override { return configuration_; }
  std::shared_ptr<platform::URLSessionDownloadTask> downloadTaskWithRequest(
      const platform::URLRequestPtr&) override {
    throw platform::Exception("NSURLSessionException", "The shared session downloads no files");
  }
  std::shared_ptr<platform::URLSessionDownloadTask> downloadTaskWithResumeData(
      const platform::DataPtr&) override {
    throw platform::Exception("NSURLSessionException", "The shared session downloads no files");
  }
  void getTasksWithCompletionHandler(std::function<void(const Tasks&)> completion) override {
    completion({});
  }
  void getAllTasksWithCompletionHandler(std::function<void(const Tasks&)> completion) override {
    completion({});
  }
  std::shared_ptr<platform::URLSessionDataTask> dataTaskWithRequest(
      const platform::URLRequestPtr& request, DataCompletion completion) override {
    return std::make_shared<DataTask>(
        [this, fetch = Fetch{request, std::move(completion)}]() mutable {
          std::lock_guard lock(mutex_);
          fetches_.push_back(std::move(fetch));
        });
  }

  std::vector<std::string> waiting() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> urls;
    for (const Fetch& fetch : fetches_)
      urls.push_back(fetch.request->url() ? fetch.request->url()->absoluteString() : "");
    return urls;
  }

  std::optional<Fetch> take() {
    std::lock_guard lock(mutex_);
    if (fetches_.empty()) return std::nullopt;
    Fetch fetch = std::move(fetches_.front());
    fetches_.pop_front();
    return fetch;
  }

 private:
  const platform::URLSessionConfiguration configuration_{};
  mutable std::mutex mutex_;
  std::deque<Fetch> fetches_;
};

ScriptedSharedSession::ScriptedSharedSession() : session_(std::make_shared<Session>()) {
  platform::URLSession::setSharedProvider([session = session_] { return session; });
}

ScriptedSharedSession::~ScriptedSharedSession() {
  platform::URLSession::setSharedProvider(nullptr);
}

std::vector<std::string> ScriptedSharedSession::waiting() const {
  return session_->waiting();
}

bool ScriptedSharedSession::answer(const std::string& body, int status) {
  const auto fetch = session_->take();
  if (!fetch) return false;
  const auto response = std::make_shared<const platform::HTTPURLResponse>(
      fetch->request->url(), status, platform::HTTPHeaders(), static_cast<int64_t>(body.size()));
  fetch->completion(std::make_shared<const platform::Data>(body.begin(), body.end()), response,
                    nullptr);
  return true;
}

bool ScriptedSharedSession::fail(int64_t urlErrorCode) {
  const auto fetch = session_->take();
  if (!fetch) return false;
  fetch->completion(nullptr, nullptr,
                    platform::Error::errorWithDomain(platform::NSURLErrorDomain, urlErrorCode));
  return true;
}

bool ScriptedSharedSession::answerWithNothing() {
  const auto fetch = session_->take();
  if (!fetch) return false;
  fetch->completion(nullptr, nullptr, nullptr);
  return true;
}

}  // namespace qntest
