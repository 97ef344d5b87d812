#include "platform/Application.h"

#include <map>
#include <utility>

#include "platform/DispatchQueue.h"
#include "platform/Log.h"
#include "platform/Mutex.h"
#include "platform/NotificationCenter.h"

namespace platform {
namespace {

using Watcher = Application::BackgroundTaskWatcher;

void tell(const std::shared_ptr<const Watcher>& watcher, const std::string& name,
          BackgroundTaskChange change) {
  if (!watcher) return;
  try {
    (*watcher)(name, change);
  } catch (...) {
    logError("Watcher of background tasks: " + describeCurrentException());
  }
}

}  // namespace

struct Application::Impl {
  // The task is over; nothing happens when it was before.
  void close(BackgroundTask task, BackgroundTaskChange change);

  mutable Mutex mutex;
  BackgroundTask lastTask GUARDED_BY(mutex) = 0;
  std::map<BackgroundTask, std::string> tasks GUARDED_BY(mutex);
  std::shared_ptr<const Watcher> watcher GUARDED_BY(mutex);
};

void Application::Impl::close(BackgroundTask task, BackgroundTaskChange change) {
  std::string name;
  std::shared_ptr<const Watcher> last;
  {
    MutexLock lock(mutex);
    const auto found = tasks.find(task);
    if (found == tasks.end()) return;
    name = std::move(found->second);
    tasks.erase(found);
    last = watcher;
  }
  tell(last, name, change);
}

Application::Application() : impl_(std::make_shared<Impl>()) {}

Application::~Application() = default;

Application& Application::sharedApplication() {
  static auto* const application = new Application;
  return *application;
}

Application::BackgroundTask Application::beginBackgroundTaskWithName(const std::string& name) {
  BackgroundTask task = 0;
  std::shared_ptr<const Watcher> watcher;
  {
    MutexLock lock(impl_->mutex);
    task = ++impl_->lastTask;
    impl_->tasks.emplace(task, name);
    watcher = impl_->watcher;
  }
  tell(watcher, name, BackgroundTaskChange::Began);
  DispatchQueue::globalBackgroundQueue()->after(
      kBackgroundTaskBound, [weak = std::weak_ptr<Impl>(impl_), task] {
        if (const auto impl = weak.lock()) impl->close(task, BackgroundTaskChange::Expired);
      });
  return task;
}

void Application::endBackgroundTask(BackgroundTask task) {
  impl_->close(task, BackgroundTaskChange::Ended);
}

std::vector<std::string> Application::openBackgroundTasks() const {
  MutexLock lock(impl_->mutex);
  std::vector<std::string> names;
  names.reserve(impl_->tasks.size());
  for (const auto& [task, name] : impl_->tasks)
    names.push_back(name);
  return names;
}

void Application::setBackgroundTaskWatcher(Watcher watcher) {
  auto next = watcher ? std::make_shared<const Watcher>(std::move(watcher)) : nullptr;
  MutexLock lock(impl_->mutex);
  impl_->watcher.swap(next);
}

void Application::enterBackground() {
  NotificationCenter::defaultCenter().postNotification(UIApplicationDidEnterBackgroundNotification);
}

void Application::enterForeground() {
  NotificationCenter::defaultCenter().postNotification(
      UIApplicationWillEnterForegroundNotification);
}

}  // namespace platform
