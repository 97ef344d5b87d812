#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "platform/Export.h"

namespace platform {

QN_EXPORT extern const char* const UIApplicationDidEnterBackgroundNotification;
QN_EXPORT extern const char* const UIApplicationWillEnterForegroundNotification;

// Named notifications inside the process. Thread-safe. Observers run on the posting thread, in the
// order in which they were added, with no lock of the centre held.
class QN_EXPORT NotificationCenter {
 public:
  using Observer = uint64_t;

  static NotificationCenter& defaultCenter();

  Observer addObserver(const std::string& name, std::function<void()> block);
  // After it returned the block is not started again (it may still be running on another thread).
  void removeObserver(Observer observer);
  void postNotification(const std::string& name);

  NotificationCenter();
  ~NotificationCenter();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace platform
