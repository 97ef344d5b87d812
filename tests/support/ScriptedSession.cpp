#include "tests/support/ScriptedSession.h"

#include <fstream>
#include <utility>

#include <unistd.h>

#include "platform/Exception.h"

namespace qntest {

using platform::URLSessionTaskState;

namespace {

platform::ErrorPtr urlError(int64_t code, platform::Dictionary userInfo = {}) {
  return platform::Error::errorWithDomain(platform::NSURLErrorDomain, code, std::move(userInfo));
}

std::string textOf(const platform::Data& data) {
  return {data.begin(), data.end()};
}

bool endsWith(const std::string& text, const std::string& ending) {
  return text.size() >= ending.size() &&
         text.compare(text.size() - ending.size(), ending.size(), ending) == 0;
}

}  // namespace

ScriptedStore::ScriptedStore(std::shared_ptr<KillSwitch> killSwitch)
    : killSwitch_(killSwitch ? std::move(killSwitch) : std::make_shared<KillSwitch>()) {}

std::string ScriptedStore::describe() const {
  std::lock_guard lock(mutex_);
  std::string text;
  for (const auto& [identifier, record] : durable_) {
    text += std::to_string(identifier) + " state " +
            std::to_string(static_cast<int>(record.state)) + " received " +
            std::to_string(record.body.size()) + " " + record.description.value_or("-") + "\n";
  }
  return text;
}

size_t ScriptedStore::size() const {
  std::lock_guard lock(mutex_);
  return durable_.size();
}

// Session

std::shared_ptr<ScriptedSession> ScriptedSession::open(
    std::shared_ptr<ScriptedStore> store, const platform::URLSessionConfiguration& configuration,
    std::weak_ptr<platform::URLSessionDelegate> delegate) {
  {
    Lock lock(store->mutex_);
    std::optional<std::string> refusal = store->refusal_;
    if (store->held_)
      refusal = "Session \"" + configuration.identifier + "\" is held by another process";
    if (refusal) throw platform::Exception("NSURLSessionException", *refusal);
    store->held_ = true;
  }
  std::shared_ptr<ScriptedSession> session(
      new ScriptedSession(std::move(store), configuration, std::move(delegate)));
  session->recover();
  return session;
}

ScriptedSession::ScriptedSession(std::shared_ptr<ScriptedStore> store,
                                 const platform::URLSessionConfiguration& configuration,
                                 std::weak_ptr<platform::URLSessionDelegate> delegate)
    : store_(std::move(store)), configuration_(configuration), delegate_(std::move(delegate)) {}

ScriptedSession::~ScriptedSession() {
  Lock lock(store_->mutex_);
  store_->held_ = false;
}

// What an earlier session of the store left: tasks go on, and what had ended is told again.
void ScriptedSession::recover() {
  Lock lock(store_->mutex_);
  if (configuration_.ephemeral) store_->durable_.clear();
  const auto self = std::static_pointer_cast<ScriptedSession>(shared_from_this());
  bool heldEvents = false;
  for (auto entry = store_->durable_.begin(); entry != store_->durable_.end();) {
    auto& [identifier, record] = *entry;
    const bool movedAway = record.outcome == ScriptedRecord::Outcome::Finished &&
                           access(record.file.c_str(), F_OK) != 0;
    if (movedAway) {
      entry = store_->durable_.erase(entry);  // delivered before the end
      continue;
    }
    auto task = std::make_shared<ScriptedTask>(store_, self, identifier, record);
    tasks_[identifier] = task;
    ++entry;
    if (task->record_.outcome == ScriptedRecord::Outcome::None) continue;
    heldEvents = true;
    if (task->record_.outcome == ScriptedRecord::Outcome::Finished) {
      report(task, static_cast<int64_t>(task->record_.body.size()));
      offerFile(task);
      complete(task, nullptr);
    } else {
      complete(task, task->record_.error);
    }
  }
  if (heldEvents) tellEventsFinished();
  endDue_ = heldEvents;
}

void ScriptedSession::tellEndOfBackgroundEvents() {
  Lock lock(store_->mutex_);
  if (!endDue_.exchange(false)) tellEventsFinished();
}

void ScriptedSession::tellEventsFinished() {
  Lock lock(store_->mutex_);
  const auto self = shared_from_this();
  events_.push_back({0,
                     [this, weak = std::weak_ptr(self)](const auto& delegate) {
                       const auto session = weak.lock();
                       if (!session) return;
                       endDue_ = false;
                       delegate->URLSessionDidFinishEventsForBackgroundURLSession(session);
                     },
                     false});
}

std::shared_ptr<ScriptedTask> ScriptedSession::makeTask(ScriptedRecord record) {
  const uint64_t identifier = store_->nextIdentifier_++;
  ++tasksMade_;
  auto task = std::make_shared<ScriptedTask>(
      store_, std::static_pointer_cast<ScriptedSession>(shared_from_this()), identifier,
      std::move(record));
  tasks_[identifier] = task;
  changed(identifier);
  return task;
}

ScriptedSession::Task ScriptedSession::downloadTaskWithRequest(
    const platform::URLRequestPtr& request) {
  Lock lock(store_->mutex_);
  ScriptedRecord record;
  record.request = std::make_shared<const platform::URLRequest>(*request);
  return makeTask(std::move(record));
}

ScriptedSession::Task ScriptedSession::downloadTaskWithResumeData(
    const platform::DataPtr& resumeData) {
  Lock lock(store_->mutex_);
  ScriptedRecord record;
  const std::string key = resumeData ? textOf(*resumeData) : "";
  const auto entry = store_->resumable_.find(key);
  if (entry == store_->resumable_.end()) {
    record.request = platform::URLRequest::requestWithURL(nullptr);  // fails once it is resumed
    return makeTask(std::move(record));
  }
  record.body = entry->second;
  record.request = store_->resumableRequests_[key];
  return makeTask(std::move(record));
}

void ScriptedSession::getTasksWithCompletionHandler(std::function<void(const Tasks&)> completion) {
  if (store_->beforeTasksAreAsked) std::exchange(store_->beforeTasksAreAsked, nullptr)();
  {
    Lock lock(store_->mutex_);
    if (asked_) {
      const auto self = std::static_pointer_cast<ScriptedSession>(shared_from_this());
      events_.push_back(
          {0,
           [weak = std::weak_ptr(self), completion = std::move(completion)](const auto&) {
             if (const auto session = weak.lock()) completion(session->tasks());
           },
           false});
      return;
    }
    asked_ = true;
  }
  // No event comes before the answer has been taken in.
  completion(tasks());
  Lock lock(store_->mutex_);
  answered_ = true;
}

void ScriptedSession::getAllTasksWithCompletionHandler(
    std::function<void(const Tasks&)> completion) {
  getTasksWithCompletionHandler(std::move(completion));
}

std::shared_ptr<platform::URLSessionDataTask> ScriptedSession::dataTaskWithRequest(
    const platform::URLRequestPtr&, DataCompletion) {
  throw platform::Exception("NSURLSessionException", "A background session fetches no data");
}

ScriptedSession::Tasks ScriptedSession::tasks() const {
  Lock lock(store_->mutex_);
  Tasks tasks;
  for (const auto& [identifier, task] : tasks_)
    tasks.push_back(task);
  return tasks;
}

ScriptedSession::Tasks ScriptedSession::runningTasks() const {
  Lock lock(store_->mutex_);
  Tasks found;
  for (const Task& task : tasks()) {
    if (running(task)) found.push_back(task);
  }
  return found;
}

ScriptedSession::Task ScriptedSession::taskForURL(const std::string& ending) const {
  Lock lock(store_->mutex_);
  for (const auto& [identifier, task] : tasks_) {
    const auto request = task->originalRequest();
    const bool open = task->record_.outcome == ScriptedRecord::Outcome::None;
    if (open && request->url() && endsWith(request->url()->absoluteString(), ending)) return task;
  }
  return nullptr;
}

// The network

std::shared_ptr<ScriptedTask> ScriptedSession::running(const Task& task) const {
  const auto scripted = std::static_pointer_cast<ScriptedTask>(task);
  const bool mine = scripted && tasks_.contains(scripted->identifier_);
  const bool transfers = mine && scripted->record_.state == URLSessionTaskState::Running &&
                         scripted->record_.outcome == ScriptedRecord::Outcome::None;
  return transfers ? scripted : nullptr;
}

bool ScriptedSession::respond(const Task& task, int status, int64_t bodyBytes,
                              const platform::HTTPHeaders& headers) {
  Lock lock(store_->mutex_);
  const auto scripted = running(task);
  if (!scripted) return false;
  ScriptedRecord& record = scripted->record_;
  const bool continues = status == 206 && !record.body.empty();
  if (!continues) record.body.clear();
  const auto before = static_cast<int64_t>(record.body.size());
  record.expected = bodyBytes < 0 ? platform::URLSessionTransferSizeUnknown : before + bodyBytes;
  record.response = std::make_shared<const platform::HTTPURLResponse>(record.request->url(), status,
                                                                      headers, bodyBytes);
  record.reported = false;
  return true;
}

bool ScriptedSession::deliver(const Task& task, const std::string& bytes) {
  Lock lock(store_->mutex_);
  const auto scripted = running(task);
  if (!scripted || !scripted->record_.response) return false;
  scripted->record_.body += bytes;
  report(scripted, static_cast<int64_t>(bytes.size()));
  return true;
}

bool ScriptedSession::finish(const Task& task) {
  Lock lock(store_->mutex_);
  const auto scripted = running(task);
  if (!scripted || !scripted->record_.response) return false;
  ScriptedRecord& record = scripted->record_;
  if (!record.reported) report(scripted, static_cast<int64_t>(record.body.size()));
  record.file = store_->directory_.path(std::to_string(scripted->identifier_) + ".body");
  std::ofstream(record.file, std::ios::binary) << record.body;
  record.outcome = ScriptedRecord::Outcome::Finished;
  changed(scripted->identifier_);
  offerFile(scripted);
  complete(scripted, nullptr);
  return true;
}

bool ScriptedSession::fail(const Task& task, int64_t urlErrorCode, bool withResumeData) {
  Lock lock(store_->mutex_);
  const auto scripted = running(task);
  if (!scripted) return false;
  platform::Dictionary userInfo;
  if (withResumeData) {
    const std::string key = "resume " + std::to_string(store_->nextResumable_++);
    scripted->record_.resumeKey = key;
    store_->resumable_[key] = scripted->record_.body;
    store_->resumableRequests_[key] = scripted->record_.request;
    userInfo[platform::NSURLSessionDownloadTaskResumeData] =
        platform::DataPtr(std::make_shared<const platform::Data>(key.begin(), key.end()));
  }
  return failWithError(task, urlError(urlErrorCode, std::move(userInfo)));
}

bool ScriptedSession::failWithError(const Task& task, platform::ErrorPtr error) {
  Lock lock(store_->mutex_);
  const auto scripted = running(task);
  if (!scripted) return false;
  scripted->record_.outcome = ScriptedRecord::Outcome::Failed;
  scripted->record_.error = error;
  changed(scripted->identifier_);
  complete(scripted, std::move(error));
  return true;
}

bool ScriptedSession::serve(const Task& task, const std::string& body) {
  Lock lock(store_->mutex_);
  if (!running(task)) return false;
  const bool ranged = task->originalRequest()->valueForHTTPHeaderField("Range").has_value();
  const auto received = static_cast<size_t>(task->countOfBytesReceived());
  const bool continues = received != 0 && received <= body.size();
  const std::string rest = continues ? body.substr(received) : body;
  return respond(task, ranged || continues ? 206 : 200, static_cast<int64_t>(rest.size())) &&
         deliver(task, rest) && finish(task);
}

void ScriptedSession::startTransfer(const std::shared_ptr<ScriptedTask>& task) {
  const auto& url = task->record_.request->url();
  if (url && url->isHTTP()) return;
  (void)failWithError(task,
                      urlError(url ? platform::URLErrorUnsupportedURL : platform::URLErrorBadURL));
}

// Events

void ScriptedSession::report(const std::shared_ptr<ScriptedTask>& task, int64_t bytesNow) {
  task->record_.reported = true;
  const auto total = static_cast<int64_t>(task->record_.body.size());
  const int64_t expected = task->record_.expected;
  const auto session = std::weak_ptr(shared_from_this());
  events_.push_back({task->identifier_,
                     [session, task, bytesNow, total, expected](const auto& delegate) {
                       delegate->URLSessionDownloadTaskDidWriteData(session.lock(), task, bytesNow,
                                                                    total, expected);
                     },
                     false});
}

void ScriptedSession::offerFile(const std::shared_ptr<ScriptedTask>& task) {
  const auto session = std::weak_ptr(shared_from_this());
  events_.push_back({task->identifier_,
                     [session, task, file = task->record_.file](const auto& delegate) {
                       delegate->URLSessionDownloadTaskDidFinishDownloadingToURL(
                           session.lock(), task, platform::URL::fileURLWithPath(file));
                       unlink(file.c_str());
                     },
                     true});
}

void ScriptedSession::complete(const std::shared_ptr<ScriptedTask>& task,
                               platform::ErrorPtr error) {
  const auto session = std::weak_ptr(shared_from_this());
  events_.push_back({task->identifier_,
                     [session, task, error = std::move(error)](const auto& delegate) {
                       delegate->URLSessionTaskDidCompleteWithError(session.lock(), task, error);
                     },
                     true, true});
}

size_t ScriptedSession::pendingEvents() const {
  Lock lock(store_->mutex_);
  return events_.size();
}

bool ScriptedSession::hasToldItsTasks() const {
  Lock lock(store_->mutex_);
  return answered_;
}

bool ScriptedSession::deliverEvent() {
  const auto self = shared_from_this();
  {
    Lock lock(store_->mutex_);
    if (deliverer_ == std::this_thread::get_id()) return false;
  }
  std::lock_guard oneAtATime(delivering_);
  Queued next;
  {
    Lock lock(store_->mutex_);
    if (events_.empty()) return false;
    next = std::move(events_.front());
    events_.pop_front();
    deliverer_ = std::this_thread::get_id();
    const auto task = tasks_.find(next.task);
    if (next.ends && task != tasks_.end())
      task->second->record_.state = URLSessionTaskState::Completed;
  }
  if (const auto delegate = delegate_.lock()) next.event(delegate);
  Lock lock(store_->mutex_);
  deliverer_.reset();
  const auto changedInside = std::exchange(changedInside_, {});
  if (next.last) tasks_.erase(next.task);
  commit(changedInside, next.last ? next.task : 0);
  return true;
}

size_t ScriptedSession::deliverEvents() {
  size_t count = 0;
  while (deliverEvent())
    ++count;
  return count;
}

// A change becomes durable before the call returns, or with the event that it was made in.
void ScriptedSession::changed(uint64_t task) {
  if (deliverer_ == std::this_thread::get_id()) {
    changedInside_.insert(task);
  } else {
    commit({task}, 0);
  }
}

void ScriptedSession::commit(const std::set<uint64_t>& tasks, uint64_t finished) {
  if (tasks.empty() && finished == 0) return;
  if (!store_->killSwitch_->step()) return;
  for (const uint64_t identifier : tasks) {
    const auto task = tasks_.find(identifier);
    if (task != tasks_.end()) store_->durable_[identifier] = task->second->record_;
  }
  if (finished == 0) return;
  // A failure was told: whoever wanted to continue from its data has done so.
  const auto record = store_->durable_.find(finished);
  if (record == store_->durable_.end()) return;
  store_->resumable_.erase(record->second.resumeKey);
  store_->durable_.erase(record);
}

// Task

ScriptedTask::ScriptedTask(std::shared_ptr<ScriptedStore> store,
                           std::weak_ptr<ScriptedSession> session, uint64_t identifier,
                           ScriptedRecord record)
    : store_(std::move(store)),
      session_(std::move(session)),
      identifier_(identifier),
      record_(std::move(record)) {}

URLSessionTaskState ScriptedTask::state() const {
  std::lock_guard lock(store_->mutex_);
  return record_.state;
}

std::optional<std::string> ScriptedTask::taskDescription() const {
  std::lock_guard lock(store_->mutex_);
  return record_.description;
}

void ScriptedTask::setTaskDescription(std::optional<std::string> description) {
  std::lock_guard lock(store_->mutex_);
  if (record_.state == URLSessionTaskState::Completed) return;
  record_.description = std::move(description);
  if (const auto session = session_.lock()) session->changed(identifier_);
}

platform::URLRequestPtr ScriptedTask::originalRequest() const {
  std::lock_guard lock(store_->mutex_);
  return record_.request;
}

platform::URLResponsePtr ScriptedTask::response() const {
  std::lock_guard lock(store_->mutex_);
  return record_.response;
}

platform::ErrorPtr ScriptedTask::error() const {
  std::lock_guard lock(store_->mutex_);
  return record_.error;
}

int64_t ScriptedTask::countOfBytesReceived() const {
  std::lock_guard lock(store_->mutex_);
  return static_cast<int64_t>(record_.body.size());
}

int64_t ScriptedTask::countOfBytesExpectedToReceive() const {
  std::lock_guard lock(store_->mutex_);
  return record_.expected;
}

platform::URLSessionTaskWaitReason ScriptedTask::waitReason() const {
  const bool suspended = state() == URLSessionTaskState::Suspended;
  return {suspended ? platform::URLSessionTaskWait::Suspended : platform::URLSessionTaskWait::None,
          0,
          {}};
}

void ScriptedTask::setState(URLSessionTaskState state) {
  record_.state = state;
  if (const auto session = session_.lock()) session->changed(identifier_);
}

void ScriptedTask::resume() {
  std::lock_guard lock(store_->mutex_);
  if (record_.state != URLSessionTaskState::Suspended) return;
  setState(URLSessionTaskState::Running);
  if (const auto session = session_.lock()) session->startTransfer(shared_from_this());
}

void ScriptedTask::suspend() {
  std::lock_guard lock(store_->mutex_);
  if (record_.state == URLSessionTaskState::Running) setState(URLSessionTaskState::Suspended);
}

void ScriptedTask::cancel() {
  std::lock_guard lock(store_->mutex_);
  if (record_.state != URLSessionTaskState::Running &&
      record_.state != URLSessionTaskState::Suspended)
    return;
  const auto session = session_.lock();
  if (!session) return;
  record_.error = urlError(platform::URLErrorCancelled);
  record_.outcome = ScriptedRecord::Outcome::Failed;
  record_.body.clear();
  store_->resumable_.erase(record_.resumeKey);
  setState(URLSessionTaskState::Canceling);
  // What was not told yet, an end too, never will be.
  std::erase_if(session->events_, [this](const auto& event) { return event.task == identifier_; });
  session->complete(shared_from_this(), record_.error);
}

// Installation

ScriptedSessions::ScriptedSessions(std::shared_ptr<KillSwitch> killSwitch) {
  state_->killSwitch = std::move(killSwitch);
  platform::URLSession::setProvider([state = state_](const auto& configuration, auto delegate) {
    auto session =
        ScriptedSession::open(state->store(configuration.identifier), configuration, delegate);
    std::lock_guard lock(state->mutex);
    state->last = session;
    return session;
  });
}

ScriptedSessions::~ScriptedSessions() {
  platform::URLSession::setProvider(nullptr);
}

std::shared_ptr<ScriptedStore> ScriptedSessions::State::store(const std::string& identifier) {
  auto& entry = stores[identifier];
  if (!entry) entry = std::make_shared<ScriptedStore>(killSwitch);
  return entry;
}

std::shared_ptr<ScriptedStore> ScriptedSessions::store(const std::string& identifier) {
  return state_->store(identifier);
}

std::shared_ptr<ScriptedSession> ScriptedSessions::session() const {
  std::lock_guard lock(state_->mutex);
  return state_->last.lock();
}

}  // namespace qntest
