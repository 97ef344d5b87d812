// A network that becomes metered and not metered again in the middle of a download, as
// NetworkManager tells it on the bus, to a session in process and to one in the service.

#if QN_TEST_SYSTEMD

#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "platform/NetworkManagerMonitor.h"
#include "tests/support/FakeNetworkManager.h"
#include "tests/support/TestContent.h"
#include "tests/transfer/ContractSuite.h"

namespace qntest {
namespace {

using platform::URLSessionTaskState;
using platform::URLSessionTaskWait;

constexpr uint64_t kSize = 300'000;
constexpr int64_t kPiece = 100'000;

struct MeteredRow {
  const char* name;
  bool service, discretionary;  // otherwise: no cellular access
};

std::ostream& operator<<(std::ostream& out, const MeteredRow& row) {
  return out << row.name;
}

class MeteredNetwork : public testing::TestWithParam<MeteredRow> {
 protected:
  MeteredNetwork() {
    network.appear(NMStateConnectedGlobal, NMConnectivityFull, NMMeteredNo);
    if (GetParam().service) {
      harness = std::make_unique<ServiceHarness>();
    } else {
      monitor = std::make_unique<platform::NetworkManagerMonitor>();
      platform::NetworkMonitor::setDefaultMonitor(monitor.get());
      harness = std::make_unique<TransferHarness>();
    }
    harness->configuration().discretionary = GetParam().discretionary;
    harness->configuration().allowsCellularAccess = GetParam().discretionary;
  }
  ~MeteredNetwork() override {
    app.reset();
    platform::NetworkMonitor::setDefaultMonitor(nullptr);
  }
  bool waitsForIt(const Application::TaskPtr& task) const {
    return app->recorder->waitUntil(
        [&] { return task->waitReason().wait == URLSessionTaskWait::Metered; });
  }

  FakeNetworkManager network;
  ScopedEnvironment address{"DBUS_SYSTEM_BUS_ADDRESS", network.address()};
  std::unique_ptr<platform::NetworkMonitor> monitor;
  std::unique_ptr<TransferHarness> harness;
  std::unique_ptr<Application> app;
};

TEST_P(MeteredNetwork, IsWaitedOutAgainAndAgainWithTheReason) {
  FaultServer& server = harness->server();
  server.serve("/a", kSize);
  server.script("/a", {Fault::hold(kPiece), Fault::hold(kPiece)});
  app = std::make_unique<Application>(*harness);
  app->launch();
  const auto task = app->start("/a");
  for (int round = 1; round <= 2; ++round) {
    ASSERT_TRUE(app->recorder->waitForBytes(task->taskIdentifier(), round * kPiece));
    network.setMetered(round == 1 ? NMMeteredYes : NMMeteredGuessYes);
    EXPECT_TRUE(waitsForIt(task));
    EXPECT_EQ(task->state(), URLSessionTaskState::Running);
    const std::string path = "/while-metered" + std::to_string(round);
    server.serve(path, kSize);
    const auto late = app->start(path);
    EXPECT_TRUE(waitsForIt(late));
    EXPECT_EQ(server.requestCount(path), 0U);
    EXPECT_EQ(server.requestCount("/a"), static_cast<size_t>(round));
    network.setMetered(NMMeteredNo);
    EXPECT_EQ(app->completed(late).summary(), "wfc 200");
  }
  const auto events = app->completed(task);
  EXPECT_EQ(events.summary(), "wfc 206");
  EXPECT_EQ(compareWithContent(events.files.at(0), "/a", 0, kSize), "");
  EXPECT_EQ(server.bytesSentAgain("/a"), 0U);
}

INSTANTIATE_TEST_SUITE_P(NetworkManager, MeteredNetwork,
                         testing::Values(MeteredRow{"NoCellular", false, false},
                                         MeteredRow{"Discretionary", false, true},
                                         MeteredRow{"NoCellularInTheService", true, false},
                                         MeteredRow{"DiscretionaryInTheService", true, true}),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace qntest

#endif
