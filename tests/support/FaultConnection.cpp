#include "tests/support/FaultConnection.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace qntest {

namespace {

constexpr char kTLSHandshake = 0x16;  // content type, RFC 8446 section 5.1
constexpr size_t kMaximumHead = size_t{64} << 10;
// Small, so that what a killed client never read is little.
constexpr int kSendBuffer = 64 << 10;

}  // namespace

FaultConnection::FaultConnection(int fd, SSL_CTX* context) : fd_(fd) {
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
  if (context == nullptr) return;
  ssl_ = SSL_new(context);
  SSL_set_fd(ssl_, fd);
}

FaultConnection::~FaultConnection() {
  if (ssl_ != nullptr) {
    if (!reset_) SSL_shutdown(ssl_);
    SSL_free(ssl_);
  }
  ::close(fd_);
}

bool FaultConnection::handshake() {
  return ssl_ == nullptr || SSL_accept(ssl_) == 1;
}

int64_t FaultConnection::receive(char* bytes, size_t count) {
  if (ssl_ != nullptr) return SSL_read(ssl_, bytes, static_cast<int>(count));
  return ::recv(fd_, bytes, count, 0);
}

std::string FaultConnection::readHead() {
  for (;;) {
    const size_t end = pending_.find("\r\n\r\n");
    if (end != std::string::npos) {
      std::string head = pending_.substr(0, end + 4);
      pending_.erase(0, end + 4);
      return head;
    }
    char buffer[4096];
    const int64_t got = receive(buffer, sizeof buffer);
    if (got <= 0 || pending_.size() > kMaximumHead) return "";
    pending_.append(buffer, static_cast<size_t>(got));
    if (pending_[0] == kTLSHandshake) {  // as servers answer who speaks TLS to a plain port
      if (send("HTTP/1.1 400 Bad Request\r\nConnection: close\r\n\r\n")) shutDown();
      return "";
    }
  }
}

bool FaultConnection::discard(uint64_t bytes) {
  const uint64_t have = std::min<uint64_t>(bytes, pending_.size());
  pending_.erase(0, have);
  for (bytes -= have; bytes > 0;) {
    char buffer[4096];
    const int64_t got = receive(buffer, std::min<uint64_t>(bytes, sizeof buffer));
    if (got <= 0) return false;
    bytes -= static_cast<uint64_t>(got);
  }
  return true;
}

bool FaultConnection::send(std::string_view bytes) {
  while (!bytes.empty()) {
    const int64_t sent = ssl_ != nullptr
                             ? SSL_write(ssl_, bytes.data(), static_cast<int>(bytes.size()))
                             : ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(sent));
  }
  return true;
}

void FaultConnection::waitUntilAcknowledged() const {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  int queued = 0;
  while (ioctl(fd_, SIOCOUTQ, &queued) == 0 && queued > 0 && !peerGone() &&
         std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void FaultConnection::reset() {
  waitUntilAcknowledged();
  const linger hard{1, 0};
  setsockopt(fd_, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
  reset_ = true;
}

void FaultConnection::shutDown() {
  ::shutdown(fd_, SHUT_RDWR);
}

bool FaultConnection::peerGone() const {
  pollfd watched{fd_, POLLRDHUP, 0};
  return ::poll(&watched, 1, 0) > 0 && (watched.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

}  // namespace qntest
