#include "platform/transfer/SessionCore.h"

#include <algorithm>
#include <utility>

#include "platform/Log.h"
#include "platform/transfer/ThreadSetup.h"
#include "platform/transfer/TransferErrors.h"
#include "platform/transfer/TransferTask.h"

namespace platform {
namespace {

// Of a finished task: the next one is made, described, resumed and described again.
constexpr size_t kUsualBatch = 8;

// The application let go of the session, maybe inside the call that just returned; what keeps it is
// the delegate's thread alone. Nobody can come by a reference again.
bool isAbandoned(const std::shared_ptr<URLSession>& session) {
  return session.use_count() == 1;
}

// Runs a call of the application's; what it throws ends here.
template <class Function>
void guarded(const char* name, const Function& function) {
  try {
    function();
  } catch (...) {
    logError(std::string(name) + ": " + describeCurrentException());
  }
}

ErrorPtr withResumeData(const ErrorPtr& error, const DataPtr& data) {
  Dictionary info = error->userInfo();
  info[NSURLSessionDownloadTaskResumeData] = data;
  return Error::errorWithDomain(error->domain(), error->code(), std::move(info));
}

}  // namespace

SessionCore::SessionCore(std::unique_ptr<TransferBackend> backend,
                         std::weak_ptr<URLSessionDelegate> delegate)
    : backend_(std::move(backend)), delegate_(std::move(delegate)) {}

SessionCore::~SessionCore() = default;

void SessionCore::open(std::weak_ptr<URLSession> session) {
  session_ = std::move(session);
  MutexLock lock(mutex_);
  for (const auto& info : backend_->tasks())
    tasks_.emplace(info.id, std::make_shared<TransferTask>(info, weak_from_this()));
}

void SessionCore::start() {
  if (started_.load()) return;
  MutexLock submitLock(submitMutex_);
  {
    MutexLock lock(mutex_);
    if (started_ || stop_) return;
  }
  try {
    if (!std::exchange(opened_, true))
      held_ = backend_->start([weak = weak_from_this()](std::vector<TransferEvent>&& events) {
        if (const auto core = weak.lock()) core->receive(std::move(events));
      });
    // Now nothing is missed: the thread keeps what it needs.
    thread_ = startThread("qn-delegate", [self = shared_from_this()] { self->run(); });
  } catch (...) {
    // The next call tries again; until then what is told waits.
    return logError("A session tells nothing yet: " + describeCurrentException());
  }
  MutexLock lock(mutex_);
  started_ = true;
}

void SessionCore::close() {
  {
    MutexLock lock(mutex_);
    stop_ = true;
    changed_.notify_all();
  }
  backend_->close();
  MutexLock submitLock(submitMutex_);
  if (!thread_.joinable()) return;
  if (thread_.get_id() == std::this_thread::get_id()) {
    thread_.detach();
  } else {
    thread_.join();
  }
}

std::shared_ptr<URLSessionDownloadTask> SessionCore::makeTask(TransferCall create) {
  create.task = backend_->nextIdentifier();
  TransferTaskInfo info;
  info.id = create.task;
  info.request = create.request;
  const auto task = std::make_shared<TransferTask>(info, weak_from_this());
  call(*task, std::move(create));
  return task;
}

void SessionCore::call(TransferTask& task, TransferCall call) {
  const bool own = threadId_.load() == std::this_thread::get_id();
  TransferBatch batch;
  // Inside a callback the batch of it is open, and nothing has to be waited for.
  std::unique_lock<std::mutex> submitLock(submitMutex_.native(), std::defer_lock);
  if (!own) submitLock.lock();
  {
    MutexLock lock(mutex_);
    {
      MutexLock taskLock(task.mutex_);
      if (!task._act(call)) return;
    }
    if (call.kind == TransferCall::Kind::Create) tasks_.emplace(task.id_, task.shared_from_this());
    if (inCallback_ && (own || task.inBatch_)) {
      if (!task.inBatch_) inBatch_.push_back(task.shared_from_this());
      task.inBatch_ = true;
      if (collected_.empty()) collected_.reserve(kUsualBatch);
      collected_.push_back(std::move(call));
      return;
    }
    batch.push_back(std::move(call));
  }
  backend_->submit(batch, TransferBackend::Durability::Now);
}

URLSession::Tasks SessionCore::_tasks() const {
  URLSession::Tasks tasks;
  for (const auto& [id, task] : tasks_)
    tasks.push_back(task);
  return tasks;
}

void SessionCore::getTasks(std::function<void(const URLSession::Tasks&)> completion) {
  URLSession::Tasks tasks;
  {
    MutexLock lock(mutex_);
    if (asked_) {
      Item item;
      item.block = [this, completion = std::move(completion)] {
        URLSession::Tasks now;
        {
          MutexLock innerLock(mutex_);
          now = _tasks();
        }
        if (completion) completion(now);
      };
      return _push(std::move(item));
    }
    asked_ = true;
    tasks = _tasks();
  }
  guarded("Completion of the session's tasks", [&] {
    if (completion) completion(tasks);
  });
  start();
}

void SessionCore::tellEndOfEvents() {
  Item item;
  item.block = [this] {
    if (const auto session = session_.lock(); session && held_ == 0) tellEnds(session);
  };
  MutexLock lock(mutex_);
  ++endsAsked_;
  _push(std::move(item));
}

// --- From the backend ---------------------------------------------------------------------------

void SessionCore::receive(std::vector<TransferEvent>&& events) {
  MutexLock lock(mutex_);
  for (auto& event : events)
    _receive(std::move(event));
}

void SessionCore::_receive(TransferEvent&& event) {
  const auto found = tasks_.find(event.task);
  if (found == tasks_.end()) return;
  const auto task = found->second;
  const bool isEnd =
      event.kind == TransferEvent::Kind::Finished || event.kind == TransferEvent::Kind::Failed;
  {
    MutexLock taskLock(task->mutex_);
    if (event.kind == TransferEvent::Kind::Waiting) {
      task->wait_ = event.wait;
      task->retryAtMs_ = event.retryAtMs;
      return;
    }
    if (event.response) task->response_ = event.response;
    if (event.kind != TransferEvent::Kind::Failed) {
      task->received_ = event.received;
      task->expected_ = event.expected;
      task->hash_ = event.contentHash;
    }
  }
  if (task->ended_) return;
  if (!isEnd) {
    const bool queued = task->progress_.has_value();
    task->progress_ = std::move(event);
    if (queued) return;
    return _push({task, {}, nullptr});
  }
  task->progress_.reset();
  task->ended_ = true;
  _push({task, std::move(event), nullptr});
}

void SessionCore::_push(Item item) {
  queue_.push_back(std::move(item));
  if (queue_.size() > 1) return;
  changed_.notify_one();
  backend_->endWork();
}

// --- The delegate's thread ----------------------------------------------------------------------

void SessionCore::run() {
  threadId_.store(std::this_thread::get_id());
  Item item;
  while (take(item)) {
    // Keeps the session for the time of the calls; it may be the last one to do so, and then the
    // session is closed here.
    const auto session = session_.lock();
    if (!session || isAbandoned(session)) return;
    guarded("Delivery", [&] { deliver(item, session); });
    item = {};
  }
}

// Meanwhile the thread is the backend's, if it has a use for it.
bool SessionCore::take(Item& item) {
  bool lent = true;
  for (;;) {
    {
      MutexLock lock(mutex_);
      std::unique_lock<std::mutex> native(mutex_.native(), std::adopt_lock);
      while (queue_.empty() && !stop_ && !lent)
        changed_.wait(native);
      native.release();
      if (stop_) return false;
      if (!queue_.empty()) {
        item = std::move(queue_.front());
        queue_.pop_front();
        inCallback_ = true;
        return true;
      }
    }
    lent = backend_->work();
  }
}

void SessionCore::deliver(Item& item, const std::shared_ptr<URLSession>& session) {
  if (!item.task) {
    guarded("Completion of the session's tasks", item.block);
    return finishBatch(nullptr);
  }
  const bool isEnd = item.event.task != 0;
  const auto delegate = delegate_.lock();
  bool acknowledged = false;
  if (delegate && isEnd) acknowledged = deliverEnd(*item.task, item.event, session, *delegate);
  if (delegate && !isEnd) deliverProgress(*item.task, session, *delegate);
  finishBatch(acknowledged ? item.task.get() : nullptr);
  if (item.event.held && delegate && !isAbandoned(session)) countHeld(session);
}

void SessionCore::deliverProgress(TransferTask& task, const std::shared_ptr<URLSession>& session,
                                  URLSessionDelegate& delegate) {
  std::optional<TransferEvent> event;
  {
    MutexLock lock(mutex_);
    event.swap(task.progress_);
  }
  if (event) deliverReport(task, *event, session, delegate);
}

// Unless the task was cancelled.
void SessionCore::deliverReport(TransferTask& task, const TransferEvent& event,
                                const std::shared_ptr<URLSession>& session,
                                URLSessionDelegate& delegate) {
  const auto state = task.state();
  if (state != URLSessionTaskState::Running && state != URLSessionTaskState::Suspended) return;
  const bool isNew = !task.reported_ || task.reportedResponse_ != event.responseNumber;
  if (isNew) task.reportedBytes_ = event.base;
  if (!isNew && task.reportedBytes_ == event.received) return;
  task.reported_ = true;
  task.reportedResponse_ = event.responseNumber;
  const int64_t written = event.received - std::exchange(task.reportedBytes_, event.received);
  guarded("URLSessionDownloadTaskDidWriteData", [&] {
    delegate.URLSessionDownloadTaskDidWriteData(session, task.shared_from_this(), written,
                                                event.received, event.expected);
  });
}

// True when the event counts as delivered. Whatever it was, the end of a cancelled task is its
// cancellation.
bool SessionCore::deliverEnd(TransferTask& task, const TransferEvent& event,
                             const std::shared_ptr<URLSession>& session,
                             URLSessionDelegate& delegate) {
  bool finished = event.kind == TransferEvent::Kind::Finished;
  if (finished) deliverReport(task, event, session, delegate);
  if (isAbandoned(session)) return false;  // told in the next launch
  ErrorPtr error = event.error;
  if (!event.resumeToken.empty()) {
    error = withResumeData(error, makeResumeData(task, event.resumeToken));
  }
  {
    MutexLock lock(mutex_);
    MutexLock taskLock(task.mutex_);
    if (task.state_ == URLSessionTaskState::Completed) return false;
    if (std::exchange(task.state_, URLSessionTaskState::Completed) ==
        URLSessionTaskState::Canceling) {
      finished = false;
      const URLPtr url = task.request_->url();
      error = urlError(URLErrorCancelled, "", url ? url->absoluteString() : "");
    }
    task.error_ = error;
    task.wait_ = {};
  }
  const auto pointer = task.shared_from_this();
  if (finished) {
    guarded("URLSessionDownloadTaskDidFinishDownloadingToURL", [&] {
      delegate.URLSessionDownloadTaskDidFinishDownloadingToURL(session, pointer,
                                                               URL::fileURLWithPath(event.path));
    });
    if (isAbandoned(session)) return true;
  }
  guarded("URLSessionTaskDidCompleteWithError",
          [&] { delegate.URLSessionTaskDidCompleteWithError(session, pointer, error); });
  return true;
}

// The delegate call has returned: what was said from inside it, and that it did, go to the backend
// together.
void SessionCore::finishBatch(const TransferTask* acknowledged) {
  TransferBatch batch;
  MutexLock submitLock(submitMutex_);
  {
    MutexLock lock(mutex_);
    inCallback_ = false;
    batch.swap(collected_);
    for (const auto& task : inBatch_)
      task->inBatch_ = false;
    inBatch_.clear();
    if (acknowledged) {
      tasks_.erase(acknowledged->id_);
      TransferCall call;
      call.kind = TransferCall::Kind::Acknowledge;
      call.task = acknowledged->id_;
      batch.push_back(std::move(call));
    }
  }
  if (!batch.empty()) backend_->submit(batch, TransferBackend::Durability::Soon);
}

void SessionCore::countHeld(const std::shared_ptr<URLSession>& session) {
  if (held_ == 0 || --held_ > 0) return;
  {
    MutexLock lock(mutex_);
    endsAsked_ = std::max<size_t>(endsAsked_, 1);
  }
  tellEnds(session);
}

void SessionCore::tellEnds(const std::shared_ptr<URLSession>& session) {
  for (;;) {
    const auto delegate = delegate_.lock();
    if (!delegate || isAbandoned(session)) return;
    {
      MutexLock lock(mutex_);
      if (endsAsked_ == 0) return;
      --endsAsked_;
      inCallback_ = true;
    }
    guarded("URLSessionDidFinishEventsForBackgroundURLSession",
            [&] { delegate->URLSessionDidFinishEventsForBackgroundURLSession(session); });
    finishBatch(nullptr);
  }
}

}  // namespace platform
