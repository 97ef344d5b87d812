#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

#include <openssl/types.h>

namespace qntest {

// One accepted connection of FaultServer, plain or TLS, used by one thread; only shutDown() may
// come from another.
class FaultConnection {
 public:
  // Takes the socket. `context` null: plain.
  FaultConnection(int fd, SSL_CTX* context);
  ~FaultConnection();
  FaultConnection(const FaultConnection&) = delete;
  FaultConnection& operator=(const FaultConnection&) = delete;

  [[nodiscard]] bool handshake();
  // Up to and including the empty line; empty when the peer went.
  std::string readHead();
  [[nodiscard]] bool discard(uint64_t bytes);  // of a request body
  [[nodiscard]] bool send(std::string_view bytes);
  // Waits until the peer's kernel has everything, then ends the connection by RST.
  void reset();
  void shutDown();
  // True when the peer closed or reset, without reading.
  bool peerGone() const;

 private:
  int64_t receive(char* bytes, size_t count);
  void waitUntilAcknowledged() const;

  const int fd_;
  SSL* ssl_ = nullptr;
  bool reset_ = false;
  std::string pending_;
};

}  // namespace qntest
