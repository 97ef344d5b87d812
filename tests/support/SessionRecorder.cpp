#include "tests/support/SessionRecorder.h"

#include <chrono>
#include <filesystem>
#include <utility>

namespace qntest {

// Watches one delegate call from its entry to its return.
class SessionRecorder::Call {
 public:
  explicit Call(SessionRecorder& recorder) : recorder_(recorder) {
    const std::lock_guard lock(recorder_.mutex_);
    if (++recorder_.inside_ > 1) recorder_.violations_ += "two calls at one time; ";
    if (std::this_thread::get_id() == recorder_.application_)
      recorder_.violations_ += "called from inside an application's call; ";
  }
  ~Call() {
    const std::lock_guard lock(recorder_.mutex_);
    --recorder_.inside_;
    recorder_.changed_.notify_all();
  }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

 private:
  SessionRecorder& recorder_;
};

std::string SessionRecorder::Events::summary() const {
  std::string text = order;
  if (!completions.empty() && completions.back())
    text += " " + std::to_string(completions.back()->code());
  if (status != 0) text += " " + std::to_string(status);
  return text;
}

SessionRecorder::SessionRecorder(std::string directory) : directory_(std::move(directory)) {
  std::filesystem::create_directories(directory_);
}

SessionRecorder::Events SessionRecorder::of(uint64_t task) const {
  const std::lock_guard lock(mutex_);
  const auto found = events_.find(task);
  return found != events_.end() ? found->second : Events{};
}

std::vector<uint64_t> SessionRecorder::taskIdentifiers() const {
  const std::lock_guard lock(mutex_);
  std::vector<uint64_t> identifiers;
  for (const auto& [identifier, events] : events_)
    identifiers.push_back(identifier);
  return identifiers;
}

int SessionRecorder::endsOfBackgroundEvents() const {
  const std::lock_guard lock(mutex_);
  return ends_;
}

std::string SessionRecorder::log() const {
  const std::lock_guard lock(mutex_);
  return log_;
}

std::string SessionRecorder::violations() const {
  const std::lock_guard lock(mutex_);
  return violations_;
}

bool SessionRecorder::waitUntil(const std::function<bool()>& condition, double seconds) const {
  const auto deadline = std::chrono::steady_clock::now() +
                        std::chrono::milliseconds(static_cast<int64_t>(seconds * 1e3));
  while (!condition()) {
    std::unique_lock lock(mutex_);
    if (std::chrono::steady_clock::now() >= deadline) return false;
    // The condition may also depend on what no call announces (a server's log, a task's state).
    changed_.wait_for(lock, std::chrono::milliseconds(5));
  }
  return true;
}

bool SessionRecorder::waitForCompletion(uint64_t task, double seconds) const {
  return waitUntil([&] { return !of(task).completions.empty(); }, seconds);
}

bool SessionRecorder::waitForBytes(uint64_t task, int64_t total, double seconds) const {
  return waitUntil(
      [&] {
        const Events events = of(task);
        return !events.reports.empty() && events.reports.back().total >= total;
      },
      seconds);
}

bool SessionRecorder::waitForEndOfEvents(double seconds) const {
  return waitUntil([&] { return endsOfBackgroundEvents() > 0; }, seconds);
}

template <class Note>
void SessionRecorder::note(uint64_t task, char kind, int status, const std::string& line,
                           Note note) {
  const std::lock_guard lock(mutex_);
  Events& events = events_[task];
  if (kind != 'w' || events.order.empty() || events.order.back() != 'w') events.order += kind;
  if (status != 0) events.status = status;
  note(events);
  log_ += std::to_string(task) + " " + line + "\n";
  changed_.notify_all();
}

void SessionRecorder::URLSessionDownloadTaskDidWriteData(const SessionPtr& session,
                                                         const TaskPtr& task, int64_t bytesWritten,
                                                         int64_t totalBytesWritten,
                                                         int64_t totalBytesExpectedToWrite) {
  const Call call(*this);
  const Report report{bytesWritten, totalBytesWritten, totalBytesExpectedToWrite,
                      statusOf(task->response())};
  note(task->taskIdentifier(), 'w', report.status,
       "write +" + std::to_string(bytesWritten) + " " + std::to_string(totalBytesWritten) + "/" +
           std::to_string(totalBytesExpectedToWrite) + " (" + std::to_string(report.status) + ")",
       [&](Events& events) { events.reports.push_back(report); });
  if (onWrite) onWrite(session, task, report);
}

void SessionRecorder::URLSessionDownloadTaskDidFinishDownloadingToURL(
    const SessionPtr& session, const TaskPtr& task, const platform::URLPtr& location) {
  const Call call(*this);
  const std::string file = location && location->filePath() ? *location->filePath() : "";
  const uint64_t identifier = task->taskIdentifier();
  std::string moved = directory_ + "/" + std::to_string(identifier);
  if (onFinish) {
    moved = file;
  } else {
    std::error_code failed;
    std::filesystem::rename(file, moved, failed);
    if (failed) moved = "cannot move " + file + ": " + failed.message();
  }
  note(identifier, 'f', statusOf(task->response()), "finish",
       [&](Events& events) { events.files.push_back(moved); });
  if (onFinish) onFinish(session, task, file);
}

void SessionRecorder::URLSessionTaskDidCompleteWithError(const SessionPtr& session,
                                                         const TaskPtr& task,
                                                         const platform::ErrorPtr& error) {
  const Call call(*this);
  if (onComplete) onComplete(session, task, error);
  note(task->taskIdentifier(), 'c', statusOf(task->response()), "complete " + describeError(error),
       [&](Events& events) { events.completions.push_back(error); });
}

void SessionRecorder::URLSessionDidFinishEventsForBackgroundURLSession(const SessionPtr&) {
  const Call call(*this);
  const std::lock_guard lock(mutex_);
  ++ends_;
  log_ += "end of events\n";
  changed_.notify_all();
}

int statusOf(const platform::URLResponsePtr& response) {
  const auto http = std::dynamic_pointer_cast<const platform::HTTPURLResponse>(response);
  return http ? http->statusCode() : 0;
}

std::string describeError(const platform::ErrorPtr& error) {
  if (!error) return "";
  return error->domain() + " " + std::to_string(error->code()) + " (" +
         error->localizedDescription() + ")";
}

platform::DataPtr resumeDataOf(const platform::ErrorPtr& error) {
  if (!error) return nullptr;
  const auto found = error->userInfo().find(platform::NSURLSessionDownloadTaskResumeData);
  if (found == error->userInfo().end()) return nullptr;
  const auto* data = std::any_cast<platform::DataPtr>(&found->second);
  return data != nullptr ? *data : nullptr;
}

int64_t httpStatusOf(const platform::ErrorPtr& error) {
  if (!error) return 0;
  const auto found = error->userInfo().find(platform::QNURLErrorHTTPStatusKey);
  if (found == error->userInfo().end()) return 0;
  const auto* status = std::any_cast<int64_t>(&found->second);
  return status != nullptr ? *status : -1;
}

}  // namespace qntest
