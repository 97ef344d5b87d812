#include "tests/transfer/helper/MovieApplication.h"

#include <chrono>
#include <filesystem>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "tests/support/SessionRecorder.h"

namespace qntest {

namespace {

constexpr int kAttempts = 5;
constexpr auto kWaitCheck = std::chrono::milliseconds(20);

}  // namespace

MovieApplication::MovieApplication(MoviePlan plan, std::string root, std::string logPath)
    : plan_(std::move(plan)),
      root_(std::move(root)),
      log_(::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)),
      qualities_(static_cast<size_t>(plan_.qualities)) {
  for (int quality = 0; quality < plan_.qualities; ++quality) {
    std::filesystem::create_directories(root_ + "/" + std::to_string(quality));
    auto& segments = qualities_[static_cast<size_t>(quality)];
    segments.resize(static_cast<size_t>(plan_.segments));
    for (int i = 0; i < plan_.segments; ++i)
      segments[static_cast<size_t>(i)].stored =
          std::filesystem::exists(root_ + "/" + MoviePlan::nameOf(quality, i));
  }
}

MovieApplication::~MovieApplication() {
  ::close(log_);
}

void MovieApplication::write(const std::string& line) {
  const std::string bytes = line + "\n";
  [[maybe_unused]] const auto written = ::write(log_, bytes.data(), bytes.size());
}

void MovieApplication::launch(const platform::URLSessionConfiguration& configuration) {
  session_ = platform::URLSession::sessionWithConfiguration(configuration, weak_from_this());
  write("open " + std::to_string(::getpid()));
  session_->getTasksWithCompletionHandler([this](const platform::URLSession::Tasks& tasks) {
    const std::lock_guard lock(mutex_);
    for (const auto& task : tasks)
      _attach(task);
  });
  write("launch");
  const std::lock_guard lock(mutex_);
  _startMore();
}

MovieApplication::Segment* MovieApplication::_find(const std::string& name) {
  const size_t slash = name.find('/');
  if (slash == std::string::npos) return nullptr;
  const auto quality = static_cast<size_t>(std::stoi(name));
  const auto index = static_cast<size_t>(std::stoi(name.substr(slash + 1)));
  if (quality >= qualities_.size() || index >= qualities_[quality].size()) return nullptr;
  return &qualities_[quality][index];
}

void MovieApplication::_attach(const TaskPtr& task) {
  const auto name = task->taskDescription();
  if (!name) {  // killed between making and describing it
    write("undescribed " + std::to_string(task->taskIdentifier()));
    task->cancel();
    return;
  }
  Segment* segment = _find(*name);
  if (segment == nullptr || segment->task || segment->stored) {
    write("doubled " + *name);
    task->cancel();
    return;
  }
  segment->task = task;
  write("attached " + *name);
  if (task->state() == platform::URLSessionTaskState::Suspended) task->resume();
}

// As the engine starts a task: made, described as paused, resumed, described again.
void MovieApplication::_start(const std::string& name, const TaskPtr& task) {
  _find(name)->task = task;
  task->setTaskDescription(name);
  task->resume();
  task->setTaskDescription(name);
  write("new " + name + " " + std::to_string(task->taskIdentifier()));
}

void MovieApplication::_startMore() {
  for (size_t quality = 0; quality < qualities_.size(); ++quality) {
    int active = 0;
    auto& segments = qualities_[quality];
    for (const Segment& segment : segments)
      active += segment.task ? 1 : 0;
    for (size_t i = 0; i < segments.size() && active < plan_.parallel; ++i) {
      if (segments[i].stored || segments[i].task) continue;
      const std::string name = MoviePlan::nameOf(static_cast<int>(quality), static_cast<int>(i));
      const auto request = platform::URLRequest::requestWithURL(
          platform::URL::URLWithString(plan_.baseURL + plan_.pathOf(name)));
      request->setValueForHTTPHeaderField(kMovieHeaderValue, kMovieHeader);
      _start(name, session_->downloadTaskWithRequest(request));
      ++active;
    }
  }
}

bool MovieApplication::waitUntilDone() {
  std::unique_lock lock(mutex_);
  while (!failed_ && !_done()) {
    changed_.wait_for(lock, kWaitCheck);
    _tellWaits();
  }
  return !failed_;
}

bool MovieApplication::_done() const {
  for (const auto& segments : qualities_)
    for (const Segment& segment : segments)
      if (!segment.stored || segment.task) return false;
  return true;
}

void MovieApplication::_tellWaits() {
  std::string waits = "none";
  for (const auto& segments : qualities_) {
    for (const Segment& segment : segments) {
      const auto reason =
          segment.task ? segment.task->waitReason() : platform::URLSessionTaskWaitReason{};
      if (reason.wait == platform::URLSessionTaskWait::DiskFull)
        waits = "disk full " + reason.detail;
      if (reason.wait == platform::URLSessionTaskWait::Metered) waits = "metered";
    }
  }
  if (waits != std::exchange(toldWait_, waits)) write("waits " + waits);
}

void MovieApplication::URLSessionDownloadTaskDidWriteData(const SessionPtr&, const TaskPtr&,
                                                          int64_t, int64_t, int64_t) {}

void MovieApplication::URLSessionDownloadTaskDidFinishDownloadingToURL(
    const SessionPtr&, const TaskPtr& task, const platform::URLPtr& location) {
  const std::lock_guard lock(mutex_);
  const std::string name = task->taskDescription().value_or("");
  Segment* segment = _find(name);
  if (segment == nullptr) return;
  const int status = statusOf(task->response());
  if (status != 200 && status != 206) {
    write("failed " + name + " status " + std::to_string(status));
    failed_ = true;
    changed_.notify_all();
    return;
  }
  const std::string id = " " + std::to_string(task->taskIdentifier());
  write("whole " + name + id);
  std::error_code error;
  std::filesystem::rename(location->filePath().value_or(""), root_ + "/" + name, error);
  if (error) write("failed " + name + " " + error.message());
  segment->stored = !error;
  failed_ = failed_ || error;
  segment->task = nullptr;
  task->setTaskDescription(std::nullopt);
  write("stored " + name + id);
  _startMore();
  changed_.notify_all();
}

void MovieApplication::URLSessionTaskDidCompleteWithError(const SessionPtr& session,
                                                          const TaskPtr& task,
                                                          const platform::ErrorPtr& error) {
  const auto name = task->taskDescription();
  write("completed " + std::to_string(task->taskIdentifier()));
  if (!error || error->code() == platform::URLErrorCancelled || !name) return;
  const std::lock_guard lock(mutex_);
  Segment* segment = _find(*name);
  if (segment == nullptr || segment->task != task) return;
  write("failed " + *name + " " + describeError(error));
  segment->task = nullptr;
  if (++segment->failures >= kAttempts) failed_ = true;
  const auto resumeData = resumeDataOf(error);
  if (!failed_ && resumeData) _start(*name, session->downloadTaskWithResumeData(resumeData));
  if (!failed_) _startMore();
  changed_.notify_all();
}

}  // namespace qntest
