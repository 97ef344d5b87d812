#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/FileManager.h"
#include "platform/URLSession.h"

namespace qntest {

// A delegate that writes down what it is told, one line of text per event, moves finished files to
// a directory and lets a test wait for a line.
class Recorder : public platform::URLSessionDelegate {
 public:
  using Session = std::shared_ptr<platform::URLSession>;
  using Task = std::shared_ptr<platform::URLSessionDownloadTask>;

  explicit Recorder(std::string directory = {}) : directory_(std::move(directory)) {}

  // Called inside the delegate call, after it was written down.
  std::function<void(const Session&, const Task&, const std::string& event)> during;

  void URLSessionDownloadTaskDidWriteData(const Session& session, const Task& task, int64_t written,
                                          int64_t total, int64_t expected) override {
    {
      std::lock_guard lock(mutex_);
      reports_[task->taskIdentifier()].push_back({written, total, expected});
    }
    tell(session, task, "report");
  }

  void URLSessionDownloadTaskDidFinishDownloadingToURL(const Session& session, const Task& task,
                                                       const platform::URLPtr& location) override {
    if (!directory_.empty()) {
      const auto error =
          platform::FileManager::defaultManager().moveItem(*location->filePath(), fileOf(*task));
      if (error) note("move failed: " + error->localizedDescription());
    }
    tell(session, task, "file");
  }

  void URLSessionTaskDidCompleteWithError(const Session& session, const Task& task,
                                          const platform::ErrorPtr& error) override {
    tell(session, task, error ? "error " + std::to_string(error->code()) : "done");
  }

  void URLSessionDidFinishEventsForBackgroundURLSession(const Session&) override {
    note("events finished");
  }

  struct Report {
    int64_t written, total, expected;
  };
  std::vector<Report> reports(const Task& task) const {
    std::lock_guard lock(mutex_);
    const auto found = reports_.find(task->taskIdentifier());
    return found == reports_.end() ? std::vector<Report>() : found->second;
  }

  std::string fileOf(const platform::URLSessionDownloadTask& task) const {
    return directory_ + "/" + std::to_string(task.taskIdentifier());
  }

  // "<id> file", "<id> done", "<id> error -999", "events finished", in order; reports are left out.
  std::vector<std::string> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }
  size_t count(const std::string& line) const {
    std::lock_guard lock(mutex_);
    return countLocked(line);
  }
  bool waitFor(const std::string& line, size_t times = 1, double seconds = 30) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::duration<double>(seconds),
                             [&] { return countLocked(line) >= times; });
  }
  bool waitFor(const Task& task, const std::string& event) const {
    return waitFor(std::to_string(task->taskIdentifier()) + " " + event);
  }
  bool waitUntil(const std::function<bool()>& condition, double seconds = 30) const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    std::unique_lock lock(mutex_);
    while (!condition()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      changed_.wait_for(lock, std::chrono::milliseconds(2));
    }
    return true;
  }

 private:
  void tell(const Session& session, const Task& task, const std::string& event) {
    if (event != "report") note(std::to_string(task->taskIdentifier()) + " " + event);
    if (during) during(session, task, event);
  }
  void note(const std::string& line) {
    std::lock_guard lock(mutex_);
    lines_.push_back(line);
    changed_.notify_all();
  }
  size_t countLocked(const std::string& line) const {
    size_t result = 0;
    for (const auto& known : lines_)
      result += known == line;
    return result;
  }

  const std::string directory_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<std::string> lines_;
  std::map<uint64_t, std::vector<Report>> reports_;
};

}  // namespace qntest
