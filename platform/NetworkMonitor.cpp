#include "platform/NetworkMonitor.h"

#include <atomic>

#ifdef QN_HAVE_SYSTEMD
#include "platform/NetworkManagerMonitor.h"
#endif

namespace platform {
namespace {

#ifdef QN_HAVE_SYSTEMD
using SystemMonitor = NetworkManagerMonitor;
#else
// No source that knows.
class SystemMonitor final : public NetworkMonitor {
 public:
  NetworkStatus status() const override { return {}; }
  Watcher addWatcher(std::function<void()>) override { return ++lastWatcher_; }
  void removeWatcher(Watcher) override {}

 private:
  std::atomic<Watcher> lastWatcher_{0};
};
#endif

std::atomic<NetworkMonitor*> replacement{nullptr};

// Never destroyed: its thread runs until the process is gone.
NetworkMonitor& systemMonitor() {
  static auto* const monitor = new SystemMonitor;
  return *monitor;
}

}  // namespace

NetworkMonitor::~NetworkMonitor() = default;

NetworkMonitor& NetworkMonitor::defaultMonitor() {
  NetworkMonitor* const replaced = replacement.load();
  return replaced ? *replaced : systemMonitor();
}

void NetworkMonitor::setDefaultMonitor(NetworkMonitor* monitor) {
  replacement.store(monitor);
}

}  // namespace platform
