#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include <sys/types.h>

#include "tests/support/TempDirectory.h"

namespace qntest {

// NetworkManager's numbers.
inline constexpr uint32_t NMStateDisconnected = 20;
inline constexpr uint32_t NMStateConnecting = 40;
inline constexpr uint32_t NMStateConnectedLocal = 50;
inline constexpr uint32_t NMStateConnectedGlobal = 70;
inline constexpr uint32_t NMConnectivityPortal = 2;
inline constexpr uint32_t NMConnectivityFull = 4;
inline constexpr uint32_t NMMeteredYes = 1;
inline constexpr uint32_t NMMeteredNo = 2;
inline constexpr uint32_t NMMeteredGuessYes = 3;
inline constexpr uint32_t NMMeteredGuessNo = 4;

// A private system bus and a NetworkManager on it, played by python3-dbusmock in a process of its
// own. Every call returns when the bus has it, and throws std::runtime_error when that failed, also
// when a program is missing. Set DBUS_SYSTEM_BUS_ADDRESS to `address()` before the monitor is used
// for the first time.
class FakeNetworkManager {
 public:
  FakeNetworkManager();  // the bus alone
  ~FakeNetworkManager();
  FakeNetworkManager(const FakeNetworkManager&) = delete;
  FakeNetworkManager& operator=(const FakeNetworkManager&) = delete;

  std::string address() const { return "unix:path=" + directory_.path("bus"); }

  void appear(uint32_t state, uint32_t connectivity, uint32_t metered);
  void setState(uint32_t state) { _set("State", state); }
  void setConnectivity(uint32_t connectivity) { _set("Connectivity", connectivity); }
  void setMetered(uint32_t metered) { _set("Metered", metered); }
  void vanish();
  void stopBus();

 private:
  void _command(const std::string& line);
  void _set(const char* property, uint32_t value);
  std::string _answer();

  TempDirectory directory_;
  pid_t process_ = -1;
  FILE* commands_ = nullptr;
  FILE* answers_ = nullptr;
};

}  // namespace qntest
