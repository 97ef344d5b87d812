#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/URLSession.h"
#include "tests/transfer/MoviePlan.h"

namespace qntest {

// A small application that uses a session as the engine does: segments of several qualities in
// order, so many at a time for each; what a segment is stands in its task's description; a finished
// file is moved into place and the next task made inside the call. It appends what it saw to a log,
// a line each:
//   open PID | attached Q/I | undescribed ID | doubled Q/I | launch | new Q/I ID | whole Q/I ID |
//   stored Q/I ID | completed ID | failed Q/I TEXT | waits NAME TEXT | done
// A wait is told when it is another than the last one that was told; "waits none" when no task
// waits any more.
class MovieApplication final : public platform::URLSessionDelegate,
                               public std::enable_shared_from_this<MovieApplication> {
 public:
  MovieApplication(MoviePlan plan, std::string root, std::string logPath);
  ~MovieApplication() override;

  // Opens the session, attaches to the tasks of earlier launches and starts what is missing.
  void launch(const platform::URLSessionConfiguration& configuration);
  // Blocks until every segment is stored; false when one failed for good.
  [[nodiscard]] bool waitUntilDone();
  void write(const std::string& line);  // to the log, at once
  const std::shared_ptr<platform::URLSession>& session() const { return session_; }

  using SessionPtr = std::shared_ptr<platform::URLSession>;
  using TaskPtr = std::shared_ptr<platform::URLSessionDownloadTask>;
  void URLSessionDownloadTaskDidWriteData(const SessionPtr& session, const TaskPtr& task,
                                          int64_t bytesWritten, int64_t totalBytesWritten,
                                          int64_t totalBytesExpectedToWrite) override;
  void URLSessionDownloadTaskDidFinishDownloadingToURL(const SessionPtr& session,
                                                       const TaskPtr& task,
                                                       const platform::URLPtr& location) override;
  void URLSessionTaskDidCompleteWithError(const SessionPtr& session, const TaskPtr& task,
                                          const platform::ErrorPtr& error) override;

 private:
  struct Segment {
    TaskPtr task;  // null: none
    bool stored = false;
    int failures = 0;
  };
  // "Q/I" names a segment.
  Segment* _find(const std::string& name);
  void _attach(const TaskPtr& task);
  void _startMore();
  bool _done() const;
  void _tellWaits();
  void _start(const std::string& name, const TaskPtr& task);

  const MoviePlan plan_;
  const std::string root_;
  const int log_;
  std::shared_ptr<platform::URLSession> session_;
  std::mutex mutex_;
  // Guarded by the mutex.
  std::vector<std::vector<Segment>> qualities_;
  bool failed_ = false;
  std::string toldWait_ = "none";
  std::condition_variable changed_;
};

}  // namespace qntest
