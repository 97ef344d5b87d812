#include "platform/transfer/service/ServiceSession.h"

#include <algorithm>
#include <utility>

#include "platform/FileManager.h"
#include "platform/Mutex.h"
#include "platform/transfer/service/ServiceLine.h"

namespace platform::service {
namespace {

constexpr uint32_t kMostReserved = 65'536;

bool isEnding(const TransferEvent& event) {
  return event.kind == TransferEvent::Kind::Finished || event.kind == TransferEvent::Kind::Failed;
}

}  // namespace

struct ServiceSession::Inbox {
  std::function<void()> wake;
  Mutex mutex;
  std::vector<TransferEvent> events GUARDED_BY(mutex);
  Returned returned GUARDED_BY(mutex);
};

ServiceSession::ServiceSession(const SessionRegistry& registry, SessionRecord record,
                               std::unique_ptr<TransferEngine> engine, std::function<void()> wake)
    : registry_(registry),
      inbox_(std::make_shared<Inbox>()),
      record_(std::move(record)),
      options_(engine->options()),
      engine_(std::move(engine)) {
  inbox_->wake = std::move(wake);
  engine_->serveFront();
  for (const TransferTaskInfo& task : engine_->tasks()) {
    if (task.stage == TransferStage::None) setUnfinished(task.id, task.running);
  }
}

ServiceSession::~ServiceSession() {
  close();
}

void ServiceSession::close() {
  engine_->close();
}

bool ServiceSession::adopt(const TransferOptions& options) {
  TransferOptions wanted = options;
  wanted.launchCommand = options_.launchCommand;
  if (wanted != options_) return false;
  if (options != options_) static_cast<void>(engine_->saveOptions(options));
  options_ = options;
  return true;
}

void ServiceSession::forgetLaunchCommand() {
  TransferOptions without = options_;
  without.launchCommand.reset();
  static_cast<void>(adopt(without));
}

// --- What a client says -------------------------------------------------------------------------

// After this service, or the one before it, lost a client it repeats what was not answered. Each
// batch takes effect once: its number is stored in its own transaction. The other messages may come
// twice: numbers that were reserved in vain are never used, who starts again is told again what he
// has not acknowledged, and knows what he was told; and a second goodbye finds nothing to do.
void ServiceSession::open(uint64_t front) {
  const TransferMark mark = engine_->storedMark();
  if (front_ != front) applied_ = mark.front == front ? mark.number : 0;
  front_ = front;
}

void ServiceSession::settleDelivered() {
  collect();
  TransferBatch delivered;
  for (const TransferEvent& ending : engine_->heldEvents()) {
    if (ending.kind != TransferEvent::Kind::Finished ||
        FileManager::defaultManager().fileExistsAtPath(ending.path))
      continue;
    TransferCall call;
    call.kind = TransferCall::Kind::Acknowledge;
    call.task = ending.task;
    note(call);
    delivered.push_back(std::move(call));
  }
  if (!delivered.empty()) engine_->submit(delivered, TransferBackend::Durability::Now);
}

bool ServiceSession::take(ServiceConnection& connection, Message& message) {
  if (auto* batch = std::get_if<BatchMessage>(&message)) {
    connection.lastNumber = batch->number;
    if (batch->number <= applied_) return true;
    auto& calls = connection.calls;
    calls.insert(calls.end(), std::make_move_iterator(batch->calls.begin()),
                 std::make_move_iterator(batch->calls.end()));
    connection.callsAreWhole = !batch->more;
    connection.callsAreUrgent = connection.callsAreUrgent || batch->now;
    return true;
  }
  const auto* reserve = std::get_if<ReserveMessage>(&message);
  if (!reserve || reserve->count > kMostReserved) return false;
  connection.lastNumber = reserve->number;
  const TransferTaskId first = engine_->nextIdentifier();
  for (uint32_t i = 1; i < reserve->count; ++i)
    engine_->nextIdentifier();
  connection.answer(ReservedMessage{reserve->number, first});
  return true;
}

void ServiceSession::submit(ServiceConnection& connection) {
  if (!connection.callsAreWhole) return;
  const TransferBatch calls = std::exchange(connection.calls, {});
  const bool urgent = std::exchange(connection.callsAreUrgent, false);
  if (!calls.empty()) {
    applied_ = connection.lastNumber;
    for (const TransferCall& call : calls)
      note(call);
    using Durability = TransferBackend::Durability;
    const bool now = urgent || !started_;
    engine_->submitMarked(calls, now ? Durability::Now : Durability::Soon, {front_, applied_});
    save();
  }
  acknowledge(connection);
}

void ServiceSession::acknowledge(ServiceConnection& connection) const {
  const TransferMark mark = engine_->storedMark();
  const uint64_t number = std::min(mark.number, connection.lastNumber);
  if (mark.front != front_ || number <= connection.acknowledged) return;
  connection.acknowledged = number;
  connection.answer(DoneMessage{number});
}

bool ServiceSession::commit() {
  engine_->submit({}, TransferBackend::Durability::Now);
  const TransferMark mark = engine_->storedMark();
  return applied_ == 0 || (mark.front == front_ && mark.number >= applied_);
}

void ServiceSession::note(const TransferCall& call) {
  switch (call.kind) {
    case TransferCall::Kind::Create:
      if (!unfinished_.contains(call.task)) setUnfinished(call.task, false);
      break;
    case TransferCall::Kind::Resume:
    case TransferCall::Kind::Suspend:
      record_.wantsToRun = call.kind == TransferCall::Kind::Resume;
      if (unfinished_.contains(call.task)) setUnfinished(call.task, record_.wantsToRun);
      break;
    case TransferCall::Kind::Cancel:
      forget(call.task);
      break;
    case TransferCall::Kind::Acknowledge:
      forget(call.task);
      endings_.erase(call.task);
      pending_.erase(call.task);
      record_.launches = 0;
      break;
    case TransferCall::Kind::SetDescription:
      break;
  }
}

void ServiceSession::setUnfinished(TransferTaskId task, bool running) {
  const auto [found, isNew] = unfinished_.try_emplace(task, running);
  if (!isNew && found->second) --running_;
  found->second = running;
  if (running) ++running_;
}

void ServiceSession::forget(TransferTaskId task) {
  const auto found = unfinished_.find(task);
  if (found == unfinished_.end()) return;
  if (found->second) --running_;
  unfinished_.erase(found);
}

void ServiceSession::save() {
  if (saved_ == record_) return;
  registry_.save(record_);
  saved_ = record_;
}

// --- Attaching ----------------------------------------------------------------------------------

void ServiceSession::start() {
  if (std::exchange(started_, true)) return;
  engine_->start([this](std::vector<TransferEvent>&& events) { hear(std::move(events)); });
}

size_t ServiceSession::attach() {
  collect();
  attached_ = true;
  order_.clear();
  pending_.clear();
  start();
  auto held = engine_->heldEvents();
  const size_t count = held.size();
  for (TransferEvent& ending : held)
    put(std::move(ending));
  return count;
}

void ServiceSession::detach() {
  collect();
  attached_ = false;
  order_.clear();
  pending_.clear();
}

void ServiceSession::talk(std::unique_ptr<ServiceConnection> connection) {
  auto line = std::make_shared<ServiceLine>(std::move(connection), *this);
  engine_->tellWaitsAgain();
  engine_->post([this, line](CurlLoop& loop) {
    isTalking_.store(true);
    collect();
    line_ = line;
    line_->begin(loop);
  });
}

// On the engine's thread.
void ServiceSession::giveBack(Returned returned) {
  isTalking_.store(false);
  {
    MutexLock lock(inbox_->mutex);
    inbox_->returned = std::move(returned);
  }
  inbox_->wake();
}

ServiceSession::Returned ServiceSession::takeReturned() {
  MutexLock lock(inbox_->mutex);
  return std::exchange(inbox_->returned, {});
}

// --- What the engine tells ----------------------------------------------------------------------

// On the engine's thread, or on the service's while it submits.
void ServiceSession::hear(std::vector<TransferEvent>&& events) {
  if (isTalking_.load()) {
    takeIn(std::move(events));
    return line_->flush();
  }
  if (events.empty()) return;
  {
    MutexLock lock(inbox_->mutex);
    std::move(events.begin(), events.end(), std::back_inserter(inbox_->events));
  }
  inbox_->wake();
}

void ServiceSession::collect() {
  std::vector<TransferEvent> events;
  {
    MutexLock lock(inbox_->mutex);
    events.swap(inbox_->events);
  }
  takeIn(std::move(events));
}

void ServiceSession::takeIn(std::vector<TransferEvent>&& events) {
  for (TransferEvent& event : events) {
    if (isEnding(event)) {
      forget(event.task);
      endings_.insert(event.task);
    }
    // To whoever comes later the store tells it.
    if (attached_) put(std::move(event));
  }
}

void ServiceSession::put(TransferEvent&& event) {
  if (isEnding(event)) endings_.insert(event.task);
  auto [found, isNew] = pending_.try_emplace(event.task);
  if (isNew) order_.push_back(event.task);
  auto& events = found->second.events;
  // The latest of a kind says all that the earlier one said.
  std::erase_if(events, [&](const TransferEvent& old) { return old.kind == event.kind; });
  events.push_back(std::move(event));
}

std::vector<TransferEvent> ServiceSession::takeEvents(size_t most) {
  std::vector<TransferEvent> events;
  while (!order_.empty() && events.size() < most) {
    const auto found = pending_.find(order_.front());
    order_.pop_front();
    if (found == pending_.end()) continue;  // acknowledged meanwhile
    std::move(found->second.events.begin(), found->second.events.end(), std::back_inserter(events));
    pending_.erase(found);
  }
  return events;
}

}  // namespace platform::service
