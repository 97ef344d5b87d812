#include "platform/transfer/StoreLock.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "platform/Exception.h"
#include "platform/FileDescriptor.h"

namespace platform {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kPause = std::chrono::milliseconds(20);

[[noreturn]] void refuse(const std::string& reason) {
  throw Exception("NSURLSessionException", reason);
}

pid_t readHolder(int fd) {
  std::array<char, 32> text{};
  const auto count = ::pread(fd, text.data(), text.size() - 1, 0);
  return count > 0 ? static_cast<pid_t>(std::strtol(text.data(), nullptr, 10)) : 0;
}

std::string holderOf(int fd) {
  const pid_t holder = readHolder(fd);
  return holder <= 0 ? "another process" : "process " + std::to_string(holder);
}

void writeHolder(int fd) {
  const std::string text = std::to_string(::getpid()) + "\n";
  // For people and messages only: the claim is the lock.
  static_cast<void>(!::ftruncate(fd, 0));
  static_cast<void>(!::pwrite(fd, text.data(), text.size(), 0));
}

}  // namespace

StoreLock::StoreLock(const std::string& directory, const std::string& identifier, int waitMs) {
  const std::string path = directory + "/lock";
  FileDescriptor fd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!fd) refuse("The lock " + path + " cannot be opened: " + std::strerror(errno));

  const auto deadline = Clock::now() + std::chrono::milliseconds(waitMs);
  const int file = fd.get();
  while (const int failed = FileLock::take(fd, lock_)) {
    if (failed != EWOULDBLOCK) refuse("The lock " + path + " failed: " + std::strerror(failed));
    if (Clock::now() >= deadline) {
      const std::string holder = holderOf(fd.get());
      throw Exception("NSURLSessionException",
                      "The session \"" + identifier + "\" is held by " + holder,
                      {{QNURLSessionHolderKey, holder}});
    }
    std::this_thread::sleep_for(kPause);
  }
  writeHolder(file);
}

std::optional<pid_t> StoreLock::holder(const std::string& directory) {
  const FileDescriptor fd(::open((directory + "/lock").c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (!fd || ::flock(fd.get(), LOCK_SH | LOCK_NB) == 0 || errno != EWOULDBLOCK) return std::nullopt;
  return readHolder(fd.get());
}

}  // namespace platform
