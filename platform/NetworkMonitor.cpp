#include "platform/NetworkMonitor.h"

#include <atomic>

namespace platform {
namespace {

// No source that knows.
class UnknownNetwork final : public NetworkMonitor {
 public:
  NetworkStatus status() const override { return {}; }
  Watcher addWatcher(std::function<void()>) override { return ++lastWatcher_; }
  void removeWatcher(Watcher) override {}

 private:
  std::atomic<Watcher> lastWatcher_{0};
};

std::atomic<NetworkMonitor*> replacement{nullptr};

NetworkMonitor& systemMonitor() {
  static auto* const monitor = new UnknownNetwork;
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
