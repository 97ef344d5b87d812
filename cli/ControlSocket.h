#pragma once

#include <list>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include <sys/types.h>

#include "cli/Place.h"
#include "platform/FileDescriptor.h"
#include "platform/JSON.h"
#include "platform/Mutex.h"

namespace cli {

// How another command reaches the process that works on a download: a Unix socket (0600) in the
// user's runtime directory (0700), for processes of the same user only. One JSON object a line each
// way:
//   {"command":"status"|"pause"|"resume"|"cancel"}
//   {"error":text} or the state (see docs/cli.md)

// The holder's end. A thread reads; requests are answered on the main thread, which alone acts on
// the download.
class ControlServer {
 public:
  // Listens. Who cannot is only not reachable: that is noted on the console.
  explicit ControlServer(const Place& place);
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

  // Answers what waits, with what `handler` (of command names) returns. Main thread; a request that
  // comes wakes it (Interrupt).
  using Handler = std::function<platform::JSON(const std::string& command)>;
  void answer(const Handler& handler);

 private:
  struct Client;

  void _run();
  void _accept();
  bool _read(Client& client);
  void _take(Client& client);

  const std::string path_;
  platform::FileDescriptor listener_;
  platform::FileDescriptor stop_;
  std::list<Client> clients_;  // of the thread
  struct Request {
    std::shared_ptr<platform::FileDescriptor> client;
    std::string command;
  };
  platform::Mutex mutex_;
  std::list<Request> requests_ GUARDED_BY(mutex_);
  std::thread thread_;
};

// The other end.
class ControlClient {
 public:
  // nullopt when no program works on the download.
  static std::optional<ControlClient> connect(const Place& place);

  pid_t process() const;
  // nullopt when the holder went or did not answer in time.
  std::optional<platform::JSON> ask(const std::string& command, int timeoutMs);

 private:
  explicit ControlClient(platform::FileDescriptor fd) : fd_(std::move(fd)) {}
  platform::FileDescriptor fd_;
};

}  // namespace cli
