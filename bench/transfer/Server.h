#pragma once

#include <cstdint>
#include <string>

namespace qnbench {

struct ServerOptions {
  std::string certificateFile;  // with it: TLS
  std::string keyFile;
};

// Answers "/<bytes>/<anything>" with that many bytes, and "/mpd/<qualities>/<segments>/<bytes>"
// with a manifest of such files; HTTP/1.1, connections kept, one thread. Listens on 127.0.0.1,
// writes the port to `portFd` and serves until the process ends.
[[noreturn]] void serve(const ServerOptions& options, int portFd);

// Passes connections on to 127.0.0.1:`port` so that every byte takes half of `roundTripMs` each way
// and a new connection a whole round trip before its first byte.
[[noreturn]] void delay(uint16_t port, int roundTripMs, int portFd);

// A listening socket of 127.0.0.1, port 0; writes "<port>\n" to `portFd`.
int listenOnLoopback(int portFd);

}  // namespace qnbench
