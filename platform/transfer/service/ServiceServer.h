#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>

#include <sys/types.h>

#include "platform/FileDescriptor.h"
#include "platform/transfer/service/ServiceConnection.h"
#include "platform/transfer/service/ServiceSession.h"
#include "platform/transfer/service/SessionRegistry.h"

namespace platform::service {

struct ServiceOptions {
  std::string registryDirectory;
  int64_t idleMs = 10'000;  // leaves after so long without a client and without work
  int64_t recoverAfterMs =
      3'000;  // sessions of a service that died wait so long for their applications
  int64_t launchDelayMs = 1'000;  // before a launch command is started, doubled each time
  uint32_t maximumLaunches = 5;
  uint32_t version = kProtocolVersion;
};

// The service: one thread that waits for clients, events, dead children, signals and its own few
// deadlines. Without a deadline it sleeps for as long as nothing happens.
class ServiceServer {
 public:
  ServiceServer(FileDescriptor listener, ServiceOptions options);
  ~ServiceServer();
  ServiceServer(const ServiceServer&) = delete;
  ServiceServer& operator=(const ServiceServer&) = delete;

  // Until it is idle, asked to leave by SIGTERM or SIGINT, or by a newer library. Everything is
  // stored when it returns.
  void run();

 private:
  struct Slot {
    std::unique_ptr<ServiceSession> session;
    int connection = -1;      // descriptor of the attached client
    pid_t holder = 0;         // its process
    pid_t launched = 0;       // alive, as far as known
    int64_t launchAtMs = -1;  // -1: none is due
  };

  void handle(int fd, uint32_t events);
  void serve(int fd, uint32_t events);
  void accept();
  void readSignals();
  void reapChildren();
  void readConnection(ServiceConnection& connection);
  // False when the connection is to end.
  bool takeMessages(ServiceConnection& connection);
  void takeHello(ServiceConnection& connection, const Hello& hello);
  bool takeMessage(ServiceConnection& connection, Message&& message);
  void open(ServiceConnection& connection, const OpenMessage& message);
  void handOver(ServiceConnection& connection);
  void takeBack(ServiceSession::Returned returned);
  void goodbye(ServiceConnection& connection);
  void drop(int fd);
  Slot* slotOf(const ServiceConnection& connection);
  // With an engine for these options, or for those that the store remembers.
  Slot& openSlot(const SessionRecord& record, const std::optional<TransferOptions>& options,
                 bool ephemeral);

  void collect();
  void flush(ServiceConnection& connection);
  void watch(int fd, uint32_t events, bool add);

  void recover();
  void considerLaunch(Slot& slot);
  void launchWhatIsDue(int64_t nowMs);
  void dropIdleSessions();
  int timeoutMs(int64_t nowMs);
  static int64_t nowMs();

  const ServiceOptions options_;
  const SessionRegistry registry_;
  FileDescriptor listener_;
  FileDescriptor epoll_;
  FileDescriptor wakeup_;
  FileDescriptor signals_;
  std::unordered_map<int, std::unique_ptr<ServiceConnection>> connections_;
  std::map<std::string, Slot> slots_;
  bool leaving_ = false;
  int64_t recoverAtMs_ = -1;
  int64_t idleSinceMs_ = -1;
};

}  // namespace platform::service
