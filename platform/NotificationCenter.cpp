#include "platform/NotificationCenter.h"

#include <map>
#include <utility>
#include <vector>

#include "platform/Log.h"
#include "platform/Mutex.h"

namespace platform {

const char* const UIApplicationDidEnterBackgroundNotification =
    "UIApplicationDidEnterBackgroundNotification";
const char* const UIApplicationWillEnterForegroundNotification =
    "UIApplicationWillEnterForegroundNotification";

struct NotificationCenter::Impl {
  struct Entry {
    std::string name;
    std::shared_ptr<const std::function<void()>> block;
  };

  Mutex mutex;
  Observer lastObserver GUARDED_BY(mutex) = 0;
  std::map<Observer, Entry> observers GUARDED_BY(mutex);  // ids grow: the order of adding

  std::vector<Observer> observersOf(const std::string& name) {
    MutexLock lock(mutex);
    std::vector<Observer> found;
    for (const auto& [id, entry] : observers) {
      if (entry.name == name) found.push_back(id);
    }
    return found;
  }

  std::shared_ptr<const std::function<void()>> blockOf(Observer observer) {
    MutexLock lock(mutex);
    const auto found = observers.find(observer);
    return found == observers.end() ? nullptr : found->second.block;
  }
};

NotificationCenter::NotificationCenter() : impl_(std::make_unique<Impl>()) {}

NotificationCenter::~NotificationCenter() = default;

NotificationCenter& NotificationCenter::defaultCenter() {
  static auto* const center = new NotificationCenter;
  return *center;
}

NotificationCenter::Observer NotificationCenter::addObserver(const std::string& name,
                                                             std::function<void()> block) {
  auto shared = std::make_shared<const std::function<void()>>(std::move(block));
  MutexLock lock(impl_->mutex);
  const Observer observer = ++impl_->lastObserver;
  impl_->observers.emplace(observer, Impl::Entry{name, std::move(shared)});
  return observer;
}

void NotificationCenter::removeObserver(Observer observer) {
  Impl::Entry removed;  // what the block captured is destroyed without the lock
  MutexLock lock(impl_->mutex);
  const auto found = impl_->observers.find(observer);
  if (found == impl_->observers.end()) return;
  removed = std::move(found->second);
  impl_->observers.erase(found);
}

void NotificationCenter::postNotification(const std::string& name) {
  for (const Observer observer : impl_->observersOf(name)) {
    // Asked again for each: an earlier one may have removed it.
    const auto block = impl_->blockOf(observer);
    if (!block || !*block) continue;
    try {
      (*block)();
    } catch (...) {
      logError("Observer of " + name + ": " + describeCurrentException());
    }
  }
}

}  // namespace platform
