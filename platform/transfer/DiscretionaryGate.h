#pragma once

#include <functional>
#include <map>
#include <set>

#include "platform/Mutex.h"

namespace platform {

// Lets the discretionary sessions of a process start transfers only while no task of its other
// sessions waits for its turn. Thread-safe.
class DiscretionaryGate {
 public:
  static DiscretionaryGate& shared();

  // Of a session that is not discretionary.
  void setWaits(const void* session, bool waits);

  // `opened` is called on any thread, does not block and does not call back.
  void addSession(const void* session, std::function<void()> opened);
  void removeSession(const void* session);
  bool isOpen() const;

 private:
  mutable Mutex mutex_;
  std::set<const void*> waiting_ GUARDED_BY(mutex_);
  std::map<const void*, std::function<void()>> sessions_ GUARDED_BY(mutex_);
};

}  // namespace platform
