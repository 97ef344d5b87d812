#include "platform/transfer/service/ServiceSession.h"

#include <algorithm>
#include <utility>

#include "platform/FileManager.h"

namespace platform::service {

struct ServiceSession::Inbox {
  std::function<void()> wake;
  Mutex mutex;
  std::vector<TransferEvent> events GUARDED_BY(mutex);
};

ServiceSession::ServiceSession(URLSessionConfiguration configuration,
                               std::unique_ptr<TransferBackend> backend, std::function<void()> wake)
    : configuration_(std::move(configuration)),
      backend_(std::move(backend)),
      inbox_(std::make_shared<Inbox>()) {
  inbox_->wake = std::move(wake);
  for (const TransferTaskInfo& task : backend_->tasks()) {
    if (task.stage == TransferStage::None) unfinished_[task.id] = task.running;
  }
}

ServiceSession::~ServiceSession() {
  close();
}

void ServiceSession::close() {
  backend_->close();
}

TransferTaskId ServiceSession::reserve(uint32_t count) {
  const TransferTaskId first = backend_->nextIdentifier();
  for (uint32_t i = 1; i < count; ++i)
    backend_->nextIdentifier();
  return first;
}

void ServiceSession::submit(const TransferBatch& calls) {
  for (const TransferCall& call : calls)
    note(call);
  backend_->submit(calls, TransferBackend::Durability::Now);
}

void ServiceSession::note(const TransferCall& call) {
  switch (call.kind) {
    case TransferCall::Kind::Create:
      unfinished_.try_emplace(call.task, false);
      break;
    case TransferCall::Kind::Resume:
    case TransferCall::Kind::Suspend:
      wantsToRun_ = call.kind == TransferCall::Kind::Resume;
      if (const auto found = unfinished_.find(call.task); found != unfinished_.end())
        found->second = wantsToRun_;
      break;
    case TransferCall::Kind::Cancel:
      unfinished_.erase(call.task);
      break;
    case TransferCall::Kind::Acknowledge:
      unfinished_.erase(call.task);
      endings_.erase(call.task);
      pending_.erase(call.task);
      break;
    case TransferCall::Kind::SetDescription:
      break;
  }
}

void ServiceSession::start() {
  if (std::exchange(started_, true)) return;
  backend_->start([inbox = inbox_](std::vector<TransferEvent>&& events) {
    {
      MutexLock lock(inbox->mutex);
      std::move(events.begin(), events.end(), std::back_inserter(inbox->events));
    }
    inbox->wake();
  });
}

size_t ServiceSession::attach() {
  attached_ = true;
  start();
  collect();
  for (auto& [id, ending] : endings_) {
    ending.held = true;
    put(TransferEvent(ending));
  }
  return endings_.size();
}

void ServiceSession::forgetProgress() {
  collect();
  order_.clear();
  pending_.clear();
}

void ServiceSession::settleDelivered() {
  collect();
  TransferBatch delivered;
  for (const auto& [id, ending] : endings_) {
    if (ending.kind != TransferEvent::Kind::Finished ||
        FileManager::defaultManager().fileExistsAtPath(ending.path))
      continue;
    TransferCall call;
    call.kind = TransferCall::Kind::Acknowledge;
    call.task = id;
    delivered.push_back(call);
  }
  if (!delivered.empty()) submit(delivered);
}

bool ServiceSession::collect() {
  std::vector<TransferEvent> events;
  {
    MutexLock lock(inbox_->mutex);
    events.swap(inbox_->events);
  }
  for (TransferEvent& event : events) {
    const bool ending =
        event.kind == TransferEvent::Kind::Finished || event.kind == TransferEvent::Kind::Failed;
    if (ending) {
      unfinished_.erase(event.task);
      endings_[event.task] = event;
    }
    put(std::move(event));
  }
  return attached_ && !order_.empty();
}

void ServiceSession::put(TransferEvent&& event) {
  auto [found, isNew] = pending_.try_emplace(event.task);
  if (isNew) order_.push_back(event.task);
  auto& events = found->second.events;
  // The latest of a kind says all that the earlier one said.
  std::erase_if(events, [&](const TransferEvent& old) { return old.kind == event.kind; });
  events.push_back(std::move(event));
}

std::vector<TransferEvent> ServiceSession::take(size_t most) {
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

bool ServiceSession::isBusy() const {
  return std::any_of(unfinished_.begin(), unfinished_.end(),
                     [](const auto& task) { return task.second; });
}

bool ServiceSession::isStranded() const {
  return wantsToRun_ && std::any_of(unfinished_.begin(), unfinished_.end(),
                                    [](const auto& t) { return !t.second; });
}

}  // namespace platform::service
