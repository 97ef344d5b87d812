#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include "platform/Mutex.h"
#include "platform/URLSession.h"
#include "platform/transfer/TransferBackend.h"

namespace platform {

class TransferTask;

// What a session and its tasks share: the table of tasks, the delegate queue and its thread, and
// the way to the backend. Held by the session, its thread and, weakly, its tasks. Calls that the
// application makes from inside a delegate call are collected and reach the backend together with
// the acknowledgement of the event; a call that another thread makes meanwhile on a task that has a
// collected call joins them, so that a task's calls keep their order.
class SessionCore : public std::enable_shared_from_this<SessionCore> {
 public:
  SessionCore(std::unique_ptr<TransferBackend> backend, std::weak_ptr<URLSessionDelegate> delegate);
  ~SessionCore();

  // Loads the table. Once, before anything else.
  void open(std::weak_ptr<URLSession> session);
  // From the destructor of the session.
  void close();

  std::shared_ptr<URLSessionDownloadTask> makeTask(TransferCall create);
  void getTasks(std::function<void(const URLSession::Tasks&)> completion);
  void tellEndOfEvents();

  // A call on a task, which changes what the task says at once.
  void call(TransferTask& task, TransferCall call);
  // Transfers and events begin, unless they did.
  void start();
  int64_t millisecondsUntil(int64_t timeMs) const { return backend_->millisecondsUntil(timeMs); }

 private:
  struct Item {
    std::shared_ptr<TransferTask> task;
    TransferEvent event;          // for a task
    std::function<void()> block;  // else
  };

  void receive(std::vector<TransferEvent>&& events);
  void _receive(TransferEvent&& event) REQUIRES(mutex_);
  void _push(Item item) REQUIRES(mutex_);
  URLSession::Tasks _tasks() const REQUIRES(mutex_);

  void run();
  bool take(Item& item);
  void deliver(Item& item, const std::shared_ptr<URLSession>& session);
  void deliverProgress(TransferTask& task, const std::shared_ptr<URLSession>& session,
                       URLSessionDelegate& delegate);
  void deliverReport(TransferTask& task, const TransferEvent& event,
                     const std::shared_ptr<URLSession>& session, URLSessionDelegate& delegate);
  bool deliverEnd(TransferTask& task, const TransferEvent& event,
                  const std::shared_ptr<URLSession>& session, URLSessionDelegate& delegate);
  void finishBatch(const TransferTask* acknowledged);
  void countHeld(const std::shared_ptr<URLSession>& session);
  void tellEnds(const std::shared_ptr<URLSession>& session);

  const std::unique_ptr<TransferBackend> backend_;
  const std::weak_ptr<URLSessionDelegate> delegate_;
  std::weak_ptr<URLSession> session_;

  // Keeps what is submitted in the order in which it was said; taken before mutex_.
  Mutex submitMutex_;
  Mutex mutex_;  // taken before a task's
  std::condition_variable changed_;
  std::map<TransferTaskId, std::shared_ptr<TransferTask>> tasks_ GUARDED_BY(mutex_);
  std::deque<Item> queue_ GUARDED_BY(mutex_);
  bool stop_ GUARDED_BY(mutex_) = false;
  bool asked_ GUARDED_BY(mutex_) = false;
  std::atomic<bool> started_{false};  // written under mutex_, when the thread is there
  bool opened_ = false;               // what is told comes here; under submitMutex_
  bool inCallback_ GUARDED_BY(mutex_) = false;
  TransferBatch collected_ GUARDED_BY(mutex_);
  std::vector<std::shared_ptr<TransferTask>> inBatch_ GUARDED_BY(mutex_);
  std::thread thread_;
  std::atomic<std::thread::id> threadId_{};
  size_t endsAsked_ GUARDED_BY(mutex_) = 0;
  size_t held_ = 0;  // of the thread, after start
};

}  // namespace platform
