#include "platform/transfer/DataFetcher.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>
#include <vector>

#include "platform/DispatchQueue.h"
#include "platform/Log.h"
#include "platform/Mutex.h"
#include "platform/transfer/CurlLoop.h"
#include "platform/transfer/HttpExchange.h"
#include "platform/transfer/HttpRules.h"
#include "platform/transfer/ThreadSetup.h"
#include "platform/transfer/TransferClock.h"
#include "platform/transfer/TransferErrors.h"
#include "platform/transfer/TransferOptions.h"

namespace platform {
namespace {

constexpr auto kFailurePause = std::chrono::milliseconds(100);  // after a round that threw
constexpr auto kNextThread = std::chrono::seconds(1);

// One fetch. Reached by the fetching thread alone once it was started.
class Fetch final : public HttpExchange::Observer {
 public:
  Fetch(URLRequestPtr request, URLSession::DataCompletion completion)
      : request_(std::move(request)), completion_(std::move(completion)) {}

  void start(CurlLoop& loop, int64_t nowMs) {
    activeAtMs_ = nowMs;
    const URLPtr url = request_ ? request_->url() : nullptr;
    if (!url) return finish(urlError(URLErrorBadURL, "", ""));
    if (!url->isHTTP()) return finish(urlError(URLErrorUnsupportedURL, "", urlText()));
    exchange_ = std::make_unique<HttpExchange>(loop, *this);
    const bool started =
        exchange_->start({url, request_->HTTPMethod(), request_->allHTTPHeaderFields()});
    if (!started) finish(urlError(URLErrorUnknown, "libcurl refused the request", urlText()));
  }

  void fail(int64_t code, const std::string& detail) { finish(urlError(code, detail, urlText())); }

  // When it has to be given up unless something comes.
  int64_t deadlineMs() const {
    const auto& options = TransferOptions::defaults();
    return activeAtMs_ + (connected_ ? options.stallTimeoutMs : options.connectTimeoutMs);
  }
  bool isDone() const { return done_; }
  // Calls the application, once.
  void tell() {
    exchange_.reset();
    const auto completion = std::exchange(completion_, nullptr);
    if (!completion) return;
    try {
      completion(error_ ? nullptr : std::make_shared<const Data>(std::move(body_)), response_,
                 error_);
    } catch (...) {
      logError("Completion of a fetch: " + describeCurrentException());
    }
  }

 private:
  void exchangeDidConnect() override {
    connected_ = true;
    touch();
  }

  bool exchangeDidReceiveHead(HttpHead head) override {
    touch();
    if (hasUnclearLength(head.headers)) {
      finish(urlError(URLErrorBadServerResponse, "its length is not one number", urlText()));
      return false;
    }
    int64_t length = contentLength(head.headers).value_or(-1);
    if (hasContentCoding(head.headers)) length = -1;
    if (length > URLSessionMaximumDataBytes) return tooLong();
    response_ = std::make_shared<const HTTPURLResponse>(head.url, head.status,
                                                        std::move(head.headers), length);
    if (length > 0) body_.reserve(static_cast<size_t>(std::min<int64_t>(length, 1 << 20)));
    return true;
  }

  bool exchangeDidReceiveBody(const char* bytes, size_t count) override {
    touch();
    if (body_.size() + count > static_cast<size_t>(URLSessionMaximumDataBytes)) return tooLong();
    body_.insert(body_.end(), bytes, bytes + count);
    return true;
  }

  void exchangeDidComplete(const HttpOutcome& outcome) override {
    if (outcome.succeeded()) return finish(nullptr);
    finish(urlError(outcome.code, outcome.detail, urlText()));
  }

  bool tooLong() {
    finish(urlError(URLErrorDataLengthExceedsMaximum,
                    "at most " + std::to_string(URLSessionMaximumDataBytes) + " bytes", urlText()));
    return false;
  }

  void finish(ErrorPtr error) {
    if (done_) return;
    done_ = true;
    error_ = std::move(error);
  }

  void touch() { activeAtMs_ = TransferClock::systemClock().nowMs(); }
  std::string urlText() const { return request_->url() ? request_->url()->absoluteString() : ""; }

  const URLRequestPtr request_;
  URLSession::DataCompletion completion_;
  std::unique_ptr<HttpExchange> exchange_;
  int64_t activeAtMs_ = 0;
  bool connected_ = false;
  bool done_ = false;
  Data body_;
  URLResponsePtr response_;
  ErrorPtr error_;
};

}  // namespace

class DataFetcher::Core {
 public:
  Core() : loop_({16, TransferOptions::defaults().caFile}, &HttpExchange::done) {}

