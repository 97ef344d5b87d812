#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/URLSession.h"

namespace qntest {

// Every wait of a test for an event: far beyond what any needs, also under a sanitizer on a busy
// machine.
inline constexpr double kEventDeadlineSeconds = 30;

// A session's delegate that writes everything down, moves finished files into a directory of its
// own and lets a test wait for what it expects. Thread-safe. It also watches what the interface
// promises of every call: one at a time, and never on the thread that made the recorder (the
// "application").
class SessionRecorder final : public platform::URLSessionDelegate {
 public:
  using SessionPtr = std::shared_ptr<platform::URLSession>;
  using TaskPtr = std::shared_ptr<platform::URLSessionDownloadTask>;

  struct Report {
    int64_t written = 0, total = 0, expected = 0;
    int status = 0;  // of the response that the task shows at the time
    bool first() const { return written == total; }
  };
  struct Events {
    std::vector<Report> reports;
    std::vector<std::string> files;  // finished files, where they are now
    std::vector<platform::ErrorPtr> completions;
    std::string order;  // w, f and c for the three calls, runs of w as one
    int status = 0;     // of the response at the last event
    // "order[ error code][ HTTP status]", to compare in one line: "wfc 200", "c -1005".
    std::string summary() const;
  };

  explicit SessionRecorder(std::string directory);

  Events of(uint64_t task) const;
  std::vector<uint64_t> taskIdentifiers() const;  // of tasks with any event, ascending
  int endsOfBackgroundEvents() const;
  // All calls in order, as text: "3 write 10+10/100", "3 finish", "3 complete -1005", "end of
  // events".
  std::string log() const;
  // Broken promises about the calls themselves; empty when all was well.
  std::string violations() const;

  // Wait for an event with a deadline; false when it did not come.
  bool waitForCompletion(uint64_t task, double seconds = kEventDeadlineSeconds) const;
  bool waitForBytes(uint64_t task, int64_t total, double seconds = kEventDeadlineSeconds) const;
  bool waitForEndOfEvents(double seconds = kEventDeadlineSeconds) const;
  bool waitUntil(const std::function<bool()>& condition,
                 double seconds = kEventDeadlineSeconds) const;

  // What the application does inside a call, after it was written down; in the last call before, so
  // that whoever waited for the end finds all of it done. Set before the session starts.
  std::function<void(const SessionPtr&, const TaskPtr&, const Report&)> onWrite;
  std::function<void(const SessionPtr&, const TaskPtr&, const std::string& location)>
      onFinish;  // moves the file
                 // itself or not
  std::function<void(const SessionPtr&, const TaskPtr&, const platform::ErrorPtr&)> onComplete;

  void URLSessionDownloadTaskDidWriteData(const SessionPtr& session, const TaskPtr& task,
                                          int64_t bytesWritten, int64_t totalBytesWritten,
                                          int64_t totalBytesExpectedToWrite) override;
  void URLSessionDownloadTaskDidFinishDownloadingToURL(const SessionPtr& session,
                                                       const TaskPtr& task,
                                                       const platform::URLPtr& location) override;
  void URLSessionTaskDidCompleteWithError(const SessionPtr& session, const TaskPtr& task,
                                          const platform::ErrorPtr& error) override;
  void URLSessionDidFinishEventsForBackgroundURLSession(const SessionPtr& session) override;

 private:
  class Call;
  template <class Note>
  void note(uint64_t task, char kind, int status, const std::string& line, Note note);

  const std::string directory_;
  const std::thread::id application_ = std::this_thread::get_id();
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  // Guarded by the mutex.
  std::map<uint64_t, Events> events_;
  std::string log_, violations_;
  int inside_ = 0, ends_ = 0;
};

// The status of a response, 0 when there is none.
int statusOf(const platform::URLResponsePtr& response);
// "domain code" of an error, "" for null.
std::string describeError(const platform::ErrorPtr& error);
platform::DataPtr resumeDataOf(const platform::ErrorPtr& error);  // null when absent
int64_t httpStatusOf(const platform::ErrorPtr& error);  // of the error's user info, 0 when absent

}  // namespace qntest
