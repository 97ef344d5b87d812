#include "platform/transfer/service/ServiceSocket.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/PrivateDirectory.h"
#include "platform/transfer/TransferOptions.h"
#include "platform/transfer/service/Wire.h"

namespace platform::service {
namespace {

constexpr uint32_t kMagic = 0x44544E51;  // "QNTD"

// A path that is longer than an address is reached through its open directory.
class Address {
 public:
  explicit Address(const std::string& path) {
    value_.sun_family = AF_UNIX;
    std::string name = path;
    if (name.size() >= sizeof(value_.sun_path)) {
      const size_t slash = path.rfind('/');
      directory_.reset(
          ::open(path.substr(0, slash).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
      if (!directory_) error_ = errno;
      name = "/proc/self/fd/" + std::to_string(directory_.get()) + path.substr(slash);
    }
    if (name.size() >= sizeof(value_.sun_path)) error_ = ENAMETOOLONG;
    if (error_ == 0) std::memcpy(value_.sun_path, name.data(), name.size());
  }

  int error() const { return error_; }
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&value_); }
  static constexpr socklen_t size() { return sizeof(sockaddr_un); }

 private:
  FileDescriptor directory_;
  sockaddr_un value_ = {};
  int error_ = 0;
};

bool peerCredentials(int fd, ucred& credentials) {
  socklen_t size = sizeof(credentials);
  return ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0;
}

}  // namespace

std::string socketPath() {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime && *runtime == '/') return std::string(runtime) + "/QNMovieDownloader/transferd.sock";
  return defaultStateDirectory() + "/run/transferd.sock";
}

std::string prepareSocketDirectory(const std::string& socketPath) {
  const std::string directory = socketPath.substr(0, socketPath.rfind('/'));
  ErrorPtr error;
  openPrivateDirectory(directory, PrivateDirectoryMode::Strict, error);
  return error ? error->localizedDescription() : std::string();
}

bool peerIsThisUser(int fd) {
  ucred credentials = {};
  return peerCredentials(fd, credentials) && credentials.uid == ::geteuid();
}

pid_t peerProcess(int fd) {
  ucred credentials = {};
  return peerCredentials(fd, credentials) ? credentials.pid : 0;
}

FileDescriptor connectTo(const std::string& socketPath, int* error) {
  const Address address(socketPath);
  if ((*error = address.error()) != 0) return {};
  FileDescriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd || ::connect(fd.get(), address.get(), Address::size()) != 0) {
    *error = errno;
    return {};
  }
  *error = 0;
  return fd;
}

FileDescriptor listenAt(const std::string& socketPath, int* error) {
  const Address address(socketPath);
  if ((*error = address.error()) != 0) return {};
  // Of two that find nobody listening only one may take the place.
  const FileDescriptor lock(
      ::open((socketPath + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!lock || ::flock(lock.get(), LOCK_EX) != 0) {
    *error = errno;
    return {};
  }
  if (FileDescriptor other = connectTo(socketPath, error); other) {
    *error = EADDRINUSE;
    return {};
  }
  ::unlink(socketPath.c_str());
  FileDescriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd || ::bind(fd.get(), address.get(), Address::size()) != 0 ||
      ::chmod(socketPath.c_str(), 0600) != 0 || ::listen(fd.get(), 64) != 0) {
    *error = errno;
    return {};
  }
  *error = 0;
  return fd;
}

std::string Hello::encode() const {
  WireWriter out;
  out.u32(kMagic);
  out.u32(static_cast<uint32_t>(kind));
  out.u32(version);
  out.u32(process);
  return out.take();
}

std::optional<Hello> Hello::decode(const std::string& bytes) {
  WireReader in(bytes);
  if (in.u32() != kMagic) return std::nullopt;
  const uint32_t kind = in.u32();
  if (kind < 1 || kind > 4) return std::nullopt;
  Hello hello{static_cast<Kind>(kind), in.u32(), 0};
  hello.process = in.u32();
  if (!in.atEnd()) return std::nullopt;
  return hello;
}

bool sendAll(int fd, const char* bytes, size_t count) {
  while (count > 0) {
    const ssize_t sent = ::send(fd, bytes, count, MSG_NOSIGNAL);
    if (sent < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes += sent;
    count -= static_cast<size_t>(sent);
  }
  return true;
}

bool receiveAll(int fd, char* bytes, size_t count, int timeoutMs) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  while (count > 0) {
    int wait = -1;
    if (timeoutMs >= 0) {
      wait = static_cast<int>(
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count());
      if (wait < 0) return false;
    }
    pollfd waiting{fd, POLLIN, 0};
    const int ready = ::poll(&waiting, 1, wait);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return false;
    const ssize_t got = ::recv(fd, bytes, count, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    bytes += got;
    count -= static_cast<size_t>(got);
  }
  return true;
}

std::optional<Hello> greet(int fd, Hello::Kind kind, uint32_t version, int timeoutMs) {
  const std::string bytes = Hello{kind, version, static_cast<uint32_t>(::getpid())}.encode();
  std::string answer(Hello::kSize, '\0');
  if (!sendAll(fd, bytes.data(), bytes.size()) ||
      !receiveAll(fd, answer.data(), answer.size(), timeoutMs))
    return std::nullopt;
  return Hello::decode(answer);
}

}  // namespace platform::service
