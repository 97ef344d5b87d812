#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "platform/Export.h"

namespace platform {

struct NetworkStatus {
  bool reachable = true;
  bool metered = false;
  bool operator==(const NetworkStatus&) const = default;
};

// What the default network is like. Without a source that knows: reachable and not metered.
// Thread-safe.
class QN_EXPORT NetworkMonitor {
 public:
  using Watcher = uint64_t;

  static NetworkMonitor& defaultMonitor();
  // Tests replace it; null restores it. The caller keeps the replacement alive.
  static void setDefaultMonitor(NetworkMonitor* monitor);

  virtual ~NetworkMonitor();
  virtual NetworkStatus status() const = 0;
  // `changed` is called on a thread of the monitor's after every change.
  virtual Watcher addWatcher(std::function<void()> changed) = 0;
  virtual void removeWatcher(Watcher watcher) = 0;
};

}  // namespace platform
