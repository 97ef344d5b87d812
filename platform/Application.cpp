#include "platform/Application.h"

#include <map>
#include <utility>

#include "platform/Log.h"
#include "platform/Mutex.h"
#include "platform/NotificationCenter.h"

namespace platform {
namespace {

using Watcher = std::function<void(const std::string&, bool)>;

void tell(const std::shared_ptr<const Watcher>& watcher, const std::string& name, bool began) {
  if (!watcher) return;
  try {
    (*watcher)(name, began);
  } catch (...) {
    logError("Watcher of background tasks: " + describeCurrentException());
  }
}

}  // namespace

struct Application::Impl {
  mutable Mutex mutex;
  BackgroundTask lastTask GUARDED_BY(mutex) = 0;
  std::map<BackgroundTask, std::string> tasks GUARDED_BY(mutex);
  std::shared_ptr<const Watcher> watcher GUARDED_BY(mutex);
};

Application::Application() : impl_(std::make_unique<Impl>()) {}

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
  tell(watcher, name, true);
  return task;
}

void Application::endBackgroundTask(BackgroundTask task) {
  std::string name;
  std::shared_ptr<const Watcher> watcher;
  {
    MutexLock lock(impl_->mutex);
    const auto found = impl_->tasks.find(task);
    if (found == impl_->tasks.end()) return;
    name = std::move(found->second);
    impl_->tasks.erase(found);
    watcher = impl_->watcher;
  }
  tell(watcher, name, false);
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
