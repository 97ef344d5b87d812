#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/Mutex.h"
#include "platform/URLSession.h"
#include "platform/transfer/TransferTypes.h"

namespace platform {

class SessionCore;

// A task as the application holds it. It answers from what its session's events said last; its own
// lock guards that. A task that outlives its session keeps answering and does nothing any more.
class TransferTask final : public URLSessionDownloadTask,
                           public std::enable_shared_from_this<TransferTask> {
 public:
  TransferTask(const TransferTaskInfo& info, std::weak_ptr<SessionCore> core);

  uint64_t taskIdentifier() const override { return id_; }
  URLSessionTaskState state() const override;
  std::optional<std::string> taskDescription() const override;
  void setTaskDescription(std::optional<std::string> description) override;
  URLRequestPtr originalRequest() const override;
  URLResponsePtr response() const override;
  ErrorPtr error() const override;
  int64_t countOfBytesReceived() const override;
  int64_t countOfBytesExpectedToReceive() const override;
  URLSessionTaskWaitReason waitReason() const override;
  std::optional<uint64_t> hashOfBytesReceived() const override;
  void resume() override;
  void suspend() override;
  void cancel() override;

 private:
  friend class SessionCore;

  void change(TransferCall::Kind kind, std::optional<std::string> description);
  [[nodiscard]] bool _act(const TransferCall& call) REQUIRES(mutex_);

  const TransferTaskId id_;
  const URLRequestPtr request_;
  const std::weak_ptr<SessionCore> core_;

  mutable Mutex mutex_;
  URLSessionTaskState state_ GUARDED_BY(mutex_);
  std::optional<std::string> description_ GUARDED_BY(mutex_);
  URLResponsePtr response_ GUARDED_BY(mutex_);
  ErrorPtr error_ GUARDED_BY(mutex_);
  int64_t received_ GUARDED_BY(mutex_);
  int64_t expected_ GUARDED_BY(mutex_);
  std::optional<uint64_t> hash_ GUARDED_BY(mutex_);
  URLSessionTaskWaitReason wait_ GUARDED_BY(mutex_);
  int64_t retryAtMs_ GUARDED_BY(mutex_) = 0;

  // Guarded by the core's lock.
  bool inBatch_ = false;
  bool ended_ = false;  // its last event is in the queue
  std::optional<TransferEvent> progress_;

  // Of the delegate's thread.
  bool reported_ = false;
  uint64_t reportedResponse_ = 0;
  int64_t reportedBytes_ = 0;
};

// Resume data: opaque to the application, made of a failed task's identity and request.
DataPtr makeResumeData(const TransferTask& task, const std::string& token);
// A Create call without `task`. Data that is none gives a request without URL.
TransferCall readResumeData(const DataPtr& data);

}  // namespace platform
