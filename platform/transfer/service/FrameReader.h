#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace platform::service {

// Cuts what a socket gives into frames. A length of 0 or above the bound is a failure for good.
class FrameReader {
 public:
  // Reads once, at most `count` bytes, waiting for them when the socket blocks. False at the end of
  // the connection; a socket that does not block and has nothing is no end.
  bool fill(int fd, size_t count);
  // The next whole frame without its length; valid until the next call of anything.
  std::optional<std::string_view> next();
  // How many bytes the frame begun still lacks, at least 1: who reads just these leaves the next
  // frame in the socket.
  size_t missing() const;
  bool failed() const { return failed_; }

 private:
  std::string buffer_;
  size_t position_ = 0;
  bool failed_ = false;
};

}  // namespace platform::service
