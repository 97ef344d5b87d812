#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "platform/FileDescriptor.h"
#include "platform/Mutex.h"
#include "platform/URLSession.h"
#include "platform/transfer/LoopShift.h"
#include "platform/transfer/TransferBackend.h"
#include "platform/transfer/service/FrameReader.h"
#include "platform/transfer/service/ServiceLauncher.h"
#include "platform/transfer/service/ServiceMessages.h"

namespace platform::service {

// A session's backend in the service process. A call returns once its message is in the socket,
// which outlives a kill of this process; messages are kept until the service has answered that they
// are durable, and repeated to the next service when this one dies. An ending that was told already
// is not told twice. What the service says is read by a thread of its own or by the one that the
// front lends.
class ServiceBackend final : public TransferBackend {
 public:
  // Connects, starts the service when there is none, and opens the session. Throws
  // platform::Exception "NSURLSessionException" when that cannot be done or the service refuses,
  // with its reason.
  explicit ServiceBackend(const URLSessionConfiguration& configuration);
  ~ServiceBackend() override;  // closes

  std::vector<TransferTaskInfo> tasks() override;
  size_t start(Sink sink) override;
  TransferTaskId nextIdentifier() override;
  void submit(const TransferBatch& batch, Durability durability) override;
  bool work() override;
  void endWork() override;
  int64_t millisecondsUntil(int64_t timeMs) const override;
  // Says goodbye: what transfers goes on in the service, and nobody starts this program for it.
  void close() override;

 private:
  struct Numbered {
    uint64_t number = 0;
    std::string frame;
    std::vector<TransferTaskId> created;
  };

  FileDescriptor connectAndOpen(bool again, std::vector<TransferTaskInfo>& tasks,
                                std::string& refusal, bool& held);
  FileDescriptor connectAndOpenOnce(bool again, std::vector<TransferTaskInfo>& tasks,
                                    std::string& refusal, bool& held, bool& gone);
  void run();
  // Waits for something to read, endWork() if this is the guest, or the guest if it is not. True
  // when something was told.
  [[nodiscard]] bool readRound(bool isGuest) REQUIRES(turn_);
  [[nodiscard]] bool takeMessages(int fd, bool& told) REQUIRES(turn_);
  [[nodiscard]] bool take(Message&& message);
  [[nodiscard]] bool takeEvents(std::vector<TransferEvent>&& events);
  void wake() const;
  bool reconnect();
  void resume(FileDescriptor fd, const std::vector<TransferTaskInfo>& tasks);
  std::vector<TransferEvent> _lostTasks(const std::vector<TransferTaskInfo>& tasks)
      REQUIRES(mutex_);
  void _send(const std::string& frame) REQUIRES(sendMutex_);
  void send(uint64_t number, std::string frame, std::vector<TransferTaskId> created)
      REQUIRES(sendMutex_);
  // Sends a request and waits for its answer; an empty Done when the backend was closed or
  // `timeoutMs` passed.
  template <class Answer, class Request>
  Answer ask(Request request, int timeoutMs);

  const URLSessionConfiguration configuration_;
  const ServicePlace place_;
  const uint64_t front_;  // tells this client's messages from those of others
  std::thread reader_;

  Mutex turn_;  // held while a thread reads; taken before the others
  FrameReader frames_ GUARDED_BY(turn_);
  LoopShift shift_;
  FileDescriptor wakeup_;
  std::atomic<bool> connected_{true};  // what is read has not ended
  std::atomic<bool> waits_{false};     // the reader
  std::atomic<bool> workEnds_{false};

  // Taken before mutex_: keeps messages in the order of their numbers.
  Mutex sendMutex_;
  int sendFd_ GUARDED_BY(sendMutex_) = -1;
  uint64_t lastNumber_ GUARDED_BY(sendMutex_) = 0;

  mutable Mutex mutex_;
  std::condition_variable_any changed_;
  FileDescriptor fd_ GUARDED_BY(mutex_);
  bool closed_ GUARDED_BY(mutex_) = false;
  bool started_ GUARDED_BY(mutex_) = false;
  Sink sink_ GUARDED_BY(mutex_);
  std::vector<TransferTaskInfo> tasks_ GUARDED_BY(mutex_);
  std::deque<Numbered> unanswered_ GUARDED_BY(mutex_);
  std::map<uint64_t, Message> answers_ GUARDED_BY(mutex_);
  std::set<uint64_t> asked_ GUARDED_BY(mutex_);  // whose answers somebody waits for
  uint64_t lastDone_ GUARDED_BY(mutex_) = 0;
  std::unordered_set<TransferTaskId> known_ GUARDED_BY(mutex_);  // made or listed, not acknowledged
  // Of those whose ends were handed to the sink.
  std::unordered_set<TransferTaskId> toldEndings_ GUARDED_BY(mutex_);
  bool _isOld(const TransferEvent& event) const REQUIRES(mutex_);
  uint64_t connections_ GUARDED_BY(mutex_) = 0;
  // Task numbers: those in use, and those that were asked for in time (`reserving_`, 0: none were).
  TransferTaskId nextReserved_ GUARDED_BY(mutex_) = 0;
  TransferTaskId reservedEnd_ GUARDED_BY(mutex_) = 0;
  TransferTaskId reservedAhead_ GUARDED_BY(mutex_) = 0;
  uint64_t reserving_ GUARDED_BY(mutex_) = 0;
};

}  // namespace platform::service
