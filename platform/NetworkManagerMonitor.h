#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "platform/NetworkMonitor.h"

namespace platform {

// The default network as NetworkManager sees it, over the system bus. Without a bus, without
// NetworkManager or with values that it does not know: reachable and not metered. A NetworkManager
// that comes, goes or comes back is followed; a bus that was not there or went is looked for again
// when the next watcher comes, that is when a session is opened.
//
// Not reachable is: asleep, disconnected, connecting, or behind a portal that answers in the place
// of the server. Metered is what NetworkManager knows or guesses to be metered.
//
// The first call of status() or addWatcher() starts a thread, which sleeps in poll(2) until there
// is something to read. That call waits for NetworkManager's first answer, at most two seconds.
class NetworkManagerMonitor final : public NetworkMonitor {
 public:
  NetworkManagerMonitor();
  // Ends the thread, and waits for it unless called from a watcher.
  ~NetworkManagerMonitor() override;

  NetworkStatus status() const override;
  Watcher addWatcher(std::function<void()> changed) override;
  void removeWatcher(Watcher watcher) override;

 private:
  class Core;
  std::shared_ptr<Core> core_;
};

}  // namespace platform
