#pragma once

#include <cerrno>
#include <utility>

#include <unistd.h>

namespace platform {

// Owns a file descriptor of the process; negative means none.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  ~FileDescriptor() { reset(); }

  explicit operator bool() const { return fd_ >= 0; }
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    const int old = std::exchange(fd_, fd);
    if (old >= 0) ::close(old);
  }
  // Closes now and tells: 0 or an errno. Some file systems report a failed write here at last.
  int close() {
    const int old = release();
    if (old < 0 || ::close(old) == 0 || errno == EINTR) return 0;
    return errno;
  }

 private:
  int fd_ = -1;
};

}  // namespace platform
