#include <algorithm>
#include <chrono>
#include <deque>
#include <list>
#include <string>
#include <vector>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "bench/transfer/Server.h"

namespace qnbench {
namespace {

using Clock = std::chrono::steady_clock;

struct Chunk {
  Clock::time_point due;
  std::string bytes;
  size_t sent = 0;
};

// One direction of a connection.
struct Lane {
  int from = -1;
  int to = -1;
  std::deque<Chunk> chunks;
  bool ended = false;
};

struct Pair {
  Lane up;
  Lane down;
  Clock::time_point open;  // the handshake is over
  bool broken = false;
};

void take(Lane& lane, Clock::time_point due, bool& broken) {
  char bytes[65536];
  for (;;) {
    const auto got = ::read(lane.from, bytes, sizeof bytes);
    if (got < 0) {
      broken = broken || (errno != EAGAIN && errno != EINTR);
      return;
    }
    lane.ended = got == 0;
    if (lane.ended) return;
    lane.chunks.push_back({due, std::string(bytes, static_cast<size_t>(got))});
  }
}

void pass(Lane& lane, Clock::time_point now, bool& broken) {
  while (!lane.chunks.empty() && lane.chunks.front().due <= now) {
    Chunk& chunk = lane.chunks.front();
    const auto sent = ::send(lane.to, chunk.bytes.data() + chunk.sent,
                             chunk.bytes.size() - chunk.sent, MSG_NOSIGNAL);
    if (sent < 0) {
      broken = broken || (errno != EAGAIN && errno != EINTR);
      return;
    }
    chunk.sent += static_cast<size_t>(sent);
    if (chunk.sent == chunk.bytes.size()) lane.chunks.pop_front();
  }
  if (lane.ended && lane.chunks.empty()) broken = true;
}

int connectTo(uint16_t port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return -1;
  ::fcntl(fd, F_SETFL, O_NONBLOCK);
  return fd;
}

}  // namespace

void delay(uint16_t port, int roundTripMs, int portFd) {
  const auto half = std::chrono::microseconds(roundTripMs * 500);
  const int listener = listenOnLoopback(portFd);
  std::list<Pair> pairs;
  for (;;) {
    std::vector<pollfd> polled{{listener, POLLIN, 0}};
    auto next = Clock::time_point::max();
    for (auto& pair : pairs) {
      for (Lane* lane : {&pair.up, &pair.down}) {
        polled.push_back({lane->from, POLLIN, 0});
        if (!lane->chunks.empty()) next = std::min(next, lane->chunks.front().due);
      }
    }
    timespec wait{1, 0};
    if (next != Clock::time_point::max()) {
      const auto left = std::max(Clock::duration::zero(), next - Clock::now());
      wait.tv_sec = std::chrono::duration_cast<std::chrono::seconds>(left).count();
      wait.tv_nsec = (left % std::chrono::seconds(1)).count();
    }
    ::ppoll(polled.data(), polled.size(), &wait, nullptr);
    const auto now = Clock::now();
    if (polled[0].revents & POLLIN) {
      const int accepted = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      const int server = connectTo(port);
      const int one = 1;
      for (const int fd : {accepted, server})
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      Pair pair;
      pair.up = {accepted, server, {}, false};
      pair.down = {server, accepted, {}, false};
      pair.open = now + 2 * half;
      pairs.push_back(std::move(pair));
    }
    for (auto& pair : pairs) {
      take(pair.up, std::max(now, pair.open) + half, pair.broken);
      take(pair.down, now + half, pair.broken);
      pass(pair.up, now, pair.broken);
      pass(pair.down, now, pair.broken);
    }
    pairs.remove_if([](const Pair& pair) {
      if (pair.broken) {
        ::close(pair.up.from);
        ::close(pair.up.to);
      }
      return pair.broken;
    });
  }
}

}  // namespace qnbench
