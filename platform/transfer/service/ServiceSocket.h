#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <sys/types.h>

#include "platform/FileDescriptor.h"

// The socket between library and service: where it lies, who may use it and the hello before the
// first message. The hello and the quit request keep their form for ever, so that a newer library
// can make an older service leave.
namespace platform::service {

// "$XDG_RUNTIME_DIR/QNMovieDownloader/transferd.sock"; without that variable below the directory of
// session stores.
std::string socketPath();

// Makes the socket's directory (0700). Returns an empty text, or why it cannot be trusted: not
// ours, or open to others.
std::string prepareSocketDirectory(const std::string& socketPath);

// The other end runs as this user.
bool peerIsThisUser(int fd);
// 0 when it is not known.
pid_t peerProcess(int fd);

// Both give a socket that is close-on-exec, or an errno in `error`.
FileDescriptor connectTo(const std::string& socketPath, int* error);
// Replaces a socket that nobody listens on. Non-blocking.
FileDescriptor listenAt(const std::string& socketPath, int* error);

// The hello: 16 bytes each way, "QNTD", what it is, version, process; 32-bit little-endian.
struct Hello {
  enum class Kind : uint32_t { Hello = 1, Quit = 2, Welcome = 3, Leaving = 4 };
  Kind kind = Kind::Hello;
  uint32_t version = 0;
  uint32_t process = 0;

  static constexpr size_t kSize = 16;
  std::string encode() const;
  static std::optional<Hello> decode(const std::string& bytes);
};

// Blocking, whole or not at all; false when the connection ended or `timeoutMs` passed (-1: for
// ever).
bool sendAll(int fd, const char* bytes, size_t count);
bool receiveAll(int fd, char* bytes, size_t count, int timeoutMs);

// Says hello and waits for the welcome; nullopt when the other end is none of ours.
std::optional<Hello> greet(int fd, Hello::Kind kind, uint32_t version, int timeoutMs);

}  // namespace platform::service
