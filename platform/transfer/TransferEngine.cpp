#include "platform/transfer/TransferEngine.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "platform/Log.h"
#include "platform/transfer/CurlLoop.h"
#include "platform/transfer/HttpExchange.h"
#include "platform/transfer/ThreadSetup.h"
#include "platform/transfer/TransferScheduler.h"

namespace platform {
namespace {

constexpr int kLockWaitMs = 3'000;
// Changes that need not be stored at once are stored together, so late at most.
constexpr int64_t kCommitDelayMs = 10;
// After a round that threw the next one waits, each time longer.
constexpr int kFailurePauseMs = 10;
constexpr int kMaximumFailurePauses = 50;

std::unique_ptr<TransferStore> openStore(const TransferLocation& location,
                                         const std::optional<TransferOptions>& options) {
  auto store = std::make_unique<TransferStore>(location.storeDirectory, location.partialDirectory,
                                               location.identifier, kLockWaitMs);
  if (options && !store->saveSession(*options))
    logError("Session store: the settings could not be stored");
  return store;
}

}  // namespace

TransferBackend::~TransferBackend() = default;

TransferEngine::TransferEngine(const TransferLocation& location,
                               const std::optional<TransferOptions>& options, bool ephemeral,
                               TransferClock& clock)
    : clock_(clock),
      ledger_(openStore(location, options), ephemeral),
      options_(options ? *options : ledger_.session().options),
      loop_(std::make_unique<CurlLoop>(CurlLoop::Options{options_.transfers, options_.caFile},
                                       &HttpExchange::done)),
      shift_([this] { loop_->wake(); }),
      scheduler_(std::make_unique<TransferScheduler>(ledger_, *loop_, clock, options_)),
      monitor_(NetworkMonitor::defaultMonitor()) {
  ledger_.setNow([&clock] { return clock.nowMs(); });
}

TransferEngine::~TransferEngine() {
  close();
}

std::vector<TransferTaskInfo> TransferEngine::tasks() {
  return ledger_.tasks();
}

size_t TransferEngine::start(Sink sink) {
  {
    MutexLock lock(mutex_);
    if (started_ || closed_) return 0;
    started_ = true;
    sink_ = std::make_shared<const Sink>(std::move(sink));
    touched_ = ledger_.unfinished();
  }
  auto held = ledger_.heldEvents();
  const size_t count = held.size();
  tell(std::move(held));
  watcher_ = monitor_.addWatcher([this] {
    networkChanged_.store(true);
    loop_->wake();
  });
  clock_.setMoved([this] { loop_->wake(); });
  startHost();
  return count;
}

// As long as there is no thread to be had the front's alone does the work, and every call tries
// again.
void TransferEngine::startHost() {
  MutexLock lock(mutex_);
  if (!started_ || closed_ || thread_.joinable()) return;
  try {
    thread_ = startThread("qn-transfer", [this] { run(); });
    hostRuns_.store(true);
  } catch (...) {
    logError("Transfers have no thread of their own: " + describeCurrentException());
  }
}

TransferTaskId TransferEngine::nextIdentifier() {
  return ledger_.nextIdentifier();
}

void TransferEngine::submit(const TransferBatch& batch, Durability durability) {
  submit(batch, durability, nullptr);
}

void TransferEngine::submitMarked(const TransferBatch& batch, Durability durability,
                                  const TransferMark& mark) {
  submit(batch, durability, &mark);
}

void TransferEngine::submit(const TransferBatch& batch, Durability durability,
                            const TransferMark* mark) {
  std::vector<TransferTaskId> touched;
  std::vector<TransferEvent> events;
  ledger_.submit(batch, touched, events, mark);
  if (durability == Durability::Now) ledger_.commit(events);
  tell(std::move(events));
  post(touched);
  if (!hostRuns_.load()) startHost();
}

void TransferEngine::post(std::vector<TransferTaskId>& touched) {
  {
    MutexLock lock(mutex_);
    touched_.insert(touched_.end(), touched.begin(), touched.end());
  }
  loop_->wake();
}

int64_t TransferEngine::millisecondsUntil(int64_t timeMs) const {
  return std::max<int64_t>(0, timeMs - clock_.nowMs());
}

void TransferEngine::post(std::function<void(CurlLoop&)> block) {
  {
    MutexLock lock(mutex_);
    blocks_.push_back(std::move(block));
  }
  loop_->wake();
}

void TransferEngine::tellWaitsAgain() {
  tellsWaitsAgain_.store(true);
  loop_->wake();
}

void TransferEngine::tell(std::vector<TransferEvent>&& events) {
  const uint64_t mark = ledger_.storedMark().number;
  std::shared_ptr<const Sink> sink;
  {
    MutexLock lock(mutex_);
    if (events.empty() && toldMark_ == mark) return;
    toldMark_ = mark;
    sink = sink_;
  }
  // Before there is one, the events stay in the ledger.
  if (sink) (*sink)(std::move(events));
}

void TransferEngine::close() {
  {
    MutexLock lock(mutex_);
    if (std::exchange(closed_, true)) return;
    if (!started_) return;
  }
  monitor_.removeWatcher(watcher_);
  clock_.setMoved(nullptr);
  stop_.store(true);
  shift_.close();
  loop_->wake();
  if (thread_.joinable()) {
    thread_.join();
  } else {
    finish();
  }
}

// The engine's own thread.
void TransferEngine::run() {
  while (shift_.hostWaits()) {
    MutexLock turn(turn_);
    while (!stop_.load() && !shift_.guestIsHere())
      static_cast<void>(runRound());
  }
  finish();
}

void TransferEngine::finish() {
  MutexLock turn(turn_);
  try {
    scheduler_->stop();
    std::vector<TransferEvent> untold;
    ledger_.commit(untold);
  } catch (...) {
    logError("Transfers were not put down in order: " + describeCurrentException());
  }
}

bool TransferEngine::work() {
  if (!shift_.guestComes()) return false;
  const LoopShift::Visit visit(shift_);
  MutexLock turn(turn_);
  bool told = false;
  while (!told && !stop_.load() && !workEnds_.load())
    told = runRound();
  workEnds_.store(false);
  return true;
}

void TransferEngine::endWork() {
  if (!workEnds_.exchange(true)) loop_->wake();
}

// True when something was told. Nothing that is thrown leaves it: without the host or the guest no
// transfer would ever move again.
bool TransferEngine::runRound() {
  try {
    if (failedRounds_ > 0) _startOver();
    const bool told = _round();
    failedRounds_ = 0;
    return told;
  } catch (...) {
    const std::string why = describeCurrentException();
    if (std::exchange(lastFailure_, why) != why) logError("Transfers: " + why);
  }
  failedRounds_ = std::min(failedRounds_ + 1, kMaximumFailurePauses);
  std::this_thread::sleep_for(std::chrono::milliseconds(failedRounds_ * kFailurePauseMs));
  return false;
}

// Nobody knows how far the round came that threw: all begins again from what the ledger knows, and
// what it knows to be over is told again, which a front takes once.
void TransferEngine::_startOver() {
  scheduler_->startOver();
  auto touched = ledger_.unfinished();
  post(touched);
  auto ended = ledger_.heldEvents();
  for (auto& event : ended)
    event.held = false;
  tell(std::move(ended));
}

bool TransferEngine::_round() {
  std::vector<TransferTaskId> touched;
  std::vector<std::function<void(CurlLoop&)>> blocks;
  {
    MutexLock lock(mutex_);
    touched.swap(touched_);
    blocks.swap(blocks_);
  }
  for (const auto& block : blocks) {
    try {
      block(*loop_);
    } catch (...) {
      logError("Transfers: " + describeCurrentException());
    }
  }
  if (networkChanged_.exchange(false)) scheduler_->setNetwork(monitor_.status());
  for (const TransferTaskId id : touched)
    scheduler_->taskChanged(id);
  if (tellsWaitsAgain_.exchange(false)) scheduler_->tellWaitsAgain();
  scheduler_->endRound();
  auto events = scheduler_->takeEvents();
  const int64_t since = ledger_.uncommittedSinceMs();
  int64_t deadline = scheduler_->nextDeadlineMs();
  if (since != kNeverMs) {
    if (clock_.nowMs() >= since + kCommitDelayMs) {
      ledger_.commit(events);
    } else {
      deadline = std::min(deadline, since + kCommitDelayMs);
    }
  }
  const bool tells = !events.empty();
  tell(std::move(events));
  if (tells) return true;
  loop_->run(clock_.millisecondsUntil(deadline));
  return false;
}

}  // namespace platform
