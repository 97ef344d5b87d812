#include "platform/transfer/DiscretionaryGate.h"

#include <utility>

namespace platform {

DiscretionaryGate& DiscretionaryGate::shared() {
  static auto* const gate = new DiscretionaryGate;  // outlives every thread
  return *gate;
}

void DiscretionaryGate::setWaits(const void* session, bool waits) {
  MutexLock lock(mutex_);
  if (waits) {
    waiting_.insert(session);
  } else if (waiting_.erase(session) > 0 && waiting_.empty()) {
    for (const auto& [other, opened] : sessions_)
      opened();
  }
}

void DiscretionaryGate::addSession(const void* session, std::function<void()> opened) {
  MutexLock lock(mutex_);
  sessions_[session] = std::move(opened);
}

void DiscretionaryGate::removeSession(const void* session) {
  MutexLock lock(mutex_);
  sessions_.erase(session);
}

bool DiscretionaryGate::isOpen() const {
  MutexLock lock(mutex_);
  return waiting_.empty();
}

}  // namespace platform
