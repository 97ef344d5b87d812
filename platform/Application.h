#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/Export.h"

namespace platform {

// The application object. Where the operating system has no background tasks they do nothing but
// can be watched: a host that may suspend the process asks which are open. Thread-safe.
class QN_EXPORT Application {
 public:
  using BackgroundTask = uint64_t;  // 0 is invalid

  static Application& sharedApplication();

  BackgroundTask beginBackgroundTaskWithName(const std::string& name);
  void endBackgroundTask(BackgroundTask task);  // unknown or ended: nothing
  std::vector<std::string> openBackgroundTasks() const;
  // Called after every change with the name and whether it began; null removes it. On the thread of
  // the change, with no lock of this object held.
  void setBackgroundTaskWatcher(std::function<void(const std::string& name, bool began)> watcher);

  // For the host: post the matching notification.
  void enterBackground();
  void enterForeground();

  Application();
  ~Application();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace platform
