#if QN_TEST_SYSTEMD  // else there is nothing to test

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "platform/NetworkManagerMonitor.h"
#include "tests/support/FakeNetworkManager.h"
#include "tests/support/TempDirectory.h"

namespace platform {
namespace {

using namespace qntest;

constexpr std::chrono::seconds kDeadline{20};

std::string render(NetworkStatus status) {
  return std::string(status.reachable ? "reachable" : "unreachable") +
         (status.metered ? " metered" : "");
}

// Remembers that it was called, and waits for it.
class Changes {
 public:
  explicit Changes(NetworkMonitor& monitor)
      : monitor_(monitor), watcher_(monitor.addWatcher([this] { _changed(); })) {}
  ~Changes() { monitor_.removeWatcher(watcher_); }

  // The status after the next change, or "no change".
  std::string next() {
    std::unique_lock lock(mutex_);
    if (!told_.wait_for(lock, kDeadline, [this] { return count_ > 0; })) return "no change";
    --count_;
    return render(monitor_.status());
  }
  int count() {
    std::lock_guard lock(mutex_);
    return count_;
  }

 private:
  void _changed() {
    std::lock_guard lock(mutex_);
    ++count_;
    told_.notify_all();
  }

  NetworkMonitor& monitor_;
  std::mutex mutex_;
  std::condition_variable told_;
  int count_ = 0;
  const NetworkMonitor::Watcher watcher_;  // last: it may be called before the constructor ends
};

class NetworkManagerTest : public testing::Test {
 protected:
  FakeNetworkManager network;
  ScopedEnvironment address{"DBUS_SYSTEM_BUS_ADDRESS", network.address()};
};

TEST_F(NetworkManagerTest, FollowsMeteredAndReachable) {
  network.appear(NMStateConnectedGlobal, NMConnectivityFull, NMMeteredYes);
  NetworkManagerMonitor monitor;
  EXPECT_EQ(render(monitor.status()), "reachable metered") << "known at the first question";
  Changes changes(monitor);
  const struct {
    const char* what;
    std::function<void()> change;
    const char* expected;
  } rows[] = {
      {"not metered", [&] { network.setMetered(NMMeteredNo); }, "reachable"},
      {"guessed metered", [&] { network.setMetered(NMMeteredGuessYes); }, "reachable metered"},
      {"guessed not", [&] { network.setMetered(NMMeteredGuessNo); }, "reachable"},
      {"connecting", [&] { network.setState(NMStateConnecting); }, "unreachable"},
      {"local", [&] { network.setState(NMStateConnectedLocal); }, "reachable"},
      {"portal", [&] { network.setConnectivity(NMConnectivityPortal); }, "unreachable"},
      {"full", [&] { network.setConnectivity(NMConnectivityFull); }, "reachable"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    row.change();
    EXPECT_EQ(changes.next(), row.expected);
  }
  // What changes nothing is not told: the next call is for the change after it.
  network.setState(NMStateConnectedGlobal);
  network.setMetered(NMMeteredNo);
  network.setMetered(NMMeteredYes);
  EXPECT_EQ(changes.next(), "reachable metered");
  EXPECT_EQ(changes.count(), 0);
}

TEST_F(NetworkManagerTest, ComesGoesAndComesBack) {
  NetworkManagerMonitor monitor;
  Changes changes(monitor);
  EXPECT_EQ(render(monitor.status()), "reachable");
  network.appear(NMStateDisconnected, NMConnectivityFull, NMMeteredGuessYes);
  EXPECT_EQ(changes.next(), "unreachable metered");
  network.vanish();
  EXPECT_EQ(changes.next(), "reachable");
  network.appear(NMStateConnectedGlobal, NMConnectivityFull, NMMeteredYes);
  EXPECT_EQ(changes.next(), "reachable metered");
  network.stopBus();
  EXPECT_EQ(changes.next(), "reachable");
}

TEST_F(NetworkManagerTest, WatchersMayRemoveThemselvesAndDropTheMonitor) {
  network.appear(NMStateConnectedGlobal, NMConnectivityFull, NMMeteredNo);
  auto monitor = std::make_unique<NetworkManagerMonitor>();
  std::mutex mutex;
  std::condition_variable told;
  int calls = 0;
  bool dropped = false;
  NetworkMonitor::Watcher own = 0;
  {
    std::lock_guard lock(mutex);
    own = monitor->addWatcher([&] {
      std::lock_guard inside(mutex);
      ++calls;
      monitor->removeWatcher(own);
      told.notify_all();
    });
  }
  const auto waitFor = [&](auto&& condition) {
    std::unique_lock lock(mutex);
    return told.wait_for(lock, kDeadline, condition);
  };
  network.setMetered(NMMeteredYes);
  ASSERT_TRUE(waitFor([&] { return calls == 1; }));
  monitor->addWatcher([&] {
    monitor.reset();
    std::lock_guard inside(mutex);
    dropped = true;
    told.notify_all();
  });
  network.setMetered(NMMeteredNo);
  EXPECT_TRUE(waitFor([&] { return dropped; }));
  EXPECT_EQ(calls, 1);
}

TEST(NetworkManagerAbsent, WithoutABusEverythingIsReachable) {
  const TempDirectory directory;
  const ScopedEnvironment address("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + directory.path("none"));
  NetworkManagerMonitor monitor;
  const auto watcher = monitor.addWatcher([] {});
  EXPECT_EQ(render(monitor.status()), "reachable");
  monitor.removeWatcher(watcher);
  NetworkManagerMonitor unused;  // never started: nothing to end
}

TEST(NetworkManagerAbsent, ABusThatComesLaterIsFoundByTheNextWatcher) {
  NetworkManagerMonitor monitor;
  {
    const TempDirectory directory;
    const ScopedEnvironment none("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + directory.path("none"));
    EXPECT_EQ(render(monitor.status()), "reachable");
  }
  FakeNetworkManager network;
  network.appear(NMStateConnectedGlobal, NMConnectivityFull, NMMeteredYes);
  const ScopedEnvironment address("DBUS_SYSTEM_BUS_ADDRESS", network.address());
  // The thread that found no bus may still be on its way out.
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  std::string seen;
  while (seen != "reachable metered" && std::chrono::steady_clock::now() < deadline) {
    const Changes changes(monitor);
    seen = render(monitor.status());
  }
  EXPECT_EQ(seen, "reachable metered");
}

TEST(NetworkMonitorDefault, TestsPutTheirOwnInPlace) {
  class Metered : public NetworkMonitor {
   public:
    NetworkStatus status() const override { return {true, true}; }
    Watcher addWatcher(std::function<void()>) override { return 1; }
    void removeWatcher(Watcher) override {}
  } metered;
  NetworkMonitor::setDefaultMonitor(&metered);
  EXPECT_EQ(render(NetworkMonitor::defaultMonitor().status()), "reachable metered");
  NetworkMonitor::setDefaultMonitor(nullptr);
  EXPECT_NE(&NetworkMonitor::defaultMonitor(), &metered);
}

}  // namespace
}  // namespace platform

#endif  // QN_TEST_SYSTEMD