  void post(std::function<void()> command) {
    {
      MutexLock lock(mutex_);
      commands_.push_back(std::move(command));
    }
    ensureThread();
    loop_.wake();
  }

  void start(const std::shared_ptr<Fetch>& fetch) {
    fetches_.push_back(fetch);
    fetch->start(loop_, TransferClock::systemClock().nowMs());
  }

 private:
  // Without one to be had now, a little later.
  void ensureThread() {
    MutexLock lock(mutex_);
    if (started_) return;
    try {
      startThread("qn-fetch", [this] { run(); }).detach();
      started_ = true;
    } catch (...) {
      logError("Fetches wait: " + describeCurrentException());
      DispatchQueue::mainQueue()->after(kNextThread, [this] { ensureThread(); });
    }
  }

  void run() {
    for (;;) {
      try {
        runRound();
      } catch (...) {
        logError("Fetches: " + describeCurrentException());
        std::this_thread::sleep_for(kFailurePause);
      }
    }
  }

  void runRound() {
    runCommands();
    checkDeadlines();
    tellDone();
    loop_.run(TransferClock::systemClock().millisecondsUntil(nextDeadline()));
    tellDone();
  }

  void runCommands() {
    std::vector<std::function<void()>> commands;
    {
      MutexLock lock(mutex_);
      commands.swap(commands_);
    }
    for (const auto& command : commands) {
      try {
        command();
      } catch (...) {
        logError("Fetches: " + describeCurrentException());
      }
    }
  }

  void checkDeadlines() {
    const int64_t now = TransferClock::systemClock().nowMs();
    for (const auto& fetch : fetches_) {
      if (!fetch->isDone() && fetch->deadlineMs() <= now) fetch->fail(URLErrorTimedOut, "");
    }
  }

  int64_t nextDeadline() const {
    int64_t next = kNeverMs;
    for (const auto& fetch : fetches_)
      next = std::min(next, fetch->deadlineMs());
    return next;
  }

  void tellDone() {
    const auto firstDone = std::stable_partition(
        fetches_.begin(), fetches_.end(), [](const auto& fetch) { return !fetch->isDone(); });
    const std::vector<std::shared_ptr<Fetch>> done(firstDone, fetches_.end());
    fetches_.erase(firstDone, fetches_.end());
    for (const auto& fetch : done)
      fetch->tell();
  }

  CurlLoop loop_;
  Mutex mutex_;
  bool started_ GUARDED_BY(mutex_) = false;
  std::vector<std::function<void()>> commands_ GUARDED_BY(mutex_);
  std::vector<std::shared_ptr<Fetch>> fetches_;  // of the thread
};

namespace {

class FetchTask final : public URLSessionDataTask {
 public:
  FetchTask(std::shared_ptr<DataFetcher::Core> core, std::shared_ptr<Fetch> fetch)
      : core_(std::move(core)), fetch_(std::move(fetch)) {}

  void resume() override {
    {
      MutexLock lock(mutex_);
      if (started_) return;
      started_ = true;
    }
    core_->post([core = core_.get(), fetch = fetch_] { core->start(fetch); });
  }

  void cancel() override {
    bool wasStarted = false;
    {
      MutexLock lock(mutex_);
      wasStarted = std::exchange(started_, true);
    }
    core_->post([core = core_.get(), fetch = fetch_, wasStarted] {
      fetch->fail(URLErrorCancelled, "");
      if (!wasStarted) fetch->tell();
    });
  }

 private:
  const std::shared_ptr<DataFetcher::Core> core_;
  const std::shared_ptr<Fetch> fetch_;
  Mutex mutex_;
  bool started_ GUARDED_BY(mutex_) = false;
};

}  // namespace

DataFetcher::DataFetcher() : core_(std::make_shared<Core>()) {}

DataFetcher& DataFetcher::shared() {
  static auto* const fetcher = new DataFetcher;  // lives as long as its thread: for ever
  return *fetcher;
}

std::shared_ptr<URLSessionDataTask> DataFetcher::makeTask(const URLRequestPtr& request,
                                                          URLSession::DataCompletion completion) {
  auto copy = std::make_shared<const URLRequest>(request ? *request : URLRequest(nullptr));
  return std::make_shared<FetchTask>(
      core_, std::make_shared<Fetch>(std::move(copy), std::move(completion)));
}

}  // namespace platform
