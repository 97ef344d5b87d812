#include "bench/transfer/Server.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <unordered_map>
#include <vector>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace qnbench {
namespace {

constexpr size_t kBlock = 1 << 20;

const std::vector<char>& block() {
  static const std::vector<char> bytes = [] {
    std::vector<char> result(kBlock);
    uint32_t state = 1;
    for (auto& byte : result)
      byte = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
    return result;
  }();
  return bytes;
}

std::string manifest(long qualities, long segments, long bytes) {
  std::string text =
      "<?xml version=\"1.0\"?><MPD xmlns=\"urn:mpeg:dash:schema:mpd:2011\" type=\"static\" "
      "mediaPresentationDuration=\"PT" +
      std::to_string(segments * 4) +
      "S\" minBufferTime=\"PT4S\" profiles=\"urn:mpeg:dash:profile:isoff-live:2011\"><Period>"
      "<AdaptationSet mimeType=\"video/mp4\" segmentAlignment=\"true\">"
      "<SegmentTemplate timescale=\"1\" duration=\"4\" startNumber=\"1\" media=\"/" +
      std::to_string(bytes) + "/$RepresentationID$/$Number$.m4s\"/>";
  for (long i = 0; i < qualities; ++i) {
    text += "<Representation id=\"v" + std::to_string(i) +
            "\" codecs=\"avc1.4d401f\" width=\"640\" " + "height=\"360\" bandwidth=\"" +
            std::to_string(bytes * 2 + i) + "\"/>";
  }
  return text + "</AdaptationSet></Period></MPD>";
}

struct Connection {
  int fd = -1;
  SSL* ssl = nullptr;
  std::string input;
  std::string head;  // and a manifest
  size_t headSent = 0;
  uint64_t body = 0;
  uint64_t bodySent = 0;

  ~Connection() {
    if (ssl) SSL_free(ssl);
    ::close(fd);
  }
  bool sending() const { return headSent < head.size() || bodySent < body; }

  // >0 bytes, 0 would block, -1 gone
  long read(char* bytes, size_t count) {
    const long got = ssl ? SSL_read(ssl, bytes, static_cast<int>(count)) : ::read(fd, bytes, count);
    return verdict(got);
  }
  long write(const char* bytes, size_t count, bool more) {
    const long sent =
        ssl ? SSL_write(ssl, bytes, static_cast<int>(std::min<size_t>(count, 1 << 14)))
            : ::send(fd, bytes, count, MSG_NOSIGNAL | (more ? MSG_MORE : 0));
    return verdict(sent);
  }
  long verdict(long result) {
    if (result > 0) return result;
    if (ssl) {
      const int why = SSL_get_error(ssl, static_cast<int>(result));
      return why == SSL_ERROR_WANT_READ || why == SSL_ERROR_WANT_WRITE ? 0 : -1;
    }
    return result < 0 && (errno == EAGAIN || errno == EINTR) ? 0 : -1;
  }
};

void answer(Connection& c) {
  const size_t end = c.input.find("\r\n\r\n");
  const size_t slash = c.input.find('/');
  long numbers[3] = {};
  std::string body;
  if (std::sscanf(c.input.c_str() + slash, "/mpd/%ld/%ld/%ld", &numbers[0], &numbers[1],
                  &numbers[2]) == 3) {
    body = manifest(numbers[0], numbers[1], numbers[2]);
    c.body = 0;
  } else {
    c.body = std::strtoull(c.input.c_str() + slash + 1, nullptr, 10);
  }
  c.bodySent = 0;
  c.headSent = 0;
  c.head =
      "HTTP/1.1 200 OK\r\nServer: bench\r\nDate: Mon, 01 Jan 2024 00:00:00 GMT\r\n"
      "Content-Type: video/mp4\r\nETag: \"1\"\r\nAccept-Ranges: bytes\r\nContent-Length: " +
      std::to_string(c.body + body.size()) + "\r\n\r\n" + body;
  c.input.erase(0, end + 4);
}

// False when the connection is over.
bool advance(Connection& c) {
  for (;;) {
    if (c.headSent < c.head.size()) {
      const long sent = c.write(c.head.data() + c.headSent, c.head.size() - c.headSent, c.body > 0);
      if (sent <= 0) return sent == 0;
      c.headSent += static_cast<size_t>(sent);
      continue;
    }
    if (c.bodySent < c.body) {
      const size_t offset = c.bodySent % kBlock;
      const size_t count = std::min<uint64_t>(kBlock - offset, c.body - c.bodySent);
      const long sent = c.write(block().data() + offset, count, false);
      if (sent <= 0) return sent == 0;
      c.bodySent += static_cast<size_t>(sent);
      continue;
    }
    if (c.input.find("\r\n\r\n") != std::string::npos) {
      answer(c);
      continue;
    }
    char bytes[4096];
    const long got = c.read(bytes, sizeof bytes);
    if (got <= 0) return got == 0;
    c.input.append(bytes, static_cast<size_t>(got));
  }
}

SSL_CTX* makeContext(const ServerOptions& options) {
  if (options.certificateFile.empty()) return nullptr;
  SSL_CTX* const context = SSL_CTX_new(TLS_server_method());
  if (SSL_CTX_use_certificate_chain_file(context, options.certificateFile.c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(context, options.keyFile.c_str(), SSL_FILETYPE_PEM) != 1) {
    std::fprintf(stderr, "certificate or key cannot be read\n");
    std::exit(1);
  }
  SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  return context;
}

}  // namespace

int listenOnLoopback(int portFd) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  const int one = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(fd, 1024) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    std::perror("listen");
    std::exit(1);
  }
  dprintf(portFd, "%d\n", ntohs(address.sin_port));
  return fd;
}

void serve(const ServerOptions& options, int portFd) {
  SSL_CTX* const context = makeContext(options);
  block();
  const int listener = listenOnLoopback(portFd);
  const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = listener;
  ::epoll_ctl(epoll, EPOLL_CTL_ADD, listener, &event);
  std::unordered_map<int, std::unique_ptr<Connection>> connections;
  for (;;) {
    epoll_event events[64];
    const int count = ::epoll_wait(epoll, events, 64, -1);
    for (int i = 0; i < count; ++i) {
      const int fd = events[i].data.fd;
      if (fd != listener) {
        if (!advance(*connections[fd])) connections.erase(fd);
        continue;
      }
      const int accepted = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (accepted < 0) continue;
      const int one = 1;
      ::setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      auto connection = std::make_unique<Connection>();
      connection->fd = accepted;
      if (context) {
        connection->ssl = SSL_new(context);
        SSL_set_fd(connection->ssl, accepted);
        SSL_set_accept_state(connection->ssl);
      }
      event.events = EPOLLIN | EPOLLOUT | EPOLLET;
      event.data.fd = accepted;
      ::epoll_ctl(epoll, EPOLL_CTL_ADD, accepted, &event);
      connections[accepted] = std::move(connection);
    }
  }
}

}  // namespace qnbench
