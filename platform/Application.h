#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/Export.h"

namespace platform {

enum class BackgroundTaskChange {
  Began,
  Ended,
  Expired,  // nobody ended it within Application::kBackgroundTaskBound; it is over
};

// The application object. Where the operating system has no background tasks they do nothing but
// can be watched: a host that may suspend the process asks which are open. Thread-safe.
class QN_EXPORT Application {
 public:
  using BackgroundTask = uint64_t;  // 0 is invalid
  using BackgroundTaskWatcher =
      std::function<void(const std::string& name, BackgroundTaskChange change)>;
  // How long a task may stay open.
  static constexpr std::chrono::seconds kBackgroundTaskBound{30};

  static Application& sharedApplication();

  BackgroundTask beginBackgroundTaskWithName(const std::string& name);
  void endBackgroundTask(BackgroundTask task);  // unknown, ended or expired: nothing
  std::vector<std::string> openBackgroundTasks() const;
  // Called after every change; null removes it. On the thread of the change (the global background
  // queue's for an expiration), with no lock of this object held.
  void setBackgroundTaskWatcher(BackgroundTaskWatcher watcher);

  // For the host: post the matching notification.
  void enterBackground();
  void enterForeground();

  Application();
  ~Application();

 private:
  struct Impl;
  const std::shared_ptr<Impl> impl_;  // expirations hold it weakly
};

}  // namespace platform
