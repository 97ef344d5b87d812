#include "platform/transfer/TransferScheduler.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "platform/Log.h"
#include "platform/transfer/CurlLoop.h"
#include "platform/transfer/DiscretionaryGate.h"

namespace platform {
namespace {

constexpr int64_t kReportIntervalMs = 100;
// A suspended transfer keeps its connection for so long.
constexpr int64_t kGraceMs = 5'000;
// What is known of a response is stored with its first bytes; until then a kill drops them, because
// nobody would know what they are of. A file that is no larger than this has so long to be whole
// first, and needs no storing then.
constexpr int64_t kSmallFile = 64 << 10;
constexpr int64_t kSmallFileMs = 10;
// So many queued tasks of a host have jobs.
constexpr size_t kQueuedJobs = 256;
constexpr int kFlushWaitMs = 2'000;

std::string hostNameOf(const TransferLedger::Unfinished& task) {
  const URLPtr& url = task.request->url();
  return url ? url->origin() : "";
}

}  // namespace

TransferScheduler::TransferScheduler(TransferLedger& ledger, CurlLoop& loop, TransferClock& clock,
                                     const TransferOptions& options)
    : ledger_(ledger),
      loop_(loop),
      clock_(clock),
      options_(options),
      limiter_(options.bytesPerSecond),
      flusher_([&loop] { loop.wake(); }),
      random_(std::random_device{}()) {
  if (options.discretionary) DiscretionaryGate::shared().addSession(this, [&loop] { loop.wake(); });
}

TransferScheduler::~TransferScheduler() {
  auto& gate = DiscretionaryGate::shared();
  options_.discretionary ? gate.removeSession(this) : gate.setWaits(this, false);
}

// Runs a step of one task's. What is thrown there is a failure of that task and of no other.
template <class Step>
void TransferScheduler::guarded(TransferTaskId id, const Step& step) {
  try {
    step();
  } catch (...) {
    thrown_.emplace_back(id, describeCurrentException());
  }
}

// --- Jobs ---------------------------------------------------------------------------------------

TransferScheduler::Job* TransferScheduler::find(TransferTaskId id) {
  const auto found = jobs_.find(id);
  return found == jobs_.end() ? nullptr : found->second.get();
}

void TransferScheduler::taskChanged(TransferTaskId id) {
  auto task = ledger_.unfinishedTask(id);
  Job* const job = find(id);
  if (!task || !task->running) leaveBacklog(id);
  if (!task) {
    if (!job) return;
    stopDownload(*job);
    if (job->content.file.generation > 0) ledger_.files().remove(job->content.file);
    return removeJob(*job);
  }
  if (!task->running) {
    if (job) suspend(*job);
    return;
  }
  if (!job) {
    std::string hostName = hostNameOf(*task);
    if (!enterBacklog(id, hostName)) begin(id, std::move(hostName), *std::move(task));
  } else if (job->state == State::Graced) {
    job->state = State::Active;
    ++active_;
    ++job->host->active;
    job->activeAtMs = now();
    nextTimeoutMs_ = std::min(nextTimeoutMs_, now());
    setTrying(*job, true);
    tellWait(*job, URLSessionTaskWait::None);
    job->throttled = false;
    job->download->unpause();
  }
}

void TransferScheduler::begin(TransferTaskId id, std::string hostName,
                              TransferLedger::Unfinished&& task) {
  Job& added = addJob(id, std::move(hostName), std::move(task));
  const int64_t retryAt = added.effort.retryAtBootMs;
  const int64_t wait = retryAt == 0 ? 0 : retryAt - clock_.bootMs();
  if (wait <= 0) return enqueue(added);
  added.state = State::Retrying;
  added.untilMs = now() + wait;
  setTrying(added, true);
  wakeLater(added.untilMs);
  tellWait(added, URLSessionTaskWait::Retry, added.untilMs);
}

// False when the host's queue is short enough for one more.
bool TransferScheduler::enterBacklog(TransferTaskId id, const std::string& hostName) {
  const auto found = hosts_.find(hostName);
  if (found == hosts_.end() || found->second->queue.size() < kQueuedJobs) return false;
  Host& host = *found->second;
  if (host.backlog.insert(id).second) host.newInBacklog.push_back(id);
  return true;
}

void TransferScheduler::leaveBacklog(TransferTaskId id) {
  for (const auto& [name, host] : hosts_)
    host->backlog.erase(id);
}

void TransferScheduler::refill(Host& host) {
  while (host.queue.size() < kQueuedJobs / 2 && !host.backlog.empty()) {
    const TransferTaskId id = *host.backlog.begin();
    host.backlog.erase(host.backlog.begin());
    auto task = ledger_.unfinishedTask(id);
    if (!task || !task->running || find(id)) continue;
    begin(id, hostNameOf(*task), *std::move(task));
    find(id)->toldWait = host.toldBacklog;
  }
}

TransferScheduler::Job& TransferScheduler::addJob(TransferTaskId id, std::string hostName,
                                                  TransferLedger::Unfinished&& task) {
  auto job = std::make_unique<Job>();
  job->id = id;
  job->request = std::move(task.request);
  job->content = std::move(task.content);
  job->effort = task.effort;
  job->clock = StallClock(task.effort.stalledMs);
  job->hostName = std::move(hostName);
  auto& host = hosts_[job->hostName];
  if (!host) host = std::make_unique<Host>();
  job->host = host.get();
  ++host->jobs;
  Job& added = *job;
  jobs_[id] = std::move(job);
  return added;
}

// The caller has ended the download, or is called by its end.
void TransferScheduler::removeJob(Job& job) {
  leaveQueue(job);
  leaveActive(job);
  setTrying(job, false);
  Host& host = *job.host;
  // A host in trouble stays known for as long as that matters.
  if (--host.jobs == 0 && host.health.failures() == 0 && host.backlog.empty())
    hosts_.erase(job.hostName);
  const TransferTaskId id = job.id;
  jobs_.erase(id);
}

void TransferScheduler::suspend(Job& job) {
  if (job.state == State::Graced) return;
  tellWait(job, URLSessionTaskWait::Suspended);
  if (job.state == State::Active && job.download) {
    job.download->pause();
    leaveActive(job);
    setTrying(job, false);
    job.state = State::Graced;
    job.untilMs = now() + kGraceMs;
    return wakeLater(job.untilMs);
  }
  park(job);
}

// What the ledger knows is enough to go on from.
void TransferScheduler::park(Job& job) {
  stopDownload(job);
  considerFlush(job, kFlushMinimum);
  job.effort.stalledMs = job.clock.elapsed(now());
  job.effort.wait = URLSessionTaskWait::Suspended;
  static_cast<void>(ledger_.setContent(job.id, job.content, job.effort));
  removeJob(job);
}

void TransferScheduler::setTrying(Job& job, bool trying) {
  if (job.trying == trying) return;
  job.trying = trying;
  if (trying) {
    job.clock.start(now());
    job.host->health.taskStarted(now());
  } else {
    job.clock.stop(now());
    job.host->health.taskStopped(now());
  }
}

// Ends the attempt without a word, keeping what is there.
void TransferScheduler::stopDownload(Job& job) {
  if (!job.download) return;
  job.content = job.download->content();
  job.download.reset();
  std::erase(ended_, job.id);
  std::erase(touched_, job.id);
}

// --- Queue --------------------------------------------------------------------------------------

void TransferScheduler::enqueue(Job& job, bool first) {
  job.state = State::Queued;
  if (first) {
    job.host->queue.push_front(job.id);
  } else {
    job.host->queue.push_back(job.id);
  }
  newlyQueued_.push_back(job.id);
}

void TransferScheduler::leaveQueue(Job& job) {
  if (job.state == State::Queued) std::erase(job.host->queue, job.id);
}

void TransferScheduler::leaveActive(Job& job) {
  if (job.state != State::Active) return;
  job.state = State::Queued;  // until the caller says what it is
  --active_;
  --job.host->active;
}

URLSessionTaskWait TransferScheduler::networkWait() const {
  if (!network_.reachable) return URLSessionTaskWait::Network;
  const bool refused = !options_.allowsCellularAccess || options_.discretionary;
  return network_.metered && refused ? URLSessionTaskWait::Metered : URLSessionTaskWait::None;
}

void TransferScheduler::setNetwork(const NetworkStatus& status) {
  if (status == network_) return;
  network_ = status;
  tellAllQueued_ = true;
  if (networkWait() != URLSessionTaskWait::Metered) return;
  for (const auto& [id, job] : jobs_) {
    if (job->state != State::Active) continue;
    stopDownload(*job);
    leaveActive(*job);
    setTrying(*job, false);
    enqueue(*job, true);
  }
}

void TransferScheduler::startQueued() {
  if (networkWait() != URLSessionTaskWait::None) return;
  if (options_.discretionary && !DiscretionaryGate::shared().isOpen()) return;
  if (!limiter_.mayRead(now())) {
    nextReleaseMs_ = std::min(nextReleaseMs_, limiter_.nextReadMs(now()));
    return;
  }
  bool started = true;
  while (started && active_ < options_.transfers) {
    started = false;
    for (const auto& [name, host] : hosts_)
      started |= active_ < options_.transfers && startNextOf(*host);
  }
}

bool TransferScheduler::startNextOf(Host& host) {
  refill(host);
  if (host.queue.empty() || host.active >= options_.connectionsPerHost) return false;
  if (host.health.retryAtMs() > now()) {
    wakeLater(host.health.retryAtMs());
    return false;
  }
  Job* const job = find(host.queue.front());
  host.queue.pop_front();
  if (job) guarded(job->id, [&] { startDownload(*job); });
  return true;
}

void TransferScheduler::startDownload(Job& job) {
  job.state = State::Active;
  ++active_;
  ++job.host->active;
  setTrying(job, true);
  tellWait(job, URLSessionTaskWait::None);
  job.connected = false;
  job.responsesSeen = 0;
  job.contentStored = false;
  job.throttled = false;
  job.flushAsked = job.content.synced;
  job.flushAtMs = now();
  job.activeAtMs = now();
  job.furthestBefore = job.effort.furthest;
  job.retryDelayMs = -1;
  nextTimeoutMs_ = std::min(nextTimeoutMs_, now() + options_.connectTimeoutMs);
  job.download = std::make_unique<Download>(job.id, job.request, std::move(job.content),
                                            ledger_.files(), loop_, *this);
  if (limiter_.limits()) job.download->setReadsTold();
  job.download->start();
}

// --- What a download tells ----------------------------------------------------------------------

void TransferScheduler::downloadDidConnect(Download& download) {
  Job* const job = find(download.task());
  if (!job) return;
  job->connected = true;
  job->activeAtMs = now();
  nextTimeoutMs_ = std::min(nextTimeoutMs_, now() + options_.stallTimeoutMs);
}

void TransferScheduler::downloadDidReceive(Download& download) {
  touched_.push_back(download.task());
}

bool TransferScheduler::downloadShouldRetryStatus(Download& download, const HTTPHeaders& headers) {
  Job* const job = find(download.task());
  if (!job) return false;
  const auto asked = retryAfterSeconds(headers, clock_.wallSeconds());
  const auto delay = retryDelay(*job, asked);
  job->retryDelayMs = delay.value_or(-1);
  job->holdHost = asked && download.status() == 429;
  return delay.has_value();
}

void TransferScheduler::downloadDidEnd(Download& download) {
  ended_.push_back(download.task());
}

// --- After a round ------------------------------------------------------------------------------

void TransferScheduler::endRound() {
  takeFlushed();
  takeTouched();
  takeEnded();
  runTimers();
  checkTimeouts();
  releaseThrottled();
  takeEnded();
  startQueued();
  takeEnded();  // what could not even be asked for
  commitEndings();
  report();
  tellQueued();
  tellOthers();
}

// Discretionary sessions of this process start nothing while a task waits here.
void TransferScheduler::tellOthers() {
  if (options_.discretionary) return;
  const bool waits = std::any_of(hosts_.begin(), hosts_.end(), [](const auto& host) {
    return !host.second->queue.empty() || !host.second->backlog.empty();
  });
  if (std::exchange(othersKnowThatTasksWait_, waits) != waits)
    DiscretionaryGate::shared().setWaits(this, waits);
}

void TransferScheduler::takeTouched() {
  for (const TransferTaskId id : touched_) {
    Job* const job = find(id);
    if (job && job->download) guarded(id, [&] { takeTouched(*job); });
  }
  touched_.clear();
}

void TransferScheduler::takeTouched(Job& job) {
  Download& download = *job.download;
  download.takeTouched();
  job.activeAtMs = now();
  noteResponse(job);
  const auto& content = download.content();
  if (content.received > job.effort.furthest) {
    job.effort.furthest = content.received;
    job.effort.attempts = 0;
    job.diskFullSinceMs = -1;
    job.clock.reset(now());
    if (job.host->health.retryAtMs() != 0) tellAllQueued_ = true;
    job.host->health.madeProgress(now());
  }
  const bool soonWhole = content.expected >= 0 && content.expected <= kSmallFile &&
                         now() - job.responseAtMs < kSmallFileMs;
  if (!job.contentStored && content.received > 0 && !soonWhole) {
    job.contentStored = ledger_.setContent(job.id, content, job.effort);
  }
  if (!job.reportDirty) unreported_.push_back(job.id);
  job.reportDirty = true;
  considerFlush(job, kFlushBytes);
}

// A response that was not seen before gets the next number, of all tasks: one that was put down and
// taken up again has another job, and must not begin with a number that was told.
void TransferScheduler::noteResponse(Job& job) {
  if (job.download->responses() == job.responsesSeen) return;
  job.responsesSeen = job.download->responses();
  job.responseNumber = ++lastResponse_;
  job.responseAtMs = now();
  job.base = job.download->content().reportDue ? 0 : job.download->base();
}

void TransferScheduler::takeEnded() {
  std::vector<TransferTaskId> ended;
  ended.swap(ended_);
  for (const TransferTaskId id : ended) {
    Job* const job = find(id);
    if (!job || !job->download) continue;
    guarded(id, [&] {
      if (job->state == State::Graced) {
        park(*job);  // whatever it was: it is looked at again when the task is resumed
      } else {
        takeEnd(*job);
      }
    });
  }
  takeThrown();
}

void TransferScheduler::takeEnd(Job& job) {
  noteResponse(job);
  const std::unique_ptr<Download> download = std::move(job.download);
  job.content = download->content();
  switch (download->end()) {
    case Download::End::Finished:
      job.contentHash = download->contentHash();
      return endWhole(job);
    case Download::End::Part:
      return askOn(job);
    case Download::End::FromZero:
      job.content.received = 0;
      job.content.synced = 0;
      job.content.expected = URLSessionTransferSizeUnknown;
      job.content.validator.clear();
      leaveActive(job);
      setTrying(job, false);
      return enqueue(job, true);
    case Download::End::Disk:
      return takeDiskError(job, download->diskError());
    case Download::End::Status:
      if (job.retryDelayMs >= 0) return retry(job, job.retryDelayMs, job.holdHost);
      return failJob(job, {URLErrorNetworkConnectionLost, false, "the server is unavailable"},
                     download->status());
    case Download::End::Failed:
      break;
  }
  const auto& outcome = download->outcome();
  if (!outcome.retriable) return failJob(job, outcome, 0);
  if (const auto delay = retryDelay(job, std::nullopt)) return retry(job, *delay, false);
  failJob(job, outcome, 0);
}

// At once while that brings bytes.
void TransferScheduler::askOn(Job& job) {
  if (job.content.received > job.furthestBefore) {
    leaveActive(job);
    setTrying(job, false);
    return enqueue(job, true);
  }
  if (const auto delay = retryDelay(job, std::nullopt)) return retry(job, *delay, false);
  failJob(job, {URLErrorBadServerResponse, false, "its parts have no end"}, 0);
}

// How long to wait for the next attempt, at least the back-off; nullopt when there is to be none.
std::optional<int64_t> TransferScheduler::retryDelay(Job& job,
                                                     std::optional<int64_t> askedSeconds) {
  const int64_t stalled = std::max(job.clock.elapsed(now()), job.host->health.stalledMs(now()));
  const int64_t left = options_.retryBoundMs - stalled;
  if (left <= 0) return std::nullopt;
  const int64_t backOff = std::min(left, backOffMs(job.effort.attempts + 1, random()));
  if (!askedSeconds) return backOff;
  if (*askedSeconds > left / 1000) return std::nullopt;
  return std::max(backOff, *askedSeconds * 1000);
}

void TransferScheduler::retry(Job& job, int64_t delayMs, bool holdHost) {
  leaveActive(job);
  ++job.effort.attempts;
  considerFlush(job, kFlushMinimum);
  job.state = State::Retrying;
  job.untilMs = now() + delayMs;
  job.host->health.failed(job.untilMs, holdHost);
  tellAllQueued_ = true;
  wakeLater(job.untilMs);
  tellWait(job, URLSessionTaskWait::Retry, job.untilMs);
  TransferEffort effort = job.effort;
  effort.stalledMs = job.clock.elapsed(now());
  effort.retryAtBootMs = clock_.bootMs() + delayMs;
  effort.wait = URLSessionTaskWait::Retry;
  static_cast<void>(ledger_.setContent(job.id, job.content, effort));
}

void TransferScheduler::failJob(Job& job, const HttpOutcome& outcome, int64_t status) {
  Dictionary info;
  if (status != 0) info[QNURLErrorHTTPStatusKey] = status;
  const URLPtr url = job.request->url();
  const auto error =
      urlError(outcome.code, outcome.detail, url ? url->absoluteString() : "", std::move(info));
  endJob(job, error, job.content.received > 0 && !job.content.validator.empty());
}

void TransferScheduler::endJob(Job& job, const ErrorPtr& error, bool resumable,
                               std::optional<uint64_t> contentHash) {
  endings_.push_back({job.id, job.content, error, resumable, contentHash});
  endedResponses_[job.id] = {job.responseNumber, job.base};
  removeJob(job);
}

void TransferScheduler::commitEndings() {
  if (endings_.empty()) return;
  for (auto& event : ledger_.end(endings_)) {
    std::tie(event.responseNumber, event.base) = endedResponses_[event.task];
    events_.push_back(std::move(event));
  }
  endings_.clear();
  endedResponses_.clear();
}

// --- Time ---------------------------------------------------------------------------------------

int64_t TransferScheduler::nextDeadlineMs() const {
  int64_t next = std::min(nextTimerMs_, nextTimeoutMs_);
  next = std::min(next, nextReleaseMs_);
  if (!unreported_.empty()) next = std::min(next, nextReportMs_);
  return next;
}

void TransferScheduler::runTimers() {
  if (nextTimerMs_ > now()) return;
  nextTimerMs_ = kNeverMs;
  tellAllQueued_ = true;  // a host may be asked again
  std::vector<TransferTaskId> due;
  for (const auto& [id, job] : jobs_) {
    const auto state = job->state;
    if (state == State::Queued || state == State::Active || state == State::Flushing) continue;
    if (job->untilMs <= now()) {
      due.push_back(id);
    } else {
      wakeLater(job->untilMs);
    }
  }
  for (const TransferTaskId id : due)
    guarded(id, [&] { runTimer(*find(id)); });
}

void TransferScheduler::runTimer(Job& job) {
  switch (job.state) {
    case State::Queued:
    case State::Active:
    case State::Flushing:
      return;
    case State::Graced:
      return park(job);
    case State::Retrying:
      setTrying(job, false);
      return enqueue(job, true);
    case State::DiskFull:
      return checkRoom(job);
  }
}

// Lower bounds are kept instead of a timer for each transfer: bytes only move a deadline away.
void TransferScheduler::checkTimeouts() {
  if (nextTimeoutMs_ > now()) return;
  nextTimeoutMs_ = kNeverMs;
  std::vector<Job*> late;
  for (const auto& [id, job] : jobs_) {
    if (job->state != State::Active || !job->download) continue;
    if (job->throttled) continue;
    const int64_t limit = job->connected ? options_.stallTimeoutMs : options_.connectTimeoutMs;
    if (job->activeAtMs + limit <= now()) {
      late.push_back(job.get());
    } else {
      nextTimeoutMs_ = std::min(nextTimeoutMs_, job->activeAtMs + limit);
    }
  }
  for (Job* const job : late)
    job->download->fail(
        {URLErrorTimedOut, true, job->connected ? "no byte came" : "no connection"});
}

void TransferScheduler::report() {
  if (unreported_.empty() || nextReportMs_ > now()) return;
  nextReportMs_ = now() + kReportIntervalMs;
  for (const TransferTaskId id : unreported_) {
    Job* const job = find(id);
    if (!job || !job->reportDirty) continue;
    job->reportDirty = false;
    if (job->responseNumber == 0) continue;
    if (job->download) job->download->content().reportDue = false;
    if (now() - job->flushAtMs >= kFlushIntervalMs) considerFlush(*job, kFlushMinimum);
    const auto& content = contentOf(*job);
    TransferEvent event;
    event.kind = TransferEvent::Kind::Progress;
    event.task = id;
    event.received = content.received;
    event.expected = content.expected;
    event.responseNumber = job->responseNumber;
    event.base = job->base;
    event.response = content.response;
    events_.push_back(std::move(event));
    if (!job->contentStored) job->contentStored = ledger_.setContent(id, content, job->effort);
  }
  unreported_.clear();
}

void TransferScheduler::tellWait(Job& job, URLSessionTaskWait wait, int64_t untilMs,
                                 const std::string& detail) {
  if (job.toldWait == wait && untilMs == 0) return;
  job.toldWait = wait;
  TransferEvent event;
  event.kind = TransferEvent::Kind::Waiting;
  event.task = job.id;
  event.wait.wait = wait;
  event.wait.detail = detail;
  event.retryAtMs = untilMs;
  events_.push_back(std::move(event));
}

void TransferScheduler::tellQueued() {
  for (const auto& [name, host] : hosts_)
    tellBacklog(*host);
  std::vector<TransferTaskId> ids;
  ids.swap(newlyQueued_);
  if (std::exchange(tellAllQueued_, false)) {
    ids.clear();
    for (const auto& [id, job] : jobs_)
      ids.push_back(id);
  }
  for (const TransferTaskId id : ids) {
    Job* const job = find(id);
    if (!job || job->state != State::Queued) continue;
    const auto network = networkWait();
    const int64_t hostRetry = job->host->health.retryAtMs();
    if (network != URLSessionTaskWait::None) {
      tellWait(*job, network);
    } else if (hostRetry > now()) {
      tellWait(*job, URLSessionTaskWait::Retry, hostRetry);
    } else {
      tellWait(*job, URLSessionTaskWait::Limit);
    }
  }
}

void TransferScheduler::tellWaitsAgain() {
  tellAllQueued_ = true;
  for (const auto& [id, job] : jobs_) {
    const auto told = std::exchange(job->toldWait, URLSessionTaskWait::None);
    if (job->state == State::Retrying) tellWait(*job, URLSessionTaskWait::Retry, job->untilMs);
    if (job->state == State::DiskFull) tellWait(*job, told, 0, ledger_.files().directory());
  }
  for (const auto& [name, host] : hosts_)
    host->toldBacklog = URLSessionTaskWait::None;
}

void TransferScheduler::tellBacklog(Host& host) {
  std::vector<TransferTaskId> ids;
  ids.swap(host.newInBacklog);
  if (host.backlog.empty()) return;
  const auto network = networkWait();
  const auto wait = network != URLSessionTaskWait::None ? network : URLSessionTaskWait::Limit;
  if (std::exchange(host.toldBacklog, wait) != wait)
    ids.assign(host.backlog.begin(), host.backlog.end());
  for (const TransferTaskId id : ids) {
    if (!host.backlog.contains(id)) continue;
    TransferEvent event;
    event.kind = TransferEvent::Kind::Waiting;
    event.task = id;
    event.wait.wait = wait;
    events_.push_back(std::move(event));
  }
}

std::vector<TransferEvent> TransferScheduler::takeEvents() {
  return std::exchange(events_, {});
}

void TransferScheduler::stop() {
  for (const auto& [id, job] : jobs_) {
    stopDownload(*job);
    considerFlush(*job, kFlushMinimum);
    job->effort.stalledMs = job->clock.elapsed(now());
    static_cast<void>(ledger_.setContent(id, job->content, job->effort));
  }
  flusher_.wait(kFlushWaitMs);
  takeFlushed();
  jobs_.clear();
  hosts_.clear();
  tellOthers();
  active_ = 0;
}

}  // namespace platform
