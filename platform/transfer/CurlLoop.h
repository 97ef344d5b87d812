#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/FileDescriptor.h"

typedef void CURL;
typedef void CURLM;
struct curl_sockaddr;

namespace platform {

// A curl_multi under epoll: only the transfers that something happened to are touched, and a loop
// without transfers sleeps until it is woken. All but wake() belongs to one thread at a time.
class CurlLoop {
 public:
  // Called from run() when a transfer ended; it has been taken out of the loop before.
  using Done = std::function<void(CURL* easy, int curlCode)>;

  struct Options {
    int connections = 64;  // kept alive at most
    std::string caFile;    // PEM; empty: the system's
  };

  CurlLoop(const Options& options, Done done);
  ~CurlLoop();
  CurlLoop(const CurlLoop&) = delete;
  CurlLoop& operator=(const CurlLoop&) = delete;

  // Ends a wait in run(), this one or the next. Any thread.
  void wake();

  // A handle with the options that all transfers share; give it back when it is out of the loop.
  CURL* takeHandle();
  void giveHandle(CURL* easy);

  [[nodiscard]] bool add(CURL* easy);
  void remove(CURL* easy);

  // Looks at a descriptor of somebody else's as well, for these epoll events; 0: not any more. One.
  void watch(int fd, uint32_t events, std::function<void(uint32_t events)> ready);

  // Waits until a socket is ready, curl's own timer is due, wake() was called or `timeoutMs` went
  // by
  // (-1: for ever), then lets the transfers move on.
  void run(int64_t timeoutMs);

 private:
  static int socketChanged(CURL* easy, int fd, int what, void* self, void*);
  static int openSocket(void* self, int purpose, curl_sockaddr* address);
  static int closeSocket(void* self, int fd);
  void watch(int fd, uint32_t events);
  void unwatch(int fd);
  void forget(int fd);
  static int timerChanged(CURLM* multi, long timeoutMs, void* self);
  void collectDone();
  int64_t timeToTimer() const;

  const Options options_;
  const Done done_;
  FileDescriptor epoll_;
  FileDescriptor wakeup_;
  std::unordered_set<int> watched_;  // of libcurl's sockets, those that it wants to hear of
  // Of those that it opened here, what epoll_ has them for. One that is out of use for a moment
  // stays there: the next transfer mostly wants the same.
  std::unordered_map<int, uint32_t> opened_;
  bool removing_ = false;
  std::atomic<bool> woken_{false};
  std::atomic<bool> waiting_{false};
  int other_ = -1;  // the descriptor of watch()
  std::function<void(uint32_t)> otherReady_;
  CURLM* multi_ = nullptr;
  std::vector<CURL*> idle_;
  int64_t timerAtMs_ = -1;  // on CLOCK_MONOTONIC, -1: none
};

}  // namespace platform
